// Running behaviors to their end, stopping them, and the running queries: real behavior
// files through the real frame manager, and the test frame manager for runs that do not
// end when asked.
#include <algorithm>

#include "lifecycle.h"

namespace bmtest {
namespace {

using Names = std::vector<std::string>;

// ---------------------------------------------------------------- real frame manager

class Running : public LifecycleTest {
protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    userBehavior("quick", endsAtOnceXar());
    userBehavior("idle", untilStoppedXar());
    userBehavior("other", untilStoppedXar());
    userBehavior("fail", failsXar());
    systemBehavior("stand", endsAtOnceXar());
    systemBehavior("sysidle", untilStoppedXar());
    systemBehavior("sysfail", failsXar());
  }
};

TEST_F(Running, RunningABehaviorNotLoadedLoadsItFirstAndLeavesItUnloaded) {
  startReal();
  events->clear();
  EXPECT_EQ(manager->behaviorState("quick"), StateUnloaded);
  const CallResult result = call("runBehavior", {"quick"});
  ASSERT_FALSE(result.threw) << result.description;
  EXPECT_EQ(manager->behaviorState("quick"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("quick"));
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
  EXPECT_EQ(published(), (std::vector<Names>{{"quick"}, {}}));
}

TEST_F(Running, RunningASystemBehaviorLeavesItLoadedAgainInANewInstance) {
  startReal();
  ASSERT_TRUE(manager->loadBehavior("System/stand"));
  const std::string before = manager->getBehaviorFrameManagerId("System/stand");
  events->clear();
  const CallResult result = call("runBehavior", {"System/stand"});
  ASSERT_FALSE(result.threw) << result.description;
  EXPECT_EQ(manager->behaviorState("System/stand"), StateLoaded);
  EXPECT_TRUE(manager->isBehaviorLoaded("System/stand"));
  const std::string after = manager->getBehaviorFrameManagerId("System/stand");
  EXPECT_FALSE(after.empty());
  EXPECT_NE(after, before);
  EXPECT_EQ(frameManager->getBehaviorInstances(), Names{after});
  EXPECT_EQ(published(), (std::vector<Names>{{"System/stand"}, {}}));
}

TEST_F(Running, TheSystemPrefixIsLookedForInTheNameAsGiven) {
  startReal();
  // "stand" resolves to "System/stand", but the caller did not write the prefix.
  const CallResult result = call("runBehavior", {"stand"});
  ASSERT_FALSE(result.threw) << result.description;
  EXPECT_EQ(manager->behaviorState("System/stand"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("System/stand"));
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
}

TEST_F(Running, WhileARunIsInProgressTheNameIsPublishedAndReportedRunning) {
  startReal();
  events->clear();
  std::future<CallResult> run = callAsync("runBehavior", {"User/idle"});
  ASSERT_TRUE(publishedWith("idle"));
  ASSERT_TRUE(runStarted("idle"));
  EXPECT_EQ(manager->behaviorState("idle"), StateRunning);
  EXPECT_TRUE(manager->isBehaviorRunning("idle"));
  EXPECT_TRUE(manager->isBehaviorRunning("User/idle"));
  EXPECT_TRUE(call("isBehaviorRunning", {"idle"}).value.toBool());
  EXPECT_EQ(call("getRunningBehaviors", {}).value.toStringVector(), Names{"idle"});
  EXPECT_EQ(manager->getRunningBehaviors(), Names{"idle"});
  EXPECT_EQ(memory->getData("BehaviorsRun").toStringVector(), Names{"idle"});
  EXPECT_TRUE(manager->isBehaviorLoaded("idle"));
  EXPECT_NE(manager->httpGet().find("javascript:stopBehavior('idle');"), std::string::npos);

  manager->stopBehavior("idle");
  // The stop returns only once the run has cleaned up.
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("idle"));
  const CallResult result = run.get();
  EXPECT_FALSE(result.threw) << result.description;
  EXPECT_EQ(published(), (std::vector<Names>{{"idle"}, {}}));
  EXPECT_FALSE(manager->isBehaviorRunning("idle"));
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
  EXPECT_TRUE(memory->getData("BehaviorsRun").toStringVector().empty());
}

TEST_F(Running, TwoRunningBehaviorsAreListedInOrder) {
  startReal();
  events->clear();
  std::future<CallResult> first = callAsync("runBehavior", {"other"});
  ASSERT_TRUE(publishedWith("other"));
  std::future<CallResult> second = callAsync("runBehavior", {"idle"});
  ASSERT_TRUE(publishedWith("idle"));
  ASSERT_TRUE(runStarted("other"));
  ASSERT_TRUE(runStarted("idle"));
  EXPECT_EQ(manager->getRunningBehaviors(), (Names{"idle", "other"}));
  EXPECT_EQ(call("getRunningBehaviors", {}).value.toStringVector(), (Names{"idle", "other"}));

  EXPECT_FALSE(call("stopAllBehaviors", {}).threw);
  for (std::future<CallResult>* run : {&first, &second}) {
    const CallResult result = run->get();
    EXPECT_FALSE(result.threw) << result.module << "::" << result.method << " "
                               << result.description;
  }
  // Stopped in name order: "idle" leaves the list first.
  EXPECT_EQ(published(), (std::vector<Names>{{"other"}, {"idle", "other"}, {"other"}, {}}));
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  EXPECT_EQ(manager->behaviorState("other"), StateUnloaded);
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
}

TEST_F(Running, AFailingRunPassesTheFrameManagersErrorOnAfterCleaningUp) {
  startReal();
  events->clear();
  const CallResult result = call("runBehavior", {"fail"});
  ASSERT_TRUE(result.threw);
  EXPECT_EQ(result.module, "ZRFrameManager");
  EXPECT_EQ(result.method, "completeBehavior");
  EXPECT_EQ(result.description, "out of battery");
  EXPECT_EQ(manager->behaviorState("fail"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("fail"));
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
  EXPECT_EQ(published(), (std::vector<Names>{{"fail"}, {}}));
}

TEST_F(Running, AFailingSystemRunIsLoadedAgainBeforeItsErrorReturns) {
  startReal();
  const CallResult result = call("runBehavior", {"System/sysfail"});
  ASSERT_TRUE(result.threw);
  EXPECT_EQ(result.description, "out of battery");
  EXPECT_EQ(manager->behaviorState("System/sysfail"), StateLoaded);
  EXPECT_TRUE(manager->isBehaviorLoaded("System/sysfail"));
  EXPECT_EQ(frameManager->getBehaviorInstances().size(), 1u);
}

TEST_F(Running, ANameThatDoesNotResolveIsNotInstalledWithoutAFullStop) {
  startReal();
  EXPECT_TRUE(isManagerError(call("runBehavior", {"User/ghost"}), "runBehavior",
                             "behavior User/ghost is not installed"));
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
}

TEST_F(Running, RunningARunningBehaviorIsRefusedWithTheNormalisedName) {
  startReal();
  std::future<CallResult> run = callAsync("runBehavior", {"idle"});
  ASSERT_TRUE(reaches("idle", StateRunning));
  ASSERT_TRUE(runStarted("idle"));
  EXPECT_TRUE(isManagerError(call("runBehavior", {"User/idle"}), "runBehavior",
                             "behavior idle is already running."));
  EXPECT_EQ(frameManager->getBehaviorInstances().size(), 1u);
  manager->stopBehavior("idle");
  EXPECT_FALSE(run.get().threw);
}

TEST_F(Running, AStateOfLoadedWithoutARegistryEntryFailsToLoad) {
  startReal();
  events->clear();
  manager->setBehaviorState("quick", StateLoaded);  // as if its entry had just been removed
  EXPECT_TRUE(isManagerError(call("runBehavior", {"User/quick"}), "runBehavior",
                             "behavior quick failed to load."));
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
  EXPECT_TRUE(published().empty());
  manager->setBehaviorState("quick", StateUnloaded);
}

TEST_F(Running, StoppingARunningSystemBehaviorReturnsOnceItIsLoadedAgain) {
  startReal();
  std::future<CallResult> run = callAsync("runBehavior", {"System/sysidle"});
  ASSERT_TRUE(runStarted("System/sysidle"));
  const std::string id = manager->getBehaviorFrameManagerId("System/sysidle");
  const CallResult stop = call("stopBehavior", {"System/sysidle"});
  EXPECT_FALSE(stop.threw) << stop.description;
  EXPECT_EQ(manager->behaviorState("System/sysidle"), StateLoaded);
  EXPECT_TRUE(manager->isBehaviorLoaded("System/sysidle"));
  EXPECT_NE(manager->getBehaviorFrameManagerId("System/sysidle"), id);
  EXPECT_FALSE(run.get().threw);
}

TEST_F(Running, StoppingANameThatDoesNotResolveIsNotInstalledWithAFullStop) {
  startReal();
  EXPECT_TRUE(isManagerError(call("stopBehavior", {"ghost"}), "stopBehavior",
                             "behavior ghost is not installed."));
}

TEST_F(Running, StoppingABehaviorThatIsNotRunningDoesNothing) {
  startReal();
  ASSERT_TRUE(manager->loadBehavior("other"));
  const auto before = manager->xStateTable();
  // Unloaded, loaded, and installed but never seen ("fail" was announced, so clear it).
  for (const char* name : {"quick", "other", "User/quick"}) {
    SCOPED_TRACE(name);
    EXPECT_NO_THROW(manager->stopBehavior(name));
  }
  EXPECT_EQ(manager->xStateTable(), before);
  EXPECT_TRUE(manager->isBehaviorLoaded("other"));
  EXPECT_EQ(frameManager->getBehaviorInstances().size(), 1u);
}

// A user behavior and a system behavior of the same name.
class ShadowedName : public LifecycleTest {
protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    userBehavior("twin", untilStoppedXar());
    systemBehavior("twin", endsAtOnceXar());
  }
};

TEST_F(ShadowedName, TheUserCopyIsReadFromTheUserLibraryWhenLoadedByItsUserName) {
  startReal();
  ASSERT_TRUE(manager->loadBehavior("User/twin"));
  EXPECT_EQ(manager->behaviorState("twin"), StateLoaded);
  EXPECT_TRUE(manager->isBehaviorLoaded("twin"));
  EXPECT_FALSE(manager->isBehaviorLoaded("System/twin"));
}

TEST_F(ShadowedName, TheUserCopyRunsByItsUserNameAndStopAllStopsIt) {
  startReal();
  std::future<CallResult> run = callAsync("runBehavior", {"User/twin"});
  ASSERT_TRUE(eventually([&] { return manager->behaviorState("twin") == StateRunning; }));
  EXPECT_EQ(manager->getRunningBehaviors(), Names{"twin"});
  manager->stopAllBehaviors();
  const CallResult result = run.get();
  EXPECT_FALSE(result.threw) << result.description;
  EXPECT_EQ(manager->behaviorState("twin"), StateUnloaded);
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
}

TEST_F(ShadowedName, TheSystemCopyRunsByItsBareName) {
  startReal();
  // The system copy ends at once; the user copy would run until stopped.
  std::future<CallResult> run = callAsync("runBehavior", {"twin"});
  ASSERT_EQ(run.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  const CallResult result = run.get();
  EXPECT_FALSE(result.threw) << result.description;
  EXPECT_EQ(manager->behaviorState("System/twin"), StateUnloaded);
  EXPECT_EQ(manager->behaviorState("twin"), StateUnloaded);
}

TEST_F(Running, StopAllKeepsPreloadedSystemBehaviorsRunnable) {
  startReal();
  ASSERT_TRUE(manager->loadBehavior("System/stand"));
  manager->stopAllBehaviors();
  EXPECT_TRUE(manager->isBehaviorLoaded("System/stand"));
  const CallResult result = call("runBehavior", {"System/stand"});
  EXPECT_FALSE(result.threw) << result.description;
  EXPECT_EQ(manager->behaviorState("System/stand"), StateLoaded);
}

TEST_F(Running, IsBehaviorRunningOfAnUnknownNameIsFalse) {
  startReal();
  EXPECT_FALSE(manager->isBehaviorRunning("ghost"));
  EXPECT_FALSE(manager->isBehaviorRunning("quick"));
  const CallResult remote = call("isBehaviorRunning", {"no/such/thing"});
  ASSERT_FALSE(remote.threw) << remote.description;
  EXPECT_FALSE(remote.value.toBool());
}

// ---------------------------------------------------------------- test frame manager

class RunningFaults : public LifecycleTest {
protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    userBehavior("idle", untilStoppedXar());
    userBehavior("other", untilStoppedXar());
    systemBehavior("sysidle", untilStoppedXar());
  }
  // Index of the first call that mentions the text, or -1.
  static int firstMention(const Names& calls, const std::string& text) {
    for (std::size_t i = 0; i < calls.size(); ++i) {
      if (calls[i].find(text) != std::string::npos) return static_cast<int>(i);
    }
    return -1;
  }
  static int lastMention(const Names& calls, const std::string& text) {
    for (std::size_t i = calls.size(); i-- > 0;) {
      if (calls[i].find(text) != std::string::npos) return static_cast<int>(i);
    }
    return -1;
  }
};

TEST_F(RunningFaults, TheRunHandsTheLoadedIdToTheFrameManagerThenUnloads) {
  startFake();
  fake->setQuick("idle");
  const CallResult result = call("runBehavior", {"idle"});
  ASSERT_FALSE(result.threw) << result.description;
  const std::string id = fake->idOf("idle");
  EXPECT_EQ(fake->calls(),
            (Names{"newBehaviorFromFile(" + (userRoot() / "idle").string() + "/behavior.xar, idle)",
                   "completeBehavior(" + id + ")", "exitBehavior(" + id + ")",
                   "deleteBehavior(" + id + ")"}));
}

TEST_F(RunningFaults, StoppingALoadedBehaviorThatDoesNotRunCallsNothing) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("idle"));
  fake->clearCalls();
  EXPECT_NO_THROW(manager->stopBehavior("idle"));
  EXPECT_TRUE(fake->calls().empty()) << fake->calls().front();
  EXPECT_EQ(manager->behaviorState("idle"), StateLoaded);
  EXPECT_TRUE(manager->isBehaviorLoaded("idle"));
}

