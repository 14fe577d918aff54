// Copying and removing directory trees without exceptions.
#pragma once

#include <string>

namespace vu {
namespace project {
namespace detail {

// Copies the tree at from to the new path to: directories, regular files (with their
// permissions) and symbolic links (as links). False with error set on the first
// failure; what was made so far is left for the caller to remove.
bool copyTree(const std::string& from, const std::string& to, std::string& error);

// Removes path and everything below it; a missing path is not an error.
bool removeTree(const std::string& path, std::string& error);

// Swaps the directory entries a and b in one step where the file system allows it
// (renameat2 with RENAME_EXCHANGE); elsewhere b is moved aside for an instant.
bool exchange(const std::string& a, const std::string& b, std::string& error);

}  // namespace detail
}  // namespace project
}  // namespace vu
