// How the mdx commands find the tag file they are given: a .tc path, or a
// Study Instance UID looked up in the meta folder.
#pragma once

#include "Options.h"

#include <optional>
#include <string>

namespace Mdx {
class TagFile;
}

namespace mdxtool {

// Sets the meta folder from --meta, when given.
void applyMeta(ParsedArguments const& parsed);
// Reads what (a path, or a study UID) into file. Nothing on success;
// otherwise the exit status, with the reason on standard error.
std::optional<int> openTagFile(std::string const& what, Mdx::TagFile& file);

} // namespace mdxtool
