// Runs, stops, loads and queries arriving on many threads at once, through the broker
// and the real frame manager: nothing crashes or hangs, every error is one the module
// documents, and the states, the registry and the published running list agree at the end.
#include <algorithm>
#include <atomic>
#include <iostream>
#include <map>
#include <random>
#include <set>

#include "lifecycle.h"

namespace bmtest {
namespace {

using Names = std::vector<std::string>;

class Concurrency : public LifecycleTest {
protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    for (const char* name : {"short0", "short1", "short2"}) userBehavior(name, shortWaitXar());
    userBehavior("quick", endsAtOnceXar());
    userBehavior("long0", untilStoppedXar());
    userBehavior("long1", untilStoppedXar());
    systemBehavior("sysshort", shortWaitXar());
    systemBehavior("syslong", untilStoppedXar());
  }

  const Names& names() const {
    static const Names all = {"short0", "short1", "short2",          "quick",
                              "long0",  "long1",  "System/sysshort", "System/syslong"};
    return all;
  }

  // True when the error is one a call may meet while others work on the same behavior.
  static bool expectedRace(const CallResult& result) {
    if (!result.zrError) return false;
    if (result.module == "ZRFrameManager") return result.method == "completeBehavior";
    if (result.module != "ZRBehaviorManager") return false;
    const std::string& text = result.description;
    const auto endsWith = [&](const std::string& tail) {
      return text.size() >= tail.size() &&
             text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
    };
    return endsWith(" is already running.") || endsWith(" failed to load.") ||
           text == "behavior was found in an inconsistent state." ||
           endsWith(" could not be stopped properly.") || endsWith(", yet file exists.");
  }

  void record(const CallResult& result, const std::string& what) {
    ++fCalls;
    if (!result.threw) return;
    if (expectedRace(result)) {
      ++fRaces;
      return;
    }
    std::lock_guard<std::mutex> lock(fUnexpectedMutex);
    fUnexpected.push_back(what + ": " + result.module + "::" + result.method + " " +
                          result.description);
  }

