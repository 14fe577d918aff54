// The library copies, unpacks and moves aside through folders and files named
// ".tuqvu-import-<pid>-<random>..." beside their destination, and a file replaced where
// the file system has no unnamed files is written as ".tuqvu-part-<pid>-<random>" (see
// vu/replacement.h); an import or a write that a crash (kill -9, power loss) interrupted
// leaves them behind. A starting process removes them:
//
//   for (const std::string& removed : vu::project::removeStagingLeftovers(tmp, 1)) ...
#pragma once

#include <string>
#include <vector>

namespace vu {
namespace project {

// Removes the staging entries in `dir` and in this user's folders down to `depth` levels
// (1: the entries of `dir` only) that are leftovers: named so, owned by this user,
// and made by a process that no longer runs (or by an older version that did not write
// its process id). Links are not followed. Each removal is logged; the removed paths are
// returned. Never throws: what cannot be read or removed is logged and skipped.
std::vector<std::string> removeStagingLeftovers(const std::string& dir, int depth);

}  // namespace project
}  // namespace vu
