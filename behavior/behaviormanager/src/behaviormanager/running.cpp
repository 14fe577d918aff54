// Running behaviors to their end, stopping them, and the running queries.
#include <behaviormanager/behaviormanager.h>

#include <boost/algorithm/string/predicate.hpp>

#include "detail.h"

namespace ZR {
namespace BehaviorManager {

namespace {

constexpr int kStopCleanUpMs = 1000;
constexpr int kStateWaitMs = 10000;
constexpr int kUnloadingGraceMs = 200;

bool isSystemName(const std::string& name) {
  return boost::algorithm::starts_with(name, systemBehaviorPrefix);
}

ZRError inconsistentStop(int line) {
  return detail::error("stopBehavior", "behavior was found in an inconsistent state.", line);
}

}  // namespace

void ZRBehaviorManager::runBehavior(const std::string& name) {
  const std::string n = xNormalizeLocalPath(name);
  if (n.empty()) {
    throw detail::error("runBehavior", "behavior " + name + " is not installed", __LINE__);
  }
  if (behaviorState(n) == StateRunning) {
    throw detail::error("runBehavior", "behavior " + n + " is already running.", __LINE__);
  }
  xLoadBehavior(n);

  std::string id;
  {
    ZRCriticalSection section(fRegistryLock);
    const auto entry = fLoadedBehaviors.find(n);
    if (entry == fLoadedBehaviors.end() || behaviorState(n) != StateLoaded) {
      throw detail::error("runBehavior", "behavior " + n + " failed to load.", __LINE__);
    }
    id = entry->second.frameManagerId;
  }

  try {
    setBehaviorState(n, StateRunning);
    fFrameManagerProxy->completeBehavior(id);
    setBehaviorState(n, StateUnloading);
    xUnloadBehavior(n);
    if (isSystemName(name)) {
      loadBehavior(name);
    }
  } catch (const ZRError&) {
    xUnloadBehavior(n);
    if (isSystemName(name)) {
      loadBehavior(name);
    }
    throw;
  }
}

void ZRBehaviorManager::stopBehavior(const std::string& name) {
  const std::string n = xNormalizeLocalPath(name);
  if (n.empty()) {
    throw detail::error("stopBehavior", "behavior " + name + " is not installed.", __LINE__);
  }
  xStopBehavior(n, name);
}

void ZRBehaviorManager::xStopBehavior(const std::string& n, const std::string& name) {
  bool unloading = false;
  switch (behaviorState(n)) {
    case StateRunning: break;
    case StateLoading:
      // Leaving "loading", not any change from now on: the load may have ended between
      // the look above and the wait.
      if (!waitBehaviorStateLeaves(n, StateLoading, kStateWaitMs)) {
        throw inconsistentStop(__LINE__);
      }
      unloading = behaviorState(n) == StateUnloading;
      break;
    case StateUnloading: unloading = true; break;
    default: return;
  }

  if (unloading) {
    // The run's clean-up is over once the state leaves "unloading", whatever it becomes:
    // a system behavior passes "unloaded" on its way to "loaded" again, and may be
    // loading or loaded by the time this wait looks. The clean-up gets the grace and then
    // the full state wait.
    if (!waitBehaviorStateLeaves(n, StateUnloading, kUnloadingGraceMs) &&
        !waitBehaviorStateLeaves(n, StateUnloading, kStateWaitMs)) {
      throw inconsistentStop(__LINE__);
    }
    return;
  }

  if (behaviorState(n) != StateRunning) {
    throw inconsistentStop(__LINE__);
  }
  std::string id;
  {
    ZRCriticalSection section(fRegistryLock);
    const auto entry = fLoadedBehaviors.find(n);
    if (entry == fLoadedBehaviors.end()) {
      return;
    }
    id = entry->second.frameManagerId;
  }
  try {
    fFrameManagerProxy->exitBehavior(id);
    fFrameManagerProxy->deleteBehavior(id);
  } catch (const ZRError&) {
    // The run's own clean-up decides; the wait below reports a stop that did not happen.
  }
  const BehaviorState settled = isSystemName(name) ? StateLoaded : StateUnloaded;
  if (!waitBehaviorState(n, settled, kStopCleanUpMs)) {
    throw detail::error("stopBehavior", "Behavior " + name + " could not be stopped " + "properly.",
                        __LINE__);
  }
}

void ZRBehaviorManager::stopAllBehaviors() {
  const std::vector<std::string> names = getRunningBehaviors();
  try {
    // The running set holds normalised names; a user behavior's bare name would name
    // the system copy if the system library holds the same name.
    for (const std::string& name : names) {
      xStopBehavior(name, name);
    }
    fFrameManagerProxy->cleanBehaviors();
  } catch (const ZRError& error) {
    detail::log(vu::log::error, "stopAllBehaviors",
                "A problem arose in StopAllBehaviors: " + error.description());
  }
}

bool ZRBehaviorManager::isBehaviorRunning(const std::string& name) {
  return behaviorState(xNormalizeLocalPath(name)) == StateRunning;
}

std::vector<std::string> ZRBehaviorManager::getRunningBehaviors() {
  boost::mutex::scoped_lock lock(fRunningMutex);
  return std::vector<std::string>(fRunning.begin(), fRunning.end());
}

}  // namespace BehaviorManager
}  // namespace ZR
