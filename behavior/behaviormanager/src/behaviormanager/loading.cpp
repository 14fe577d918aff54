// Loading behaviors into the frame manager, unloading them, and the registry queries.
#include <behaviormanager/behaviormanager.h>

#include <boost/filesystem/path.hpp>

#include "detail.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace BehaviorManager {

namespace {
constexpr int kLoadWaitMs = 10000;
}

bool ZRBehaviorManager::loadBehavior(const std::string& name) {
  const std::string n = xNormalizeLocalPath(name);
  if (n.empty()) {
    throw detail::error("loadBehavior", "behavior " + name + " is not installed.", __LINE__);
  }
  return xLoadBehavior(n);
}

bool ZRBehaviorManager::xLoadBehavior(const std::string& n) {
  // The state is read without the registry lock, so another load may claim the behavior
  // between this look and the claim; the claim looks again under the lock, and a load that
  // lost looks at the state anew instead of creating a second instance.
  for (;;) {
    if (behaviorState(n) == StateLoading) {
      // Leaving "loading", not any change from now on: the load may have ended between
      // the look above and the wait.
      waitBehaviorStateLeaves(n, StateLoading, kLoadWaitMs);
    }
    const BehaviorState state = behaviorState(n);
    if (state == StateLoaded || state == StateRunning) {
      return true;
    }
    if (state == StateLoading || state > StateUnloading) {
      throw detail::error("loadBehavior",
                          "Could not load behavior, " + n + " was in an consistent state.",
                          __LINE__);
    }
    if (state == StateUnloading) {
      // A run is cleaning up. What follows need not be "unloaded" when the woken wait
      // looks: a system behavior, or another caller's load, may be loading or loaded again
      // by then.
      if (!waitBehaviorStateLeaves(n, StateUnloading, kLoadWaitMs)) {
        throw detail::error("loadBehavior", "behavior was found in an inconsistent state.",
                            __LINE__);
      }
      continue;
    }
    ZRCriticalSection section(fRegistryLock);
    const BehaviorState now = behaviorState(n);
    if (now == StateUnknown || now == StateUnloaded) {
      fLoadedBehaviors[n].frameManagerId.clear();
      setBehaviorState(n, StateLoading);
      break;
    }
  }

  // The qualified form, so that a user behavior that the system library also holds is
  // read from the user library.
  const fs::path dir = xFindBehavior(xQualifiedName(n));
  try {
    const std::string xarPath = (dir / fxarFileName).string();
    const std::string id = fFrameManagerProxy->newBehaviorFromFile(xarPath, n);

    ZRCriticalSection section(fRegistryLock);
    const auto entry = fLoadedBehaviors.find(n);
    if (entry == fLoadedBehaviors.end()) {
      fFrameManagerProxy->deleteBehavior(id);
      throw detail::error("loadBehavior", "Could not load behavior " + n + ", yet file exists.",
                          __LINE__);
    }
    entry->second.frameManagerId = id;
    setBehaviorState(n, StateLoaded);
    return true;
  } catch (const ZRError&) {
    setBehaviorState(n, StateUnloaded);
    throw;
  }
}

void ZRBehaviorManager::xUnloadBehavior(const std::string& name) {
  ZRCriticalSection section(fRegistryLock);
  const auto entry = fLoadedBehaviors.find(name);
  if (entry != fLoadedBehaviors.end()) {
    if (!entry->second.frameManagerId.empty()) {
      fFrameManagerProxy->exitBehavior(entry->second.frameManagerId);
      fFrameManagerProxy->deleteBehavior(entry->second.frameManagerId);
    }
    fLoadedBehaviors.erase(entry);
  }
  setBehaviorState(name, StateUnloaded);
}

bool ZRBehaviorManager::unloadBehavior(const std::string& name) {
  const std::string n = xNormalizeLocalPath(name);
  if (n.empty()) {
    detail::log(vu::log::verbose, "unloadBehavior",
                "Could not stop behavior: behavior " + name + " is not installed.");
    return false;
  }
  return xStopAndUnloadBehavior(n, name);
}

bool ZRBehaviorManager::xStopAndUnloadBehavior(const std::string& n,
                                               const std::string& callerName) {
  try {
    xStopBehavior(n, callerName);
  } catch (const ZRError& error) {
    detail::log(vu::log::verbose, "unloadBehavior",
                "Could not stop behavior: " + error.description());
    return false;
  }
  xUnloadBehavior(n);
  return true;
}

bool ZRBehaviorManager::isBehaviorLoaded(const std::string& name) {
  ZRCriticalSection section(fRegistryLock);
  const auto entry = fLoadedBehaviors.find(name);
  return entry != fLoadedBehaviors.end() && !entry->second.frameManagerId.empty();
}

std::vector<std::string> ZRBehaviorManager::getLoadedBehaviors() {
  ZRCriticalSection section(fRegistryLock);
  std::vector<std::string> names;
  for (const auto& entry : fLoadedBehaviors) {
    if (isBehaviorLoaded(entry.first)) {
      names.push_back(entry.first);
    }
  }
  return names;
}

std::string ZRBehaviorManager::getBehaviorFrameManagerId(const std::string& name) {
  const std::string n = xNormalizeLocalPath(name);
  ZRCriticalSection section(fRegistryLock);
  const auto entry = fLoadedBehaviors.find(n);
  return entry == fLoadedBehaviors.end() ? std::string() : entry->second.frameManagerId;
}

}  // namespace BehaviorManager
}  // namespace ZR
