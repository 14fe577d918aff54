// Tags of behaviors, of directories of behaviors and of both libraries.
#include <behaviormanager/behaviormanager.h>

#include <boost/algorithm/string/predicate.hpp>

#include "detail.h"

namespace ZR {
namespace BehaviorManager {

std::vector<std::string> ZRBehaviorManager::getBehaviorTags(const std::string& behavior) {
  std::set<std::string> tags;
  if (behavior.empty()) {
    tags = fUserLibrary.tags("", true);
    const std::set<std::string> system = fSystemLibrary.tags("", true);
    tags.insert(system.begin(), system.end());
  } else if (boost::algorithm::starts_with(behavior, systemBehaviorPrefix)) {
    tags = fSystemLibrary.tags(behavior.substr(7), true);
  } else if (boost::algorithm::starts_with(behavior, userBehaviorPrefix)) {
    tags = fUserLibrary.tags(behavior.substr(5), true);
  } else if (!fUserLibrary.behaviorPaths(behavior, true).empty()) {
    tags = fUserLibrary.tags(behavior, true);
  } else if (!fSystemLibrary.behaviorPaths(behavior, true).empty()) {
    tags = fSystemLibrary.tags(behavior, true);
  } else {
    detail::log(vu::log::verbose, "getBehaviorTags", "No behavior found in " + behavior);
  }
  return std::vector<std::string>(tags.begin(), tags.end());
}

std::vector<std::string> ZRBehaviorManager::getTagList() {
  return getBehaviorTags("");
}

std::vector<std::string> ZRBehaviorManager::getBehaviorsByTag(const std::string& tag) {
  std::set<std::string> names = fUserLibrary.findTag(tag);
  for (const std::string& path : fSystemLibrary.findTag(tag)) {
    names.insert(systemBehaviorPrefix + path);
  }
  return std::vector<std::string>(names.begin(), names.end());
}

}  // namespace BehaviorManager
}  // namespace ZR
