// mdx: the library's command-line tool.
#include "Commands.h"

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
               "  scan PATH...   read the DICOM files under PATH into one study tree per study,\n"
               "                 optimise the trees and report their sizes\n"
               "\n"
               "mdx <command> --help shows the options of a command.\n",
               out);
}

} // namespace

int main(int argc, char** argv)
{
    std::map<std::string, std::function<int(mdxtool::Arguments const&)>> const commands{
        {"scan", mdxtool::scanCommand},
    };
    if (argc < 2) {
        printUsage(stderr);
        return 2;
    }
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