TEST_F(RunningFaults, ARunThatDoesNotCleanUpWithinASecondCouldNotBeStopped) {
  startFake();
  fake->setStuck("idle");
  std::future<CallResult> run = callAsync("runBehavior", {"idle"});
  ASSERT_TRUE(fake->waitRunning("idle", 20000));
  const std::string id = fake->idOf("idle");
  fake->clearCalls();
  // The run never reaches "unloaded": the stop gives up at the end of its wait.
  try {
    manager->stopBehavior("User/idle");
    ADD_FAILURE() << "nothing thrown";
  } catch (const ZR::ZRError& error) {
    EXPECT_TRUE(
        isManagerError(error, "stopBehavior", "Behavior User/idle could not be stopped properly."));
  }
  EXPECT_EQ(fake->calls(), (Names{"exitBehavior(" + id + ")", "deleteBehavior(" + id + ")"}));
  EXPECT_EQ(manager->behaviorState("idle"), StateRunning);

  fake->unstick("idle");
  const CallResult result = run.get();
  EXPECT_FALSE(result.threw) << result.description;
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
}

TEST_F(RunningFaults, ErrorsOfTheExitRequestAreDroppedAndTheStopStillWaits) {
  startFake();
  std::future<CallResult> run = callAsync("runBehavior", {"idle"});
  ASSERT_TRUE(fake->waitRunning("idle", 20000));
  const std::string id = fake->idOf("idle");
  fake->clearCalls();
  fake->failNextExits(1);  // the exit is made, then reported as failed
  logs->clear();
  EXPECT_NO_THROW(manager->stopBehavior("idle"));
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  // The failed exit skips the stop's delete; the run's own clean-up exits and deletes.
  EXPECT_EQ(fake->calls(), (Names{"exitBehavior(" + id + ")", "exitBehavior(" + id + ")",
                                  "deleteBehavior(" + id + ")"}));
  for (const vu::log::Message& message : logs->messages()) {
    EXPECT_NE(message.function, "stopBehavior") << message.text;
    EXPECT_GT(message.level, 3) << message.text;
  }
  EXPECT_FALSE(run.get().threw);
}

