// Removing behaviors and resources from the user library.
#include <behaviormanager/behaviormanager.h>
#include <vu/project/project.h>

#include <cerrno>
#include <cstring>

#include "detail.h"

namespace ZR {
namespace BehaviorManager {

bool ZRBehaviorManager::removeBehavior(const std::string& behavior) {
  const std::set<std::string> paths = fUserLibrary.behaviorPaths(behavior, true);
  if (!paths.empty()) {
    bool result = true;
    for (const std::string& path : paths) {
      try {
        xStopBehavior(path, path);
      } catch (...) {
        detail::log(vu::log::verbose, "removeBehavior",
                    "Could not stop the behavior " + path + " properly.");
      }
      removeDefaultBehavior(path);
      if (!fUserLibrary.removeBehavior(path)) {
        detail::log(vu::log::error, "removeBehavior", "Error removing the behavior " + path);
        result = false;
      }
    }
    return result;
  }

  // Only resources inside the user library are deleted here, never the library itself.
  const std::string dest = detail::joinUnderRoot(fUserLibrary.projectPath(), behavior);
  const vu::project::Project project(dest);
  if (fUserLibrary.valid() && detail::namesAPlaceBelowRoot(behavior) &&
      detail::isResourceType(project.getMetadata("Type"))) {
    // Removed beneath the library root by descriptors: a link on the way or inside the
    // resource never takes the removal outside.
    std::string name;
    const vu::beneath::UniqueFd parent =
        detail::openFolderOf(fUserLibrary.projectPath(), behavior, false, &name);
    const int error = parent ? vu::beneath::removeTree(parent.get(), name) : errno;
    if (error != 0) {
      throw ZRError(detail::kModuleName, "removeBehavior",
                    "Resource " + behavior + " could not be removed. " + std::strerror(error),
                    detail::kSourceFile, 1109);
    }
    return true;
  }
  throw ZRError(detail::kModuleName, "removeBehavior", "Behavior " + behavior + " was not found.",
                detail::kSourceFile, 1116);
}

}  // namespace BehaviorManager
}  // namespace ZR
