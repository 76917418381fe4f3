// mdx: the library's command-line tool.
#include "Commands.h"
#include "Exit.h"

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McBuildInfo.h>
#include <mdxlib/platform/McLogFile.h>

#include <cstdio>
#include <functional>
#include <map>

namespace {

void printUsage(std::FILE* out)
{
    std::fputs("usage: mdx COMMAND [OPTION]... [ARGUMENT]...\n"
               "       mdx --version | --help\n"
               "\n"
               "commands:\n"
               "  scan PATH...          read the DICOM files under PATH into one study tree per\n"
               "                        study, optimise the trees and report their sizes\n"
               "  build PATH...         the same, and write one tag file per study\n"
               "  ls [FOLDER|TAGFILE|STUDYUID]\n"
               "                        list the studies of a folder of tag files, or one study\n"
               "  dump TAGFILE|STUDYUID [SOPUID]\n"
               "                        print an image's attributes, or what each node stores\n"
               "  preview STUDYUID|FILE... [--out DIR]\n"
               "                        write the preview images of files or of a study\n"
               "  rm STUDYUID [--series UID...|--images UID...]\n"
               "                        delete a tag file, or series or images from it\n"
               "  catalog add PATH...   record the studies, series and images of DICOM files in\n"
               "                        the study catalog\n"
               "  catalog ls [STUDYUID] list the catalog's studies, or one study's series\n"
               "  generate STUDYUID     build a study's tag file from the files the catalog lists:\n"
               "                        images, volume files, previews\n"
               "  sync STUDYUID         make a study's tag file agree with the catalog\n"
               "  merge TAGFILE...      fold partial tag files into their studies' tag files\n"
               "  kz create OUT.kz FILE...\n"
               "                        pack files into a .kz container\n"
               "  kz ls CONTAINER       list a container's members\n"
               "  kz cat CONTAINER MEMBER\n"
               "                        write a member's bytes to standard output\n"
               "  kz name KEY [INDEX]   print the file name of a container made for KEY\n"
               "  qa put ID FILE        store QA record ID in the catalog\n"
               "  qa show ID            print QA record ID step by step\n"
               "  update STUDYUID JOB.xml\n"
               "                        run a tag-file update job (edit, move, suffixes)\n"
               "  cp FILE URL           upload a local file to s3://bucket/key or\n"
               "                        az://account/container/blob\n"
               "  cp C.kz/MEMBER DEST   copy a member of a local or remote container to a local\n"
               "                        file or a cloud object\n"
               "  json TAGFILE|STUDYUID [--series UID] [--image UID] [--pretty]\n"
               "                        write the DICOM JSON metadata of a study from its tag file\n"
               "  cat URL|C.kz/MEMBER   write a remote object or a container member to standard\n"
               "                        output through the cloud reader\n"
               "  suv FILE...           print the SUV parameters and factors of PET images\n"
               "  volume SERIES_PATH OUT\n"
               "                        write a volume file from a series of DICOM images\n"
               "  version               print the version\n"
               "\n"
               "Tag files lie in the meta folder: --meta=DIR, else MDX_META_FOLDER, else ./meta/.\n"
               "The catalog: --catalog=CONNECTION (an SQLite file or a postgresql:// URL), else\n"
               "MDX_CATALOG, else catalog.sqlite in $XDG_DATA_HOME/mdxlib/ (~/.local/share/mdxlib/).\n"
               "Options take their value as --opt=VALUE or --opt VALUE; -- ends the options.\n"
               "'mdx COMMAND --help' shows the options of a command.\n"
               "\n",
               out);
    std::fputs(mdxtool::kExitCodeHelp, out);
}

int printVersion()
{
    std::printf("mdx %s\n", McBuildInfo::getBuildString(4).c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    using mdxtool::ExitCode;
    std::map<std::string, std::function<int(mdxtool::Arguments const&)>> const commands{
        {"scan", mdxtool::scanCommand},       {"build", mdxtool::buildCommand},
        {"ls", mdxtool::lsCommand},           {"dump", mdxtool::dumpCommand},
        {"rm", mdxtool::rmCommand},           {"catalog", mdxtool::catalogCommand},
        {"sync", mdxtool::syncCommand},       {"merge", mdxtool::mergeCommand},
        {"kz", mdxtool::kzCommand},           {"qa", mdxtool::qaCommand},
        {"update", mdxtool::updateCommand},   {"cp", mdxtool::cpCommand},
        {"preview", mdxtool::previewCommand}, {"json", mdxtool::jsonCommand},
        {"cat", mdxtool::catCommand},         {"suv", mdxtool::suvCommand},
        {"volume", mdxtool::volumeCommand},   {"generate", mdxtool::generateCommand},
    };
    if (argc < 2) {
        printUsage(stderr);
        return mdxtool::status(ExitCode::Usage);
    }
    // The tool says in its own words what went wrong; the library's log
    // only when asked for (MDX_LOG_LEVEL).
    if (!ExResource::getParameter("MDX_LOG_LEVEL"))
        getTheLogInstance()->setLogLevel(McLogFile::LevelError + 1);
    std::string const name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        printUsage(stdout);
        return mdxtool::status(ExitCode::Ok);
    }
    if (name == "--version" || name == "version")
        return printVersion();
    auto const command = commands.find(name);
    if (command == commands.end())
        return mdxtool::fail(ExitCode::Usage, "unknown command '%s' (try 'mdx --help')", name.c_str());
    return command->second(mdxtool::Arguments(argv + 2, argv + argc));
}
