// Crash-safe whole-file writes.
//
// writeFileAtomically writes "<dir>/.<name>.tmp.<pid>.<n>", flushes it to disk, renames
// it over <dir>/<name> and flushes the folder: a reader sees the old file or the new
// one, also when the writer is killed at any point. A killed writer leaves its
// temporary file behind; removeStaleTemporaries deletes those of dead processes.
#pragma once

#include <string>

namespace ZR {
namespace detail {

// Creates missing folders. With replace false an existing file is left alone and the
// call returns false. std::system_error on failure (the old file then stays).
bool writeFileAtomically(const std::string& path, const std::string& content, bool replace);

// Deletes the temporary files of path whose writing process no longer exists.
// Returns how many were deleted.
int removeStaleTemporaries(const std::string& path);

}  // namespace detail
}  // namespace ZR