TEST_F(RunningFaults, AStopWhileALoadEndsInLoadedIsAnInconsistentState) {
  startFake();
  fake->holdLoad("idle");
  std::future<CallResult> load = callAsync("preloadBehavior", {"idle"});
  ASSERT_TRUE(fake->waitLoadHeld("idle", 20000));
  WaitingCall<std::string> stop = startWaiting([this] {
    try {
      manager->stopBehavior("idle");
      return std::string("nothing thrown");
    } catch (const ZR::ZRError& error) {
      return isManagerError(error, "stopBehavior", "behavior was found in an inconsistent state.")
                 ? std::string()
                 : error.description();
    }
  });
  ASSERT_TRUE(stop.watch.waitUntilBlocked());  // the stop is waiting on the load now
  fake->releaseLoad("idle");
  ASSERT_TRUE(stop.returned()) << "the end of the load did not wake the stop";
  EXPECT_EQ(stop.result.get(), "");
  EXPECT_FALSE(load.get().threw);
  EXPECT_EQ(manager->behaviorState("idle"), StateLoaded);
  EXPECT_EQ(fake->count("exitBehavior"), 0);
  EXPECT_EQ(fake->count("deleteBehavior"), 0);
}

TEST_F(RunningFaults, AStopOfAnUnloadingBehaviorWaitsUntilItIsUnloaded) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("idle"));
  manager->setBehaviorState("idle", StateUnloading);  // a run that has just ended
  fake->clearCalls();
  WaitingCall<void> stop = startWaiting([this] { manager->stopBehavior("User/idle"); });
  ASSERT_TRUE(stop.watch.waitUntilBlocked());  // the stop waits for the run's clean-up
  manager->xUnloadBehavior("idle");
  ASSERT_TRUE(stop.returned()) << "the unload did not wake the stop";
  EXPECT_NO_THROW(stop.result.get());
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  // Only the unload itself reached the frame manager.
  const std::string id = fake->idOf("idle");
  EXPECT_EQ(fake->calls(), (Names{"exitBehavior(" + id + ")", "deleteBehavior(" + id + ")"}));
}

