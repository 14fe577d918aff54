// Loading behaviors into the frame manager, unloading them, and the registry queries:
// with the real frame manager and real behavior files, and with the test frame manager
// where a fault has to be forced.
#include "lifecycle.h"

namespace bmtest {
namespace {

using Names = std::vector<std::string>;

const char* const kMalformed = "<behavior>\n  <dance/>\n</behavior>\n";

// ---------------------------------------------------------------- real frame manager

class Loading : public LifecycleTest {
protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    userBehavior("wave", shortWaitXar());
    userBehavior("idle", untilStoppedXar());
    userBehavior("broken", kMalformed);
    systemBehavior("stand", endsAtOnceXar());
  }
};

TEST_F(Loading, LoadRecordsTheFrameManagerIdAndStateLoaded) {
  startReal();
  events->clear();
  EXPECT_TRUE(manager->loadBehavior("wave"));
  EXPECT_EQ(manager->behaviorState("wave"), StateLoaded);
  EXPECT_TRUE(manager->isBehaviorLoaded("wave"));
  EXPECT_EQ(manager->getLoadedBehaviors(), Names{"wave"});
  const std::vector<std::string> instances = frameManager->getBehaviorInstances();
  ASSERT_EQ(instances.size(), 1u);
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), instances[0]);
  EXPECT_TRUE(published().empty()) << "a load published the running list";
}

TEST_F(Loading, PreloadThroughTheBrokerNormalisesTheName) {
  startReal();
  const CallResult result = call("preloadBehavior", {"User/wave"});
  ASSERT_FALSE(result.threw) << result.description;
  EXPECT_TRUE(result.value.toBool());
  EXPECT_TRUE(manager->isBehaviorLoaded("wave"));
  EXPECT_EQ(manager->behaviorState("wave"), StateLoaded);
  EXPECT_EQ(manager->behaviorState("User/wave"), StateUnknown);
}

TEST_F(Loading, IsBehaviorLoadedDoesNotNormaliseButTheIdQueryDoes) {
  startReal();
  ASSERT_TRUE(manager->loadBehavior("wave"));
  EXPECT_TRUE(manager->isBehaviorLoaded("wave"));
  EXPECT_FALSE(manager->isBehaviorLoaded("User/wave"));
  const std::string id = manager->getBehaviorFrameManagerId("wave");
  EXPECT_FALSE(id.empty());
  EXPECT_EQ(manager->getBehaviorFrameManagerId("User/wave"), id);
  const CallResult remote = call("_getBehaviorFrameManagerId", {"User/wave"});
  ASSERT_FALSE(remote.threw) << remote.description;
  EXPECT_EQ(remote.value.toString(), id);
}

TEST_F(Loading, FrameManagerIdOfANameNotLoadedIsEmpty) {
  startReal();
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), "");         // installed, not loaded
  EXPECT_EQ(manager->getBehaviorFrameManagerId("no/such/one"), "");  // not even installed
  const CallResult remote = call("_getBehaviorFrameManagerId", {"no/such/one"});
  ASSERT_FALSE(remote.threw) << remote.description;
  EXPECT_EQ(remote.value.toString(), "");
}

TEST_F(Loading, LoadingAgainCreatesNoSecondInstance) {
  startReal();
  ASSERT_TRUE(manager->loadBehavior("wave"));
  const std::string id = manager->getBehaviorFrameManagerId("wave");
  EXPECT_TRUE(manager->loadBehavior("wave"));
  EXPECT_TRUE(manager->loadBehavior("User/wave"));
  EXPECT_EQ(frameManager->getBehaviorInstances(), Names{id});
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), id);
}

TEST_F(Loading, UnknownNameThrowsNotInstalledWithTheNameAsGiven) {
  startReal();
  try {
    manager->loadBehavior("User/no//such");
    FAIL() << "nothing thrown";
  } catch (const ZR::ZRError& error) {
    EXPECT_TRUE(isManagerError(error, "loadBehavior", "behavior User/no//such is not installed."));
  }
  EXPECT_TRUE(isManagerError(call("preloadBehavior", {"ghost"}), "loadBehavior",
                             "behavior ghost is not installed."));
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
}

