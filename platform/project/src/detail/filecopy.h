// Copying, removing and exchanging directory trees beneath directory descriptors (the
// platform's confinement layer, vu/beneath.h), and removing trees at trusted paths.
// Failures throw ProjectError.
#pragma once

#include <string>

namespace vu {
namespace project {
namespace detail {

// Copies the folder `fromName` of `fromDirectory` ("." for the directory itself) to the
// new entry `toName` of `toDirectory`: folders, regular files (with their permissions)
// and the links that resolve inside the folder copied, nothing ever followed. `what`
// names the source in the error. A link that leaves the folder refuses the copy with a
// text naming the link relative to the folder and no absolute path. What was made so
// far is left for the caller to remove.
void copyTree(int fromDirectory, const std::string& fromName, int toDirectory,
              const std::string& toName, const std::string& what);

// Removes the entry `name` of `directory` and everything below it, by descriptors and
// without following links; a missing entry is not an error. `what` names it in the error.
void removeTree(int directory, const std::string& name, const std::string& what);

// Removes path and everything below it; a missing path is not an error. For trees the
// library made itself at paths no remote call chooses (staging folders, leftovers).
void removeTree(const std::string& path);

// The same for clearing up after another failure: what cannot be removed stays, and
// nothing is thrown, so that the first failure is the one reported.
void removeTreeIfPossible(const std::string& path) noexcept;
void removeTreeIfPossible(int directory, const std::string& name) noexcept;

// Swaps the entries a and b of `directory` in one step where the file system allows it
// (renameat2 with RENAME_EXCHANGE); elsewhere b is moved aside for an instant. `what`
// names b in the error.
void exchange(int directory, const std::string& a, const std::string& b, const std::string& what);

}  // namespace detail
}  // namespace project
}  // namespace vu
