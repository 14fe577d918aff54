// Shared by the lifecycle suites (states, loading, running, concurrency, destruction):
// behavior files for the real frame manager, a fixture that can swap in the test frame
// manager, and remote calls made on threads of their own.
#pragma once

#include <common/eventually.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zr/zrerror.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fakeframemanager.h"
#include "fixture.h"

namespace bmtest {

using ZR::BehaviorManager::BehaviorState;
using ZR::BehaviorManager::StateLoaded;
using ZR::BehaviorManager::StateLoading;
using ZR::BehaviorManager::StateRunning;
using ZR::BehaviorManager::StateUnknown;
using ZR::BehaviorManager::StateUnloaded;
using ZR::BehaviorManager::StateUnloading;

// Behavior files for the real frame manager.
inline const char* untilStoppedXar() {
  return "<behavior>\n  <repeat>\n    <wait ms=\"60000\"/>\n  </repeat>\n</behavior>\n";
}
inline const char* endsAtOnceXar() {
  return "<behavior/>\n";
}
inline const char* failsXar() {
  return "<behavior>\n  <fail message=\"out of battery\"/>\n</behavior>\n";
}
inline const char* shortWaitXar() {
  return "<behavior>\n  <wait ms=\"30\"/>\n</behavior>\n";
}

// What a remote call ended with.
struct CallResult {
  bool threw = false;
  bool zrError = false;
  std::string module;
  std::string method;
  std::string description;
  std::string file;
  int line = 0;
  ZR::ZRValue value;
};

using tuqvutest::eventually;

// Made on a thread that is about to wait on a state change; another thread calls
// waitUntilBlocked() to go on only once that thread sleeps in the kernel, as a thread
// waiting on a condition variable does. The waiting calls of the manager take no other
// lock that a test's threads hold, so a thread found asleep there waits on the state
// table: whatever the other thread changes next, the waiting call sees as a change made
// while it waited.
class BlockWatch {
public:
  BlockWatch() : fThread(::gettid()) {}

  // Asleep at two looks 5 ms apart: a moment's wait for a lock that another thread
  // holds briefly (an allocator's, say) is not taken for the wait on the state table.
  bool waitUntilBlocked() const {
    return eventually([this] {
      if (!asleepInFutex()) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      return asleepInFutex();
    });
  }

private:
  bool asleepInFutex() const {
    std::ifstream in("/proc/self/task/" + std::to_string(fThread) + "/syscall");
    long number = -1;  // the file reads "running" when the thread is not in a system call
    return static_cast<bool>(in >> number) && number == SYS_futex;
  }

  pid_t fThread;
};

// A manager call made on a thread of its own, with the watch of that thread.
template <typename Result>
struct WaitingCall {
  BlockWatch watch;
  std::future<Result> result;

  // True once the call has returned, within a guard far below the time-outs of the
  // waits the tests make: a call still waiting then was not woken by the change.
  bool returned() const {
    return result.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  }
};

template <typename Work>
auto startWaiting(Work work) -> WaitingCall<decltype(work())> {
  using Result = decltype(work());
  auto watch = std::make_shared<std::promise<BlockWatch>>();
  std::future<BlockWatch> watched = watch->get_future();
  std::future<Result> result = std::async(std::launch::async, [watch, work] {
    watch->set_value(BlockWatch());
    return work();
  });
  return WaitingCall<Result>{watched.get(), std::move(result)};
}

class LifecycleTest : public ManagerTest {
protected:
  void TearDown() override {
    // Whatever a failed test left blocked is let go before anything is destroyed.
    if (fake) fake->releaseAll();
    if (frameManager) frameManager->cleanBehaviors();
    for (std::thread& thread : fThreads) thread.join();
    fThreads.clear();
    manager.reset();
    fake.reset();
    ManagerTest::TearDown();
  }

  // The real platform; behaviors must be on disk before this.
  ZRBehaviorManager& startReal() {
    startPlatform();
    return startManager();
  }
  // The real memory and preferences with the test frame manager.
  ZRBehaviorManager& startFake() {
    startPlatform(true, true, false);
    fake = std::make_unique<FakeFrameManager>(broker);
    startManager();
    fake->clearCalls();  // the constructor's setBehaviorsPath cleans the frame manager
    return *manager;
  }

