// The mdx command-line tool: one function per sub-command.
//
// Each command takes the arguments that follow its name and returns the
// process exit status, one of ExitCode (Exit.h).
#pragma once

#include <string>
#include <vector>

namespace mdxtool {

using Arguments = std::vector<std::string>;

int scanCommand(Arguments const& args);
int buildCommand(Arguments const& args);
int lsCommand(Arguments const& args);
int previewCommand(Arguments const& args);
int dumpCommand(Arguments const& args);
int rmCommand(Arguments const& args);
int catalogCommand(Arguments const& args);
int syncCommand(Arguments const& args);
int generateCommand(Arguments const& args);
int jsonCommand(Arguments const& args);
int mergeCommand(Arguments const& args);
int kzCommand(Arguments const& args);
int qaCommand(Arguments const& args);
int updateCommand(Arguments const& args);
int cpCommand(Arguments const& args);
int catCommand(Arguments const& args);
int suvCommand(Arguments const& args);
int volumeCommand(Arguments const& args);

} // namespace mdxtool