TEST_F(RunningFaults, StopAllWithNothingRunningCallsCleanBehaviorsOnceAndNothingElse) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("idle"));  // loaded, not running: left alone
  fake->clearCalls();
  manager->stopAllBehaviors();
  EXPECT_EQ(fake->calls(), Names{"cleanBehaviors()"});
  fake->clearCalls();
  EXPECT_FALSE(call("stopAllBehaviors", {}).threw);
  EXPECT_EQ(fake->calls(), Names{"cleanBehaviors()"});
  EXPECT_EQ(manager->behaviorState("idle"), StateLoaded);
}

TEST_F(RunningFaults, StopAllStopsInNameOrderThenCleansUp) {
  startFake();
  events->clear();
  std::vector<std::future<CallResult>> runs;
  for (const char* name : {"other", "System/sysidle", "idle"}) {
    runs.push_back(callAsync("runBehavior", {name}));
    ASSERT_TRUE(fake->waitRunning(name, 20000)) << name;
  }
  const std::string sysId = fake->idOf("System/sysidle");
  const std::string idleId = fake->idOf("idle");
  const std::string otherId = fake->idOf("other");
  fake->clearCalls();
  logs->clear();
  manager->stopAllBehaviors();
  for (auto& run : runs) EXPECT_FALSE(run.get().threw);

  const Names calls = fake->calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.front(), "exitBehavior(" + sysId + ")");
  EXPECT_EQ(calls.back(), "cleanBehaviors()");
  EXPECT_EQ(fake->count("cleanBehaviors"), 1);
  // One behavior after the other: "System/sysidle" (reloaded as it ends), "idle", "other".
  EXPECT_LT(lastMention(calls, "System/sysidle"), firstMention(calls, idleId));
  EXPECT_LT(lastMention(calls, idleId), firstMention(calls, otherId));
  EXPECT_EQ(manager->behaviorState("System/sysidle"), StateLoaded);
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  EXPECT_EQ(manager->behaviorState("other"), StateUnloaded);
  EXPECT_TRUE(logs->withText("A problem arose in StopAllBehaviors: ").empty());
  EXPECT_EQ(published(), (std::vector<Names>{{"other"},
                                             {"System/sysidle", "other"},
                                             {"System/sysidle", "idle", "other"},
                                             {"idle", "other"},
                                             {"other"},
                                             {}}));
}

