// The user library, its notifications, and the names behaviors go by.
#include <boost/algorithm/string/erase.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/bind/bind.hpp>

#include <vu/project/project.h>

#include "behaviormanager.h"
#include "detail.h"

namespace ZR {
namespace BehaviorManager {

using boost::placeholders::_1;

void ZRBehaviorManager::setBehaviorsPath(const std::string& path) {
  stopAllBehaviors();

  // Only this object's own handlers are disconnected; other slots stay.
  fUserLibrary.behaviorAdded.disconnect(boost::bind(&ZRBehaviorManager::onBehaviorAdded, this, _1));
  fUserLibrary.behaviorUpdated.disconnect(
      boost::bind(&ZRBehaviorManager::onBehaviorUpdated, this, _1));
  fUserLibrary.behaviorRemoved.disconnect(
      boost::bind(&ZRBehaviorManager::onBehaviorRemoved, this, _1));

  for (const std::string& old : fUserLibrary.behaviorPaths("", true)) {
    onBehaviorRemoved(old);
  }

  fUserLibrary = vu::project::BehaviorLibraryProject(path);

  fUserLibrary.behaviorAdded.connect(boost::bind(&ZRBehaviorManager::onBehaviorAdded, this, _1));
  fUserLibrary.behaviorUpdated.connect(boost::bind(&ZRBehaviorManager::onBehaviorUpdated, this, _1));
  fUserLibrary.behaviorRemoved.connect(boost::bind(&ZRBehaviorManager::onBehaviorRemoved, this, _1));

  const std::set<std::string> added = fUserLibrary.behaviorPaths("", true);
  for (const std::string& name : added) {
    onBehaviorAdded(name);
  }
}

void ZRBehaviorManager::onBehaviorAdded(const std::string& path) {
  setBehaviorState(path, StateUnloaded);
  fMemoryProxy->raiseMicroEvent(behaviorAddedKey, ZRValue(path));
}

void ZRBehaviorManager::onBehaviorUpdated(const std::string& path) {
  fMemoryProxy->raiseMicroEvent(behaviorUpdatedKey, ZRValue(path));
}

void ZRBehaviorManager::onBehaviorRemoved(const std::string& path) {
  xUnloadBehavior(path);
  ZRCriticalSection section(fRegistryLock);
  fLoadedBehaviors.erase(path);
  {
    boost::mutex::scoped_lock running(fRunningMutex);
    fRunning.erase(path);
    boost::mutex::scoped_lock states(fStateMutex);
    fStates.erase(path);
  }
  fMemoryProxy->raiseMicroEvent(behaviorRemovedKey, ZRValue(path));
}

std::string ZRBehaviorManager::xBehaviorNameFromPath(const boost::filesystem::path& path) {
  const std::string text = path.string();
  if (!vu::project::isBehavior(text)) {
    return "";
  }
  if (fSystemLibrary.valid()) {
    const std::string root = fSystemLibrary.projectPath();
    if (boost::algorithm::starts_with(text, root)) {
      std::string rest = text;
      boost::algorithm::erase_head(rest, static_cast<int>(root.size() + 1));
      return systemBehaviorPrefix + rest;
    }
  }
  if (fUserLibrary.valid()) {
    const std::string root = fUserLibrary.projectPath();
    if (boost::algorithm::starts_with(text, root)) {
      std::string rest = text;
      boost::algorithm::erase_head(rest, static_cast<int>(root.size() + 1));
      return rest;
    }
  }
  return "";
}

std::string ZRBehaviorManager::xNormalizeLocalPath(const std::string& name) {
  return xBehaviorNameFromPath(xFindBehavior(name));
}

std::string ZRBehaviorManager::xQualifiedName(const std::string& normalizedName) const {
  if (boost::algorithm::starts_with(normalizedName, systemBehaviorPrefix)) {
    return normalizedName;
  }
  return userBehaviorPrefix + normalizedName;
}

}  // namespace BehaviorManager
}  // namespace ZR