TEST_F(Loading, MalformedFileFailsWithTheFrameManagersOwnErrorAndLeavesAnEmptyEntry) {
  startReal();
  const std::string path = (userRoot() / "broken" / "behavior.xar").string();
  for (int attempt = 0; attempt < 2; ++attempt) {  // a failed load may be tried again
    SCOPED_TRACE(attempt);
    try {
      manager->loadBehavior("broken");
      FAIL() << "nothing thrown";
    } catch (const ZR::ZRError& error) {
      EXPECT_EQ(error.module(), "ZRFrameManager");
      EXPECT_EQ(error.method(), "newBehaviorFromFile");
      // Named after the behavior: the robot's folders stay out of a remote caller's sight.
      EXPECT_EQ(error.description().rfind("behavior file broken/behavior.xar, line 2", 0), 0u)
          << error.description();
      EXPECT_EQ(error.description().find(path), std::string::npos) << error.description();
    }
    EXPECT_EQ(manager->behaviorState("broken"), StateUnloaded);
    EXPECT_FALSE(manager->isBehaviorLoaded("broken"));
    EXPECT_TRUE(manager->getLoadedBehaviors().empty());
    EXPECT_EQ(manager->getBehaviorFrameManagerId("broken"), "");
    // The entry is still there, with no id: the status page lists every entry.
    EXPECT_NE(manager->httpGet().find("<tr><td>broken</td><td></td></tr>"), std::string::npos);
  }
}

TEST_F(Loading, SystemBehaviorLoadsUnderItsPrefixedName) {
  startReal();
  EXPECT_TRUE(manager->loadBehavior("stand"));  // found in the system library first
  EXPECT_TRUE(manager->isBehaviorLoaded("System/stand"));
  EXPECT_FALSE(manager->isBehaviorLoaded("stand"));
  EXPECT_EQ(manager->behaviorState("System/stand"), StateLoaded);
}

TEST_F(Loading, LoadedBehaviorsAreListedInByteWiseOrder) {
  startReal();
  for (const char* name : {"wave", "System/stand", "idle"})
    ASSERT_TRUE(manager->loadBehavior(name));
  EXPECT_EQ(manager->getLoadedBehaviors(), (Names{"System/stand", "idle", "wave"}));
  EXPECT_EQ(frameManager->getBehaviorInstances().size(), 3u);
}

TEST_F(Loading, UnloadExitsAndDeletesTheInstanceAndForgetsTheEntry) {
  startReal();
  ASSERT_TRUE(manager->loadBehavior("wave"));
  manager->xUnloadBehavior("wave");
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("wave"));
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), "");
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
  EXPECT_EQ(manager->httpGet().find("Loaded behaviors"), std::string::npos);
}

TEST_F(Loading, UnloadingANameNeverLoadedStillSetsUnloaded) {
  startReal();
  manager->xUnloadBehavior("ghost");
  EXPECT_EQ(manager->behaviorState("ghost"), StateUnloaded);
  manager->setBehaviorState("wave", StateLoaded);  // a state without an entry
  manager->xUnloadBehavior("wave");
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
}

TEST_F(Loading, PublicUnloadNormalisesAndReturnsTrue) {
  startReal();
  ASSERT_TRUE(manager->loadBehavior("wave"));
  EXPECT_TRUE(manager->unloadBehavior("User/wave"));
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("wave"));
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
}

TEST_F(Loading, UnloadingARunningBehaviorStopsItFirst) {
  startReal();
  events->clear();
  std::future<CallResult> run = callAsync("runBehavior", {"idle"});
  ASSERT_TRUE(runStarted("idle"));
  EXPECT_TRUE(manager->unloadBehavior("idle"));
  EXPECT_FALSE(run.get().threw);
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("idle"));
  EXPECT_EQ(published(), (std::vector<Names>{{"idle"}, {}}));
}

// ---------------------------------------------------------------- test frame manager

class LoadingFaults : public LifecycleTest {
protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    userBehavior("wave", shortWaitXar());
    userBehavior("idle", untilStoppedXar());
    systemBehavior("stand", endsAtOnceXar());
  }
};

