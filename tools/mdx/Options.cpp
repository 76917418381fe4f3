#include "Options.h"

namespace mdxtool {

ParsedArguments parseArguments(std::vector<std::string> const& args, std::set<std::string> const& knownFlags,
                               std::set<std::string> const& knownOptions,
                               std::set<std::string> const& multiValued)
{
    ParsedArguments parsed;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string const& arg = args[i];
        if (arg == "-h")
            parsed.flags.insert("--help");
        else if (arg == "-q")
            parsed.flags.insert("--quiet");
        else if (arg == "-v")
            parsed.flags.insert("--verbose");
        else if (knownFlags.count(arg))
            parsed.flags.insert(arg);
        else if (knownOptions.count(arg) || multiValued.count(arg)) {
            std::vector<std::string>& values = parsed.values[arg];
            size_t const before = values.size();
            while (i + 1 < args.size() && args[i + 1].rfind("--", 0) != 0) {
                values.push_back(args[++i]);
                if (!multiValued.count(arg))
                    break;
            }
            if (values.size() == before)
                parsed.error = "option " + arg + " needs a value";
        } else if (arg.size() > 1 && arg[0] == '-') {
            parsed.error = "unknown option '" + arg + "'";
        } else {
            parsed.positional.push_back(arg);
        }
    }
    return parsed;
}

} // namespace mdxtool
