#include "Options.h"
#include "Exit.h"

#include <mdxlib/platform/WebService.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mdxtool {

OptionSyntax const& helpOption()
{
    static OptionSyntax const option{"--help", 'h', nullptr, "show this help and exit"};
    return option;
}

OptionSyntax const& quietOption()
{
    static OptionSyntax const option{"--quiet", 'q', nullptr, "no progress line"};
    return option;
}

OptionSyntax const& verboseOption()
{
    static OptionSyntax const option{"--verbose", 'v', nullptr, "name every file that was skipped, and why"};
    return option;
}

OptionSyntax const& metaOption()
{
    static OptionSyntax const option{"--meta", 0, "DIR",
                                     "the meta folder (else MDX_META_FOLDER, else ./meta/)"};
    return option;
}

OptionSyntax const& catalogOption()
{
    static OptionSyntax const option{"--catalog", 0, "CONNECTION",
                                     "an SQLite file (PATH, sqlite:PATH) or a postgresql:// URL "
                                     "(default: MDX_CATALOG)"};
    return option;
}

OptionSyntax const& jsonOption()
{
    static OptionSyntax const option{"--json", 0, nullptr,
                                     "one JSON document on standard output instead of text"};
    return option;
}

namespace {

void printUsage(CommandSyntax const& command, std::FILE* out)
{
    std::fprintf(out, "usage: mdx %s [OPTION]... %s\n\n%s\n\noptions:\n", command.name, command.arguments,
                 command.description);
    for (OptionSyntax const& option : command.options) {
        std::string left = option.shortName ? std::string("-") + option.shortName + ", " : "    ";
        left += option.name;
        if (option.valueName)
            left += std::string("=") + option.valueName + (option.multiValued ? "..." : "");
        std::fprintf(out, "  %-24s %s\n", left.c_str(), option.help);
    }
}

OptionSyntax const* findLong(CommandSyntax const& command, std::string const& name)
{
    for (OptionSyntax const& option : command.options) {
        if (name == option.name)
            return &option;
    }
    return nullptr;
}

OptionSyntax const* findShort(CommandSyntax const& command, char name)
{
    for (OptionSyntax const& option : command.options) {
        if (option.shortName == name)
            return &option;
    }
    return nullptr;
}

bool startsOption(std::string const& arg)
{
    return arg.size() > 1 && arg[0] == '-';
}

// The parse itself; an error text, empty when the arguments are understood.
std::string parse(CommandSyntax const& command, std::vector<std::string> const& args, ParsedArguments& parsed)
{
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string const& arg = args[i];
        if (optionsEnded || !startsOption(arg)) {
            parsed.positional.push_back(arg);
        } else if (arg == "--") {
            optionsEnded = true;
        } else if (arg.compare(0, 2, "--") == 0) {
            size_t const equals = arg.find('=');
            std::string const name = arg.substr(0, equals);
            OptionSyntax const* option = findLong(command, name);
            if (!option)
                return "unknown option '" + name + "'";
            if (!option->valueName) {
                if (equals != std::string::npos)
                    return "option '" + name + "' takes no value";
                parsed.flags.insert(name);
                continue;
            }
            std::vector<std::string>& values = parsed.values[name];
            if (equals != std::string::npos) {
                values.push_back(arg.substr(equals + 1));
            } else if (i + 1 < args.size()) {
                values.push_back(args[++i]);
            } else {
                return "option '" + name + "' needs a value";
            }
            while (option->multiValued && i + 1 < args.size() && !startsOption(args[i + 1]))
                values.push_back(args[++i]);
        } else {
            // As getopt does: flags may be grouped ("-qv"), and an option
            // that takes a value takes the rest of the group ("-j4") or the
            // next argument ("-j 4").
            for (size_t k = 1; k < arg.size(); ++k) {
                OptionSyntax const* option = findShort(command, arg[k]);
                if (!option)
                    return std::string("unknown option '-") + arg[k] + "'";
                if (!option->valueName) {
                    parsed.flags.insert(option->name);
                    continue;
                }
                std::vector<std::string>& values = parsed.values[option->name];
                if (k + 1 < arg.size())
                    values.push_back(arg.substr(k + 1));
                else if (i + 1 < args.size())
                    values.push_back(args[++i]);
                else
                    return std::string("option '-") + arg[k] + "' needs a value";
                break;
            }
        }
    }
    return std::string();
}

} // namespace

bool parsePositive(std::string const& text, int& value, int most)
{
    if (text.empty() || text[0] < '0' || text[0] > '9')
        return false;
    errno = 0;
    char* end = nullptr;
    long long const parsed = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || parsed < 1 || parsed > most)
        return false;
    value = static_cast<int>(parsed);
    return true;
}

void applyCatalog(ParsedArguments const& parsed)
{
    if (!parsed.value("--catalog").empty())
        SetDatabaseServer(parsed.value("--catalog").c_str());
}

int usageError(CommandSyntax const& command, char const* problem)
{
    return fail(ExitCode::Usage, "%s: %s (try 'mdx %s --help')", command.name, problem, command.name);
}

std::optional<int> parseCommand(CommandSyntax const& command, std::vector<std::string> const& args,
                                ParsedArguments& parsed)
{
    std::string const error = parse(command, args, parsed);
    // --help wins over whatever else is wrong, as users ask for it then.
    if (parsed.has("--help")) {
        printUsage(command, stdout);
        return status(ExitCode::Ok);
    }
    if (!error.empty())
        return usageError(command, error.c_str());
    return std::nullopt;
}

} // namespace mdxtool
