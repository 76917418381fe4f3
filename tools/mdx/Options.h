// Command-line parsing shared by the mdx commands: flags, options with a
// value, and the remaining positional arguments.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace mdxtool {

struct ParsedArguments
{
    std::set<std::string> flags;                            // "--quiet"
    std::map<std::string, std::vector<std::string>> values; // "--meta" -> {"dir"}
    std::vector<std::string> positional;
    std::string error; // set when the arguments are not understood

    bool has(std::string const& flag) const { return flags.count(flag) > 0; }
    std::string value(std::string const& option) const
    {
        auto const it = values.find(option);
        return it == values.end() || it->second.empty() ? std::string() : it->second.back();
    }
};

// knownFlags take no value; knownOptions take one each time they appear.
// An option listed in multiValued also swallows the following arguments up
// to the next one that starts with "--" ("--series A B C").
ParsedArguments parseArguments(std::vector<std::string> const& args, std::set<std::string> const& knownFlags,
                               std::set<std::string> const& knownOptions,
                               std::set<std::string> const& multiValued = {});

} // namespace mdxtool