TEST_F(LoadingFaults, TheFrameManagerGetsTheFilePathAndTheNormalisedName) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("User/wave"));
  ASSERT_TRUE(manager->loadBehavior("stand"));
  EXPECT_EQ(fake->calls(),
            (Names{"newBehaviorFromFile(" + (userRoot() / "wave").string() + "/behavior.xar, wave)",
                   "newBehaviorFromFile(" + (systemRoot() / "stand").string() +
                       "/behavior.xar, System/stand)"}));
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), fake->idOf("wave"));
}

TEST_F(LoadingFaults, LoadingALoadedBehaviorCallsTheFrameManagerNotAtAll) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("wave"));
  fake->clearCalls();
  EXPECT_TRUE(manager->loadBehavior("User/wave"));
  EXPECT_TRUE(fake->calls().empty()) << fake->calls().front();
  EXPECT_EQ(manager->behaviorState("wave"), StateLoaded);
}

TEST_F(LoadingFaults, LoadingARunningBehaviorCallsTheFrameManagerNotAtAll) {
  startFake();
  std::future<CallResult> run = callAsync("runBehavior", {"idle"});
  ASSERT_TRUE(fake->waitRunning("idle", 20000));
  fake->clearCalls();
  EXPECT_TRUE(manager->loadBehavior("idle"));
  EXPECT_TRUE(fake->calls().empty()) << fake->calls().front();
  EXPECT_EQ(manager->behaviorState("idle"), StateRunning);
  manager->stopBehavior("idle");
  EXPECT_FALSE(run.get().threw);
}

TEST_F(LoadingFaults, AZRErrorFromTheFrameManagerLeavesStateUnloadedAndAnEntryWithoutId) {
  startFake();
  fake->setLoadFault("wave", FakeFrameManager::LoadFault::ZRError);
  try {
    manager->loadBehavior("wave");
    FAIL() << "nothing thrown";
  } catch (const ZR::ZRError& error) {  // passed on unchanged
    EXPECT_EQ(error.module(), "ZRFrameManager");
    EXPECT_EQ(error.method(), "newBehaviorFromFile");
    EXPECT_EQ(error.description(), "behavior file " + (userRoot() / "wave").string() +
                                       "/behavior.xar cannot be read: refused by the test");
  }
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("wave"));
  EXPECT_TRUE(manager->getLoadedBehaviors().empty());
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), "");
  EXPECT_NE(manager->httpGet().find("<tr><td>wave</td><td></td></tr>"), std::string::npos);

  // Once the frame manager cooperates the same entry gets its id.
  fake->setLoadFault("wave", FakeFrameManager::LoadFault::None);
  EXPECT_TRUE(manager->loadBehavior("wave"));
  EXPECT_EQ(manager->getLoadedBehaviors(), Names{"wave"});
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), fake->idOf("wave"));
}

// About 10 s: the second load waits for the first one, which never ends.
TEST_F(LoadingFaults, SlowOtherExceptionLeavesLoadingAndALaterLoadFailsAfterTenSeconds) {
  startFake();
  fake->setLoadFault("wave", FakeFrameManager::LoadFault::StdException);
  try {
    manager->loadBehavior("wave");
    FAIL() << "nothing thrown";
  } catch (const ZR::ZRError& error) {
    FAIL() << "turned into a ZRError: " << error.description();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "the test frame manager ran out of memory");
  }
  EXPECT_EQ(manager->behaviorState("wave"), StateLoading);
  EXPECT_FALSE(manager->isBehaviorLoaded("wave"));
  EXPECT_TRUE(manager->getLoadedBehaviors().empty());

  fake->setLoadFault("wave", FakeFrameManager::LoadFault::None);
  fake->clearCalls();
  // Nothing changes the state: the load waits out its whole time-out, then gives up.
  try {
    manager->loadBehavior("User/wave");
    ADD_FAILURE() << "nothing thrown";
  } catch (const ZR::ZRError& error) {
    EXPECT_TRUE(isManagerError(error, "loadBehavior",
                               "Could not load behavior, wave was in an consistent state."));
  }
  EXPECT_TRUE(fake->calls().empty());
  EXPECT_EQ(manager->behaviorState("wave"), StateLoading);
}

