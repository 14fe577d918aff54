// A frame manager that fails each of its calls in turn: every failure ends with the
// error or log line the behavior manager documents for it, and the manager keeps
// answering calls (and runs behaviors again once the frame manager recovers).
#include <future>

#include "faults.h"

namespace faulttest {
namespace {

using ZR::ZRValue;
using ZR::BehaviorManager::StateLoaded;
using ZR::BehaviorManager::StateUnloaded;

class FrameManagerFaults : public bmtest::ManagerTest {
protected:
  void SetUp() override {
    ManagerTest::SetUp();
    startPlatform(true, true, false);
    frames = std::make_unique<FaultyFrameManager>(broker);
    bmtest::makeBehavior(userRoot() / "forever", untilStoppedXar());
    bmtest::makeBehavior(userRoot() / "quick", endsAtOnceXar());
    bmtest::makeBehavior(systemRoot() / "stand", endsAtOnceXar());
    startManager();
  }
  void TearDown() override {
    if (frames) frames->plan().healAll();
    manager.reset();
    frames.reset();
    ManagerTest::TearDown();
  }

  Outcome call(const std::string& method, const std::vector<ZRValue>& args = {}) {
    return callRemote(*broker, "ZRBehaviorManager", method, args);
  }
  std::future<Outcome> runInBackground(const std::string& name) {
    return std::async(std::launch::async,
                      [this, name] { return call("runBehavior", {ZRValue(name)}); });
  }
  // A run in progress: the manager says so and the frame manager's instance runs.
  void waitRunning(const std::string& name) {
    ASSERT_TRUE(eventually([&] {
      const std::string id = manager->getBehaviorFrameManagerId(name);
      return manager->isBehaviorRunning(name) && !id.empty() &&
             frames->real().isBehaviorRunning(id);
    })) << name
        << " did not start";
  }
  void expectInjected(const Outcome& outcome, const std::string& method) {
    EXPECT_TRUE(outcome.threw) << method;
    EXPECT_EQ("ZRFrameManager", outcome.module);
    EXPECT_EQ(method, outcome.method);
    EXPECT_EQ(FaultPlan::description(method), outcome.description);
  }
  // The manager answers, and runs a behavior to its end.
  void expectStillWorking() {
    const Outcome installed = call("getInstalledBehaviors");
    ASSERT_FALSE(installed.threw) << installed.description;
    const std::vector<std::string> names = installed.value.toStringVector();
    EXPECT_NE(names.end(), std::find(names.begin(), names.end(), "quick"));
    const Outcome run = call("runBehavior", {ZRValue("quick")});
    EXPECT_FALSE(run.threw) << run.description;
    EXPECT_EQ(StateUnloaded, manager->behaviorState("quick"));
    EXPECT_TRUE(call("getRunningBehaviors").value.toStringVector().empty());
  }

