// Behavior states, the running set and its "BehaviorsRun" publication, and the
// polling waits through which loads, runs and stops coordinate.
#include <vu/os.h>

#include "behaviormanager.h"
#include "detail.h"

namespace ZR {
namespace BehaviorManager {

namespace {
constexpr int kPollMs = 200;
}

BehaviorState ZRBehaviorManager::behaviorState(const std::string& name) {
  boost::mutex::scoped_lock lock(fStateMutex);
  return fStates[name];  // an unknown name gets an entry with StateUnknown
}

std::map<std::string, BehaviorState> ZRBehaviorManager::xStateTable() const {
  boost::mutex::scoped_lock lock(fStateMutex);
  return fStates;
}

void ZRBehaviorManager::setBehaviorState(const std::string& name, BehaviorState state) {
  boost::mutex::scoped_lock running(fRunningMutex);
  BehaviorState old;
  {
    boost::mutex::scoped_lock lock(fStateMutex);
    BehaviorState& entry = fStates[name];
    old = entry;
    if (old == state) {
      return;
    }
    entry = state;
  }
  if (state == StateRunning) {
    fRunning.insert(name);
    publishRunningBehaviors();
  } else if (old == StateRunning) {
    fRunning.erase(name);
    publishRunningBehaviors();
  }
}

void ZRBehaviorManager::publishRunningBehaviors() {
  const std::vector<std::string> names(fRunning.begin(), fRunning.end());
  fMemoryProxy->raiseMicroEvent(behaviorsRunKey, ZRValue(names));
}

bool ZRBehaviorManager::waitBehaviorState(const std::string& name, BehaviorState state,
                                          int timeoutMs) {
  int remaining = timeoutMs;
  for (;;) {
    if (behaviorState(name) == state) {
      return true;
    }
    vu::os::msleep(kPollMs);
    remaining -= kPollMs;
    if (remaining < 0) {
      return false;
    }
  }
}

bool ZRBehaviorManager::waitBehaviorStateLeaves(const std::string& name, BehaviorState state,
                                                int timeoutMs) {
  int remaining = timeoutMs;
  for (;;) {
    if (behaviorState(name) != state) {
      return true;
    }
    vu::os::msleep(kPollMs);
    remaining -= kPollMs;
    if (remaining < 0) {
      return false;
    }
  }
}

bool ZRBehaviorManager::waitBehaviorStateChange(const std::string& name, int timeoutMs) {
  const BehaviorState initial = behaviorState(name);
  int remaining = timeoutMs;
  for (;;) {
    vu::os::msleep(kPollMs);
    remaining -= kPollMs;
    if (remaining < 0) {
      return false;
    }
    if (behaviorState(name) != initial) {
      return true;
    }
  }
}

}  // namespace BehaviorManager
}  // namespace ZR
