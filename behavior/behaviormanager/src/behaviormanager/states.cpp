// Behavior states, the running set and its "BehaviorsRun" publication, and the waits
// through which loads, runs and stops coordinate. Every change of a state wakes the
// waiting threads, which look at the state again; a wait ends when the state it waits
// for is there or at its deadline, whichever comes first.
#include <behaviormanager/behaviormanager.h>

#include <algorithm>
#include <chrono>

#include "detail.h"

namespace ZR {
namespace BehaviorManager {

namespace {

using Clock = std::chrono::steady_clock;

// A time-out of zero or less looks once and does not wait.
Clock::time_point deadlineAfter(int timeoutMs) {
  return Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
}

}  // namespace

BehaviorState ZRBehaviorManager::behaviorState(const std::string& name) {
  std::lock_guard<std::mutex> lock(fStateMutex);
  return fStates[name];  // an unknown name gets an entry with StateUnknown
}

std::map<std::string, BehaviorState> ZRBehaviorManager::xStateTable() const {
  std::lock_guard<std::mutex> lock(fStateMutex);
  return fStates;
}

void ZRBehaviorManager::setBehaviorState(const std::string& name, BehaviorState state) {
  boost::mutex::scoped_lock running(fRunningMutex);
  BehaviorState old;
  {
    std::lock_guard<std::mutex> lock(fStateMutex);
    BehaviorState& entry = fStates[name];
    old = entry;
    if (old == state) {
      return;
    }
    entry = state;
  }
  if (state >= 0 && static_cast<std::size_t>(state) < fStateChanges.size()) {
    fStateChanges[static_cast<std::size_t>(state)]->increment();
  }
  // Wakes the waiting threads when this change is complete, after its publication, so
  // that a thread woken by it finds "BehaviorsRun" already raised; also when the
  // publication throws, since the state has changed all the same. The change was made
  // under the state mutex, which keeps a waiter from missing it; the wake-up need not
  // hold it.
  struct WakeWaiters {
    std::condition_variable& changed;
    ~WakeWaiters() { changed.notify_all(); }
  } wake{fStateChanged};
  if (state == StateRunning) {
    fRunning.insert(name);
    publishRunningBehaviors();
  } else if (old == StateRunning) {
    fRunning.erase(name);
    publishRunningBehaviors();
  }
}

void ZRBehaviorManager::publishRunningBehaviors() {
  fRunningGauge->set(static_cast<std::int64_t>(fRunning.size()));
  const std::vector<std::string> names(fRunning.begin(), fRunning.end());
  fMemoryProxy->raiseMicroEvent(behaviorsRunKey, ZRValue(names));
}

bool ZRBehaviorManager::waitBehaviorState(const std::string& name, BehaviorState state,
                                          int timeoutMs) {
  return waitForState(name, timeoutMs, [state](BehaviorState now) { return now == state; });
}

bool ZRBehaviorManager::waitBehaviorStateLeaves(const std::string& name, BehaviorState state,
                                                int timeoutMs) {
  return waitForState(name, timeoutMs, [state](BehaviorState now) { return now != state; });
}

bool ZRBehaviorManager::waitBehaviorStateChange(const std::string& name, int timeoutMs) {
  const Clock::time_point deadline = deadlineAfter(timeoutMs);
  std::unique_lock<std::mutex> lock(fStateMutex);
  const BehaviorState initial = fStates[name];
  return fStateChanged.wait_until(lock, deadline, [&] { return fStates[name] != initial; });
}

bool ZRBehaviorManager::waitForState(const std::string& name, int timeoutMs,
                                     const std::function<bool(BehaviorState)>& done) {
  const Clock::time_point deadline = deadlineAfter(timeoutMs);
  std::unique_lock<std::mutex> lock(fStateMutex);
  // operator[] as in behaviorState: an unknown name gets its StateUnknown entry.
  return fStateChanged.wait_until(lock, deadline, [&] { return done(fStates[name]); });
}

}  // namespace BehaviorManager
}  // namespace ZR
