// Copying, removing and exchanging directory trees. Failures throw ProjectError.
#pragma once

#include <string>

namespace vu {
namespace project {
namespace detail {

// Copies the tree at from to the new path to: directories, regular files (with their
// permissions) and symbolic links (as links). Stops at the first failure; what was made
// so far is left for the caller to remove.
void copyTree(const std::string& from, const std::string& to);

// Removes path and everything below it; a missing path is not an error.
void removeTree(const std::string& path);

// The same for clearing up after another failure: what cannot be removed stays, and
// nothing is thrown, so that the first failure is the one reported.
void removeTreeIfPossible(const std::string& path) noexcept;

// Swaps the directory entries a and b in one step where the file system allows it
// (renameat2 with RENAME_EXCHANGE); elsewhere b is moved aside for an instant.
void exchange(const std::string& a, const std::string& b);

}  // namespace detail
}  // namespace project
}  // namespace vu
