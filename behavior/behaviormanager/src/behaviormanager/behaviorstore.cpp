// The user library, its notifications, and the names behaviors go by.
#include <behaviormanager/behaviormanager.h>
#include <vu/containment.h>
#include <vu/os.h>
#include <vu/project/project.h>

#include <boost/algorithm/string/erase.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/bind/bind.hpp>
#include <boost/filesystem.hpp>

#include "detail.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace BehaviorManager {

using boost::placeholders::_1;

namespace {

fs::path resolved(const fs::path& path) {
  return vu::path::resolvedPath(path.string());
}

// Folders of the operating system whose contents the broker's user may be able to write
// (the broker may run as root); a library there would let installs and removals reach them.
constexpr const char* kOperatingSystemFolders[] = {"/bin",   "/boot",  "/dev",    "/etc",  "/lib",
                                                   "/lib32", "/lib64", "/libx32", "/proc", "/run",
                                                   "/sbin",  "/sys",   "/usr"};

}  // namespace

// A user library receives uploads and installs, and removals delete inside it: it must not
// be, hold or lie inside what the installation, the system or the home directory needs.
// The path is resolved once and that resolved path is both checked and returned for use:
// a spelling such as "/bin/../x" must not be checked as one folder and used as another.
std::string ZRBehaviorManager::xCheckUserLibraryPath(const std::string& path) {
  if (path.empty()) return path;  // no library at all
  const fs::path candidate = resolved(path);
  if (candidate.empty()) {
    throw detail::error("setBehaviorsPath", "the behaviors path " + path + " cannot be resolved",
                        __LINE__);
  }
  const auto refuse = [&](const std::string& what) {
    throw detail::error("setBehaviorsPath",
                        "the behaviors path " + path +
                            " is refused: it is, holds or lies "
                            "inside " +
                            what,
                        __LINE__);
  };
  using vu::path::isWithin;
  if (candidate.relative_path().empty()) refuse("the root directory");
  for (const char* folder : kOperatingSystemFolders) {
    const fs::path system = resolved(folder);
    if (!system.empty() && (isWithin(candidate, system) || isWithin(system, candidate))) {
      refuse("a folder of the operating system");
    }
  }
  const fs::path home = resolved(vu::os::home());
  if (!home.empty() && isWithin(home, candidate)) refuse("the home directory itself");
  const fs::path installation = vu::path::resolvedSdkPrefix();
  if (vu::path::liesInInstallation(candidate) ||
      (!installation.empty() && isWithin(installation, candidate))) {
    refuse("the installation prefix");
  }
  if (!fSystemLibrary.projectPath().empty()) {
    const fs::path system = resolved(fSystemLibrary.projectPath());
    if (!system.empty() && !system.relative_path().empty() &&
        (isWithin(candidate, system) || isWithin(system, candidate))) {
      refuse("the system library");
    }
  }
  return candidate.string();
}

void ZRBehaviorManager::xSetBehaviorsPathForRemoteCaller(const std::string& path) {
  setBehaviorsPath(xCheckUserLibraryPath(path));
}

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
  fUserLibrary.behaviorUpdated.connect(
      boost::bind(&ZRBehaviorManager::onBehaviorUpdated, this, _1));
  fUserLibrary.behaviorRemoved.connect(
      boost::bind(&ZRBehaviorManager::onBehaviorRemoved, this, _1));

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
    std::lock_guard<std::mutex> states(fStateMutex);
    fStates.erase(path);
  }
  fStateChanged.notify_all();  // the state reads as unknown from now on
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