  std::atomic<int> fCalls{0};
  std::atomic<int> fRaces{0};  // calls that met another caller's work on the same behavior
  std::mutex fUnexpectedMutex;
  Names fUnexpected;
};

TEST_F(Concurrency, RunsStopsLoadsAndQueriesFromManyThreadsEndConsistent) {
  startReal();
  events->clear();
  std::atomic<int> runnersLeft{4};
  std::atomic<int> runsDone{0};

  for (int runner = 0; runner < 4; ++runner) {
    spawn([this, runner, &runnersLeft, &runsDone] {
      std::mt19937 random(100 + runner);
      for (int i = 0; i < 12; ++i) {
        const std::string name = names()[random() % names().size()];
        record(call("runBehavior", {name}), "run " + name);
        ++runsDone;
      }
      --runnersLeft;
    });
  }
  for (int stopper = 0; stopper < 2; ++stopper) {
    spawn([this, stopper, &runnersLeft] {
      std::mt19937 random(200 + stopper);
      while (runnersLeft.load() > 0) {
        const std::string name = names()[random() % names().size()];
        record(call("stopBehavior", {name}), "stop " + name);
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
      }
    });
  }
  for (int loader = 0; loader < 2; ++loader) {
    spawn([this, loader, &runnersLeft] {
      std::mt19937 random(300 + loader);
      while (runnersLeft.load() > 0) {
        const std::string name = names()[random() % names().size()];
        record(call("preloadBehavior", {name}), "load " + name);
        record(call("isBehaviorRunning", {name}), "isBehaviorRunning");
        record(call("getRunningBehaviors", {}), "getRunningBehaviors");
        record(call("_getBehaviorFrameManagerId", {name}), "_getBehaviorFrameManagerId");
        const Names loaded = manager->getLoadedBehaviors();
        for (const std::string& each : loaded) manager->isBehaviorLoaded(each);
        manager->httpGet();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
  }
  // Behaviors that run until stopped would hold their runner forever once the stoppers
  // are gone; stop everything until the runners are through.
  spawn([this, &runnersLeft] {
    while (runnersLeft.load() > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(400));
      record(call("stopAllBehaviors", {}), "stopAll");
    }
  });
  joinAll();
  EXPECT_EQ(runsDone.load(), 48);
  std::cout << "[          ] " << fCalls.load() << " remote calls, " << fRaces.load()
            << " of them refused because of another caller\n";

  EXPECT_TRUE(fUnexpected.empty())
      << fUnexpected.size() << " unexpected, first: " << fUnexpected.front();
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
  const Names loaded = manager->getLoadedBehaviors();
  for (const std::string& name : names()) {
    SCOPED_TRACE(name);
    const BehaviorState state = manager->behaviorState(name);
    EXPECT_TRUE(state == StateUnloaded || state == StateLoaded) << state;
    EXPECT_EQ(manager->isBehaviorLoaded(name), state == StateLoaded);
    EXPECT_EQ(std::count(loaded.begin(), loaded.end(), name), state == StateLoaded ? 1 : 0);
  }
  const std::vector<std::vector<std::string>> lists = published();
  ASSERT_FALSE(lists.empty());
  EXPECT_TRUE(lists.back().empty());
  for (const Names& list : lists) {
    EXPECT_TRUE(std::is_sorted(list.begin(), list.end()));
    EXPECT_EQ(std::adjacent_find(list.begin(), list.end()), list.end());
  }
  EXPECT_EQ(memory->getData("BehaviorsRun").toStringVector(), Names{});
}

TEST_F(Concurrency, ConcurrentStateChangesArePublishedInTheOrderTheyHappen) {
  startReal();
  events->clear();
  constexpr int kThreads = 6;
  constexpr int kToggles = 40;
  for (int t = 0; t < kThreads; ++t) {
    spawn([this, t] {
      const std::string name = "n" + std::to_string(t);
      for (int i = 0; i < kToggles; ++i) {
        manager->setBehaviorState(name, StateRunning);
        manager->getRunningBehaviors();
        manager->setBehaviorState(name, StateUnloaded);
      }
    });
  }
  joinAll();
  const std::vector<Names> lists = published();
  ASSERT_EQ(lists.size(), static_cast<std::size_t>(kThreads * kToggles * 2));
  // Replaying the lists one after the other, each differs from the one before by one
  // name, and every name goes in and out exactly as often as its thread switched it.
  std::set<std::string> previous;
  std::map<std::string, int> ins, outs;
  for (const Names& list : lists) {
    ASSERT_TRUE(std::is_sorted(list.begin(), list.end()));
    const std::set<std::string> current(list.begin(), list.end());
    ASSERT_EQ(current.size(), list.size());
    Names added, removed;
    std::set_difference(current.begin(), current.end(), previous.begin(), previous.end(),
                        std::back_inserter(added));
    std::set_difference(previous.begin(), previous.end(), current.begin(), current.end(),
                        std::back_inserter(removed));
    ASSERT_EQ(added.size() + removed.size(), 1u);
    for (const std::string& name : added) ++ins[name];
    for (const std::string& name : removed) ++outs[name];
    previous = current;
  }
  EXPECT_TRUE(previous.empty());
  for (int t = 0; t < kThreads; ++t) {
    const std::string name = "n" + std::to_string(t);
    EXPECT_EQ(ins[name], kToggles) << name;
    EXPECT_EQ(outs[name], kToggles) << name;
  }
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
}

TEST_F(Concurrency, TwoRunsOfOneBehaviorLetOnlyOneRun) {
  startReal();
  std::future<CallResult> first = callAsync("runBehavior", {"long0"});
  ASSERT_TRUE(runStarted("long0"));
  std::vector<std::future<CallResult>> others;
  for (int i = 0; i < 4; ++i) others.push_back(callAsync("runBehavior", {"User/long0"}));
  for (auto& other : others) {
    EXPECT_TRUE(isManagerError(other.get(), "runBehavior", "behavior long0 is already running."));
  }
  EXPECT_EQ(frameManager->getBehaviorInstances().size(), 1u);
  manager->stopBehavior("long0");
  EXPECT_FALSE(first.get().threw);
}

TEST_F(Concurrency, QueriesAnswerWhileLoadsAreInProgress) {
  startFake();
  for (const char* name : {"short0", "short1", "quick"}) fake->holdLoad(name);
  std::vector<std::future<CallResult>> loads;
  for (const char* name : {"short0", "short1", "quick"}) {
    loads.push_back(callAsync("preloadBehavior", {name}));
    ASSERT_TRUE(fake->waitLoadHeld(name, 20000)) << name;
  }
  // Three loads wait inside the frame manager; nothing holds the registry meanwhile.
  EXPECT_TRUE(manager->getLoadedBehaviors().empty());
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
  EXPECT_EQ(manager->behaviorState("short1"), StateLoading);
  EXPECT_NE(manager->httpGet().find("<tr><td>short1</td><td></td></tr>"), std::string::npos);
  for (const char* name : {"short0", "short1", "quick"}) fake->releaseLoad(name);
  for (auto& load : loads) EXPECT_FALSE(load.get().threw);
  EXPECT_EQ(manager->getLoadedBehaviors(), (Names{"quick", "short0", "short1"}));
}

}  // namespace
}  // namespace bmtest