TEST_F(LoadingFaults, AStateAboveFiveIsAnInconsistentStateAtOnce) {
  startFake();
  manager->setBehaviorState("wave", static_cast<BehaviorState>(6));
  try {
    manager->loadBehavior("wave");
    ADD_FAILURE() << "nothing thrown";
  } catch (const ZR::ZRError& error) {
    EXPECT_TRUE(isManagerError(error, "loadBehavior",
                               "Could not load behavior, wave was in an consistent state."));
  }
  EXPECT_TRUE(fake->calls().empty());
  manager->setBehaviorState("wave", StateUnloaded);
}

TEST_F(LoadingFaults, ALoadWaitsForAnUnloadingBehaviorToBeUnloadedThenLoads) {
  startFake();
  manager->setBehaviorState("wave", StateUnloading);
  WaitingCall<bool> load = startWaiting([this] { return manager->loadBehavior("wave"); });
  ASSERT_TRUE(load.watch.waitUntilBlocked());  // the load is waiting now
  EXPECT_EQ(fake->count("newBehaviorFromFile"), 0);
  manager->xUnloadBehavior("wave");
  ASSERT_TRUE(load.returned()) << "the unload did not wake the load";
  EXPECT_TRUE(load.result.get());
  EXPECT_EQ(manager->behaviorState("wave"), StateLoaded);
  EXPECT_EQ(fake->count("newBehaviorFromFile"), 1);
}

TEST_F(LoadingFaults, ASecondLoadWaitsForTheFirstAndCreatesNoSecondInstance) {
  startFake();
  fake->holdLoad("wave");
  std::future<CallResult> first = callAsync("preloadBehavior", {"wave"});
  ASSERT_TRUE(fake->waitLoadHeld("wave", 20000));
  EXPECT_EQ(manager->behaviorState("wave"), StateLoading);
  // No lock is held while the frame manager reads the file: queries answer meanwhile, and
  // a load in progress is not listed.
  EXPECT_FALSE(manager->isBehaviorLoaded("wave"));
  EXPECT_TRUE(manager->getLoadedBehaviors().empty());
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), "");

  WaitingCall<bool> second = startWaiting([this] { return manager->loadBehavior("wave"); });
  ASSERT_TRUE(second.watch.waitUntilBlocked());  // the second load is waiting now
  fake->releaseLoad("wave");
  ASSERT_TRUE(second.returned()) << "the end of the first load did not wake the second";
  EXPECT_TRUE(second.result.get());
  const CallResult firstResult = first.get();
  EXPECT_FALSE(firstResult.threw) << firstResult.description;
  EXPECT_TRUE(firstResult.value.toBool());
  EXPECT_EQ(fake->count("newBehaviorFromFile"), 1);
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), fake->idOf("wave"));
}

TEST_F(LoadingFaults, AnEntryRemovedDuringTheLoadDeletesTheNewInstanceAndFails) {
  startFake();
  fake->holdLoad("wave");
  std::future<CallResult> load = callAsync("preloadBehavior", {"wave"});
  ASSERT_TRUE(fake->waitLoadHeld("wave", 20000));
  manager->xUnloadBehavior("wave");  // the entry has no id yet: nothing to ask the frame manager
  EXPECT_EQ(fake->calls().size(), 1u);
  fake->releaseLoad("wave");
  EXPECT_TRUE(
      isManagerError(load.get(), "loadBehavior", "Could not load behavior wave, yet file exists."));
  const std::string id = fake->idOf("wave");
  EXPECT_EQ(fake->calls(),
            (Names{"newBehaviorFromFile(" + (userRoot() / "wave").string() + "/behavior.xar, wave)",
                   "deleteBehavior(" + id + ")"}));
  EXPECT_TRUE(fake->instances().empty());
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("wave"));
}

