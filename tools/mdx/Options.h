// Command-line parsing shared by the mdx commands, in GNU style: long
// options as "--meta DIR" or "--meta=DIR", short flags ("-q", "-qv"), and
// "--" ending the options. Each command describes its options in a table,
// from which its --help text is made too.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace mdxtool {

struct OptionSyntax
{
    char const* name;      // "--meta"
    char shortName;        // 'q', or 0
    char const* valueName; // "DIR" for an option with a value, null for a flag
    char const* help;
    bool multiValued = false; // "--series A B C": the values up to the next option
};

struct CommandSyntax
{
    char const* name;        // "scan"
    char const* arguments;   // "PATH..."
    char const* description; // what the command does, a paragraph
    std::vector<OptionSyntax> options;
};

// -h/--help, -q/--quiet and -v/--verbose, worded alike for every command.
OptionSyntax const& helpOption();
OptionSyntax const& quietOption();
OptionSyntax const& verboseOption();
OptionSyntax const& metaOption();
OptionSyntax const& jsonOption();
OptionSyntax const& catalogOption();

struct ParsedArguments
{
    std::set<std::string> flags;                            // "--quiet"
    std::map<std::string, std::vector<std::string>> values; // "--meta" -> {"dir"}
    std::vector<std::string> positional;

    bool has(std::string const& flag) const { return flags.count(flag) > 0; }
    std::string value(std::string const& option) const
    {
        auto const it = values.find(option);
        return it == values.end() || it->second.empty() ? std::string() : it->second.back();
    }
};

// Parses args for command. With --help, prints the usage on standard output
// and gives exit status 0; on an error, one line on standard error and the
// usage status. Otherwise no value: the command goes on with parsed.
std::optional<int> parseCommand(CommandSyntax const& command, std::vector<std::string> const& args,
                                ParsedArguments& parsed);

// A wrong count of positional arguments, reported as parseCommand does.
int usageError(CommandSyntax const& command, char const* problem);

// Points the database functions at --catalog, when given: they reach the
// catalog through the configured connection, as in a server process.
void applyCatalog(ParsedArguments const& parsed);

// A whole decimal number from 1 to most; false for anything else (signs,
// spaces, trailing text, values out of range).
bool parsePositive(std::string const& text, int& value, int most = 0x7FFFFFFF);

} // namespace mdxtool