  void userBehavior(const std::string& local, const std::string& xar) {
    makeBehavior(userRoot() / local, xar);
  }
  void systemBehavior(const std::string& local, const std::string& xar) {
    makeBehavior(systemRoot() / local, xar);
  }

  // A synchronous remote call through the broker.
  CallResult call(const std::string& method, const std::vector<ZR::ZRValue>& args) {
    return callThrough(broker, method, args);
  }
  // The same call on a thread of its own; the result arrives through the future.
  std::future<CallResult> callAsync(const std::string& method,
                                    const std::vector<ZR::ZRValue>& args) {
    auto promise = std::make_shared<std::promise<CallResult>>();
    std::future<CallResult> future = promise->get_future();
    boost::shared_ptr<ZR::ZRBroker> target = broker;
    fThreads.emplace_back(
        [target, method, args, promise] { promise->set_value(callThrough(target, method, args)); });
    return future;
  }
  // Runs any work on a thread joined at tear-down.
  void spawn(std::function<void()> work) { fThreads.emplace_back(std::move(work)); }
  void joinAll() {
    for (std::thread& thread : fThreads) thread.join();
    fThreads.clear();
  }

  // The "BehaviorsRun" values delivered so far, each as a list of names.
  std::vector<std::vector<std::string>> published() {
    std::vector<std::vector<std::string>> lists;
    for (const ZR::ZRValue& value : events->valuesOf("BehaviorsRun")) {
      lists.push_back(value.toStringVector());
    }
    return lists;
  }
  // Waits until a "BehaviorsRun" value holding the name has been delivered.
  bool publishedWith(const std::string& name, int limitMs = 20000) {
    return events->waitFor(
        [&](const EventRecorder::Event& event) {
          if (event.first != "BehaviorsRun") return false;
          for (const std::string& entry : event.second.toStringVector()) {
            if (entry == name) return true;
          }
          return false;
        },
        limitMs);
  }
  // Waits until the real frame manager runs the behavior's instance. A stop made before
  // that deletes the instance under the run, whose completeBehavior then fails.
  bool runStarted(const std::string& name, int limitMs = 20000) {
    return eventually(
        [&] {
          const std::string id = manager->getBehaviorFrameManagerId(name);
          return !id.empty() && frameManager->isBehaviorRunning(id);
        },
        std::chrono::milliseconds(limitMs));
  }
  bool reaches(const std::string& name, BehaviorState state, int limitMs = 20000) {
    return eventually([&] { return manager->behaviorState(name) == state; },
                      std::chrono::milliseconds(limitMs));
  }

  std::unique_ptr<FakeFrameManager> fake;

private:
  static CallResult callThrough(const boost::shared_ptr<ZR::ZRBroker>& target,
                                const std::string& method, const std::vector<ZR::ZRValue>& args) {
    CallResult result;
    try {
      result.value = target->call("ZRBehaviorManager", method, ZR::ZRValue(args));
    } catch (const ZR::ZRError& error) {
      result.threw = true;
      result.zrError = true;
      result.module = error.module();
      result.method = error.method();
      result.description = error.description();
      result.file = error.file();
      result.line = error.line();
    } catch (const std::exception& error) {
      result.threw = true;
      result.description = error.what();
    }
    return result;
  }

  std::vector<std::thread> fThreads;
};

// Matchers for the module's own errors.
inline ::testing::AssertionResult isManagerError(const CallResult& result,
                                                 const std::string& method,
                                                 const std::string& description) {
  if (!result.threw) return ::testing::AssertionFailure() << "nothing was thrown";
  if (!result.zrError)
    return ::testing::AssertionFailure() << "not a ZRError: " << result.description;
  if (result.module != "ZRBehaviorManager" || result.method != method ||
      result.description != description ||
      result.file != "behavior/behaviormanager/src/behaviormanager" || result.line <= 0) {
    return ::testing::AssertionFailure()
           << "got " << result.module << "::" << result.method << " \"" << result.description
           << "\" " << result.file << ":" << result.line;
  }
  return ::testing::AssertionSuccess();
}

inline ::testing::AssertionResult isManagerError(const ZR::ZRError& error,
                                                 const std::string& method,
                                                 const std::string& description) {
  CallResult result;
  result.threw = result.zrError = true;
  result.module = error.module();
  result.method = error.method();
  result.description = error.description();
  result.file = error.file();
  result.line = error.line();
  return isManagerError(result, method, description);
}

}  // namespace bmtest
