// mdx: the library's command-line tool.
#include "Commands.h"

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>

namespace {

void printUsage(std::FILE* out)
{
    std::fputs("usage: mdx <command> [options] [arguments]\n"
               "\n"
               "commands:\n"
               "  scan PATH...          read the DICOM files under PATH into one study tree per\n"
               "                        study, optimise the trees and report their sizes\n"
               "  build PATH...         the same, and write one tag file per study\n"
               "  ls TAGFILE|STUDYUID   list a tag file: study, series, volumes, statistics\n"
               "  dump TAGFILE|STUDYUID [SOPUID]\n"
               "                        print an image's attributes, or what each node stores\n"
               "  rm STUDYUID [--series UID...|--images UID...]\n"
               "                        delete a tag file, or series or images from it\n"
               "\n"
               "Tag files lie in the meta folder: --meta DIR, else MDX_META_FOLDER, else ./meta/.\n"
               "\n"
               "mdx <command> --help shows the options of a command.\n",
               out);
}

} // namespace

int main(int argc, char** argv)
{
    std::map<std::string, std::function<int(mdxtool::Arguments const&)>> const commands{
        {"scan", mdxtool::scanCommand}, {"build", mdxtool::buildCommand}, {"ls", mdxtool::lsCommand},
        {"dump", mdxtool::dumpCommand}, {"rm", mdxtool::rmCommand},
    };
    if (argc < 2) {
        printUsage(stderr);
        return 2;
    }
    // The tool reports for itself; the library's information messages only
    // when asked for (MDX_LOG_LEVEL).
    if (!ExResource::getParameter("MDX_LOG_LEVEL"))
        getTheLogInstance()->setLogLevel(McLogFile::LevelWarning);
    std::string const name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        printUsage(stdout);
        return 0;
    }
    auto const command = commands.find(name);
    if (command == commands.end()) {
        std::fprintf(stderr, "mdx: unknown command '%s'\n\n", name.c_str());
        printUsage(stderr);
        return 2;
    }
    return command->second(mdxtool::Arguments(argv + 2, argv + argc));
}