TEST_F(LoadingFaults, UnloadExitsThenDeletesTheInstance) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("wave"));
  const std::string id = fake->idOf("wave");
  fake->clearCalls();
  manager->xUnloadBehavior("wave");
  EXPECT_EQ(fake->calls(), (Names{"exitBehavior(" + id + ")", "deleteBehavior(" + id + ")"}));
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
}

TEST_F(LoadingFaults, UnloadOfAnEntryWithoutIdOrOfNoEntryCallsNothing) {
  startFake();
  fake->setLoadFault("wave", FakeFrameManager::LoadFault::ZRError);
  EXPECT_THROW(manager->loadBehavior("wave"), ZR::ZRError);
  fake->clearCalls();
  manager->xUnloadBehavior("wave");
  manager->xUnloadBehavior("ghost");
  EXPECT_TRUE(fake->calls().empty()) << fake->calls().front();
  EXPECT_EQ(manager->httpGet().find("Loaded behaviors"), std::string::npos);
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
  EXPECT_EQ(manager->behaviorState("ghost"), StateUnloaded);
}

TEST_F(LoadingFaults, AFrameManagerErrorDuringUnloadPassesOutAndLeavesTheEntry) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("wave"));
  const std::string id = fake->idOf("wave");
  fake->failNextExits(1);
  try {
    manager->xUnloadBehavior("wave");
    FAIL() << "nothing thrown";
  } catch (const ZR::ZRError& error) {
    EXPECT_EQ(error.module(), "ZRFrameManager");
    EXPECT_EQ(error.description(), "exit refused by the test");
  }
  EXPECT_EQ(manager->behaviorState("wave"), StateLoaded);
  // The registry lock was released on the way out: another thread gets it.
  auto other = std::async(std::launch::async, [this] { return manager->isBehaviorLoaded("wave"); });
  EXPECT_TRUE(other.get());
  EXPECT_EQ(manager->getBehaviorFrameManagerId("wave"), id);
  manager->xUnloadBehavior("wave");
  EXPECT_FALSE(manager->isBehaviorLoaded("wave"));
}

TEST_F(LoadingFaults, UnloadOfALoadedBehaviorThatDoesNotRunOnlyExitsAndDeletes) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("wave"));
  const std::string id = fake->idOf("wave");
  fake->clearCalls();
  EXPECT_TRUE(manager->unloadBehavior("wave"));
  EXPECT_EQ(fake->calls(), (Names{"exitBehavior(" + id + ")", "deleteBehavior(" + id + ")"}));
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
}

TEST_F(LoadingFaults, UnloadOfARunningBehaviorWhoseStopTimesOutLogsAndKeepsItLoaded) {
  startFake();
  fake->setStuck("idle");
  std::future<CallResult> run = callAsync("runBehavior", {"idle"});
  ASSERT_TRUE(fake->waitRunning("idle", 20000));
  const std::string id = fake->idOf("idle");
  logs->clear();
  EXPECT_FALSE(manager->unloadBehavior("User/idle"));
  EXPECT_EQ(
      logs->count(5, "behavior.manager", "unloadBehavior",
                  "Could not stop behavior: Behavior User/idle could not be stopped properly."),
      1);
  EXPECT_TRUE(manager->isBehaviorLoaded("idle"));
  EXPECT_EQ(manager->getBehaviorFrameManagerId("idle"), id);
  EXPECT_EQ(manager->behaviorState("idle"), StateRunning);
  EXPECT_EQ(manager->getRunningBehaviors(), Names{"idle"});

  fake->unstick("idle");  // the run ends late and cleans up after itself
  const CallResult result = run.get();
  EXPECT_FALSE(result.threw) << result.description;
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  EXPECT_FALSE(manager->isBehaviorLoaded("idle"));
}

TEST_F(LoadingFaults, UnloadOfANameNotInstalledLogsTheStopErrorAndReturnsFalse) {
  startFake();
  logs->clear();
  EXPECT_FALSE(manager->unloadBehavior("ghost"));
  EXPECT_EQ(logs->count(5, "behavior.manager", "unloadBehavior",
                        "Could not stop behavior: behavior ghost is not installed."),
            1);
  EXPECT_TRUE(fake->calls().empty());
}

}  // namespace
}  // namespace bmtest
