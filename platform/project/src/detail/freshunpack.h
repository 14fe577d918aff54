// Directories that importProject created and filled, remembered so that importing one of
// them as a behavior can move it into the library instead of copying it: such a
// directory is a scratch copy of a package, made to be imported and then deleted.
#pragma once

#include <string>

namespace vu {
namespace project {
namespace detail {

// Remembers dir (an absolute, normalised path) as a fresh unpack. The record is tied to
// the directory's identity and change time on disk, so neither a directory later put at
// the same path nor one changed since is taken for it.
void rememberFreshUnpack(const std::string& dir);

// When dir is a fresh unpack, renames it to the entry `targetName` of `targetDirectory`
// (which must not exist) and forgets it. False, with dir untouched, when dir is not one
// or the rename fails (for instance because the target lies on another file system).
bool moveFreshUnpack(const std::string& dir, int targetDirectory, const std::string& targetName);

}  // namespace detail
}  // namespace project
}  // namespace vu
