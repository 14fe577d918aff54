// Reaching a place of the user library beneath its root, for resource installs and
// removals.
#include <errno.h>
#include <fcntl.h>

#include <vector>

#include "detail.h"

namespace ZR {
namespace BehaviorManager {
namespace detail {

vu::beneath::UniqueFd openFolderOf(const std::string& root, const std::string& local, bool create,
                                   std::string* name) {
  std::vector<std::string> components;
  if (!vu::beneath::splitRelative(local, &components)) {
    errno = EXDEV;
    return vu::beneath::UniqueFd();
  }
  if (components.empty()) {
    errno = EINVAL;
    return vu::beneath::UniqueFd();
  }
  *name = components.back();
  components.pop_back();
  const vu::beneath::UniqueFd rootFd(vu::beneath::openDirectory(root));
  if (!rootFd) {
    return vu::beneath::UniqueFd();
  }
  if (create) {
    return vu::beneath::UniqueFd(vu::beneath::makeDirectoriesBeneath(rootFd.get(), components));
  }
  std::string parent;
  for (const std::string& component : components) {
    parent += (parent.empty() ? "" : "/") + component;
  }
  return vu::beneath::UniqueFd(
      vu::beneath::openBeneath(rootFd.get(), parent, O_PATH | O_DIRECTORY));
}

}  // namespace detail
}  // namespace BehaviorManager
}  // namespace ZR