  std::unique_ptr<FaultyFrameManager> frames;
};

TEST_F(FrameManagerFaults, NewBehaviorFromFileErrorReachesTheCallerAndLeavesTheBehaviorUnloaded) {
  frames->plan().fail("newBehaviorFromFile");

  expectInjected(call("preloadBehavior", {ZRValue("quick")}), "newBehaviorFromFile");
  EXPECT_EQ(StateUnloaded, manager->behaviorState("quick"));
  EXPECT_FALSE(manager->isBehaviorLoaded("quick"));
  EXPECT_TRUE(manager->getLoadedBehaviors().empty());

  expectInjected(call("runBehavior", {ZRValue("quick")}), "newBehaviorFromFile");
  EXPECT_EQ(StateUnloaded, manager->behaviorState("quick"));
  EXPECT_EQ(0, frames->plan().calls("completeBehavior"));
  EXPECT_TRUE(frames->real().getBehaviorInstances().empty());

  frames->plan().heal("newBehaviorFromFile");
  expectStillWorking();
}

TEST_F(FrameManagerFaults, CompleteBehaviorErrorPassesOutAfterTheRunIsCleanedUp) {
  frames->plan().fail("completeBehavior");
  events->clear();

  expectInjected(call("runBehavior", {ZRValue("quick")}), "completeBehavior");
  EXPECT_EQ(StateUnloaded, manager->behaviorState("quick"));
  EXPECT_TRUE(manager->getLoadedBehaviors().empty());
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
  EXPECT_TRUE(frames->real().getBehaviorInstances().empty());
  const std::vector<ZRValue> published = events->valuesOf("BehaviorsRun");
  ASSERT_EQ(2u, published.size());
  EXPECT_EQ(std::vector<std::string>{"quick"}, published[0].toStringVector());
  EXPECT_TRUE(published[1].toStringVector().empty());

  // A system behavior is made ready again after the failed run.
  expectInjected(call("runBehavior", {ZRValue("System/stand")}), "completeBehavior");
  EXPECT_EQ(StateLoaded, manager->behaviorState("System/stand"));
  EXPECT_TRUE(manager->isBehaviorLoaded("System/stand"));
  EXPECT_EQ(1u, frames->real().getBehaviorInstances().size());

  frames->plan().heal("completeBehavior");
  expectStillWorking();
}

TEST_F(FrameManagerFaults, ExitBehaviorErrorMakesTheStopFailWithoutLosingTheRun) {
  std::future<Outcome> run = runInBackground("forever");
  waitRunning("forever");
  const int cleansBefore = frames->plan().calls("cleanBehaviors");
  frames->plan().fail("exitBehavior");

  const Outcome stop = call("stopBehavior", {ZRValue("forever")});
  EXPECT_TRUE(stop.threw);
  EXPECT_EQ("ZRBehaviorManager", stop.module);
  EXPECT_EQ("stopBehavior", stop.method);
  EXPECT_EQ("Behavior forever could not be stopped properly.", stop.description);
  EXPECT_TRUE(manager->isBehaviorRunning("forever"));
  EXPECT_EQ(std::future_status::timeout, run.wait_for(std::chrono::seconds(0)));

  logs->clear();
  const Outcome all = call("stopAllBehaviors");
  EXPECT_FALSE(all.threw) << all.description;
  EXPECT_EQ(1, logs->count(2, "behavior.manager", "stopAllBehaviors",
                           "A problem arose in StopAllBehaviors: Behavior forever could not be "
                           "stopped properly."));
  EXPECT_EQ(cleansBefore, frames->plan().calls("cleanBehaviors"));
  EXPECT_EQ(std::vector<std::string>{"forever"},
            call("getRunningBehaviors").value.toStringVector());

  frames->plan().heal("exitBehavior");
  const Outcome stopAgain = call("stopBehavior", {ZRValue("forever")});
  EXPECT_FALSE(stopAgain.threw) << stopAgain.description;
  const Outcome ran = run.get();
  EXPECT_FALSE(ran.threw) << ran.description;
  EXPECT_EQ(StateUnloaded, manager->behaviorState("forever"));
  EXPECT_TRUE(frames->real().getBehaviorInstances().empty());
  expectStillWorking();
}

TEST_F(FrameManagerFaults, DeleteBehaviorErrorDuringAStopIsSwallowed) {
  std::future<Outcome> run = runInBackground("forever");
  waitRunning("forever");
  // Only the stop's own request fails: the run, ended by the exit request, unloads on
  // its thread at the same time.
  frames->plan().failOnThisThread("deleteBehavior", 1);

  const Outcome stop = call("stopBehavior", {ZRValue("forever")});
  EXPECT_FALSE(stop.threw) << stop.description;
  EXPECT_EQ(1, frames->plan().failed("deleteBehavior"));
  const Outcome ran = run.get();
  // The one injected failure goes to whichever deleteBehavior comes first once the exit
  // request has ended the run: the stop's (swallowed) or the run's own unload (passed
  // out after the retried unload worked).
  if (ran.threw) {
    expectInjected(ran, "deleteBehavior");
  }
  EXPECT_EQ(StateUnloaded, manager->behaviorState("forever"));
  // One of the two unloads deleted the instance.
  EXPECT_TRUE(frames->real().getBehaviorInstances().empty());
  expectStillWorking();
}

TEST_F(FrameManagerFaults, DeleteBehaviorErrorAfterARunPassesOutOnceTheRetriedUnloadWorked) {
  frames->plan().fail("deleteBehavior", 1);

  expectInjected(call("runBehavior", {ZRValue("quick")}), "deleteBehavior");
  EXPECT_EQ(2, frames->plan().calls("deleteBehavior"));
  EXPECT_EQ(StateUnloaded, manager->behaviorState("quick"));
  EXPECT_TRUE(manager->getLoadedBehaviors().empty());
  EXPECT_TRUE(frames->real().getBehaviorInstances().empty());
  expectStillWorking();
}

TEST_F(FrameManagerFaults, CleanBehaviorsErrorIsLoggedByStopAllBehaviors) {
  std::future<Outcome> run = runInBackground("forever");
  waitRunning("forever");
  frames->plan().fail("cleanBehaviors");
  const std::string line =
      "A problem arose in StopAllBehaviors: " + FaultPlan::description("cleanBehaviors");

  logs->clear();
  const Outcome all = call("stopAllBehaviors");
  EXPECT_FALSE(all.threw) << all.description;
  EXPECT_EQ(1, logs->count(2, "behavior.manager", "stopAllBehaviors", line));
  const Outcome ran = run.get();  // the behavior itself was stopped before the clean-up
  EXPECT_FALSE(ran.threw) << ran.description;
  EXPECT_EQ(StateUnloaded, manager->behaviorState("forever"));
  expectStillWorking();

  // Shutting down stops everything the same way; the failure is logged, not thrown.
  logs->clear();
  stopManager();
  EXPECT_EQ(1, logs->count(2, "behavior.manager", "stopAllBehaviors", line));
}

}  // namespace
}  // namespace faulttest