TEST_F(RunningFaults, StopAllLogsTheFirstFailureAndStopsThere) {
  startFake();
  fake->setStuck("idle");
  std::future<CallResult> idle = callAsync("runBehavior", {"idle"});
  std::future<CallResult> other = callAsync("runBehavior", {"other"});
  ASSERT_TRUE(fake->waitRunning("idle", 20000));
  ASSERT_TRUE(fake->waitRunning("other", 20000));
  fake->clearCalls();
  logs->clear();
  EXPECT_NO_THROW(manager->stopAllBehaviors());
  EXPECT_EQ(logs->count(2, "behavior.manager", "stopAllBehaviors",
                        "A problem arose in StopAllBehaviors: Behavior idle could not be stopped "
                        "properly."),
            1);
  EXPECT_EQ(fake->count("cleanBehaviors"), 0);
  EXPECT_EQ(firstMention(fake->calls(), fake->idOf("other")), -1);
  EXPECT_EQ(manager->getRunningBehaviors(), (Names{"idle", "other"}));

  fake->unstick("idle");
  EXPECT_FALSE(idle.get().threw);
  manager->stopBehavior("other");
  EXPECT_FALSE(other.get().threw);
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
}

TEST_F(RunningFaults, AFailedRunIsUnloadedAndItsErrorPassedOn) {
  startFake();
  events->clear();
  fake->setRunFault("idle", "motor too hot");
  const CallResult result = call("runBehavior", {"idle"});
  ASSERT_TRUE(result.threw);
  EXPECT_EQ(result.module, "ZRFrameManager");
  EXPECT_EQ(result.method, "completeBehavior");
  EXPECT_EQ(result.description, "motor too hot");
  const std::string id = fake->idOf("idle");
  EXPECT_EQ(fake->calls(),
            (Names{"newBehaviorFromFile(" + (userRoot() / "idle").string() + "/behavior.xar, idle)",
                   "completeBehavior(" + id + ")", "exitBehavior(" + id + ")",
                   "deleteBehavior(" + id + ")"}));
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  EXPECT_EQ(published(), (std::vector<Names>{{"idle"}, {}}));

  // A system behavior is loaded again before the error goes on.
  fake->setRunFault("System/sysidle", "motor too hot");
  fake->clearCalls();
  EXPECT_EQ(call("runBehavior", {"System/sysidle"}).description, "motor too hot");
  EXPECT_EQ(fake->count("newBehaviorFromFile"), 2);
  EXPECT_EQ(fake->calls().back().rfind("newBehaviorFromFile(", 0), 0u);
  EXPECT_EQ(manager->behaviorState("System/sysidle"), StateLoaded);
  EXPECT_EQ(manager->getBehaviorFrameManagerId("System/sysidle"), fake->idOf("System/sysidle"));
}

}  // namespace
}  // namespace bmtest
