// The state table, the running set with its "BehaviorsRun" publication, and the waits
// on state changes.
#include "lifecycle.h"

namespace bmtest {
namespace {

using Names = std::vector<std::string>;

class States : public LifecycleTest {
protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    userBehavior("a", untilStoppedXar());
    userBehavior("b", untilStoppedXar());
  }
};

TEST_F(States, ValuesAreTheSixFixedIntegers) {
  EXPECT_EQ(static_cast<int>(StateUnknown), 0);
  EXPECT_EQ(static_cast<int>(StateUnloaded), 1);
  EXPECT_EQ(static_cast<int>(StateLoading), 2);
  EXPECT_EQ(static_cast<int>(StateLoaded), 3);
  EXPECT_EQ(static_cast<int>(StateRunning), 4);
  EXPECT_EQ(static_cast<int>(StateUnloading), 5);
  EXPECT_EQ(sizeof(BehaviorState), 4u);
}

TEST_F(States, InstalledBehaviorsStartUnloaded) {
  startReal();
  const auto table = manager->xStateTable();
  ASSERT_EQ(table.count("a"), 1u);
  ASSERT_EQ(table.count("b"), 1u);
  EXPECT_EQ(table.at("a"), StateUnloaded);
  EXPECT_EQ(table.at("b"), StateUnloaded);
}

TEST_F(States, NeverSeenNameReadsZeroAndLeavesAnEntryOfZero) {
  startReal();
  EXPECT_EQ(manager->xStateTable().count("never/seen"), 0u);
  EXPECT_EQ(manager->behaviorState("never/seen"), StateUnknown);
  const auto table = manager->xStateTable();
  ASSERT_EQ(table.count("never/seen"), 1u);
  EXPECT_EQ(table.at("never/seen"), StateUnknown);
  // Reading it again changes nothing.
  EXPECT_EQ(manager->behaviorState("never/seen"), StateUnknown);
  EXPECT_EQ(manager->xStateTable(), table);
}

TEST_F(States, NamesAreTakenAsTheyAreWithoutNormalising) {
  startReal();
  manager->setBehaviorState("a", StateLoaded);
  EXPECT_EQ(manager->behaviorState("a"), StateLoaded);
  EXPECT_EQ(manager->behaviorState("User/a"), StateUnknown);
  manager->setBehaviorState("a", StateUnloaded);
}

TEST_F(States, SettingTheSameStateTwicePublishesNothingTheSecondTime) {
  startReal();
  events->clear();
  manager->setBehaviorState("a", StateRunning);
  manager->setBehaviorState("a", StateRunning);
  EXPECT_EQ(published(), (std::vector<Names>{{"a"}}));
  EXPECT_EQ(manager->getRunningBehaviors(), Names{"a"});
  manager->setBehaviorState("a", StateUnloaded);
  manager->setBehaviorState("a", StateUnloaded);
  EXPECT_EQ(published(), (std::vector<Names>{{"a"}, {}}));
}

TEST_F(States, OnlyEnteringAndLeavingRunningPublish) {
  startReal();
  events->clear();
  manager->setBehaviorState("a", StateLoading);
  manager->setBehaviorState("a", StateLoaded);
  EXPECT_TRUE(published().empty()) << "loading to loaded published something";
  manager->setBehaviorState("a", StateRunning);
  EXPECT_EQ(published(), (std::vector<Names>{{"a"}}));
  manager->setBehaviorState("a", StateUnloading);
  EXPECT_EQ(published(), (std::vector<Names>{{"a"}, {}}));
  manager->setBehaviorState("a", StateUnloaded);
  EXPECT_EQ(published(), (std::vector<Names>{{"a"}, {}}));
  EXPECT_EQ(manager->behaviorState("a"), StateUnloaded);
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
}

TEST_F(States, LeavingRunningForAnyStatePublishesTheListWithoutTheName) {
  startReal();
  events->clear();
  manager->setBehaviorState("a", StateRunning);
  manager->setBehaviorState("a", StateLoaded);  // not a transition a run makes, but it leaves
  manager->setBehaviorState("b", StateRunning);
  manager->setBehaviorState("b", StateUnknown);
  EXPECT_EQ(published(), (std::vector<Names>{{"a"}, {}, {"b"}, {}}));
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
  manager->setBehaviorState("a", StateUnloaded);
  manager->setBehaviorState("b", StateUnloaded);
}

TEST_F(States, TheCompleteSortedListIsPublishedOnEveryChange) {
  startReal();
  events->clear();
  // Byte-wise order: upper case before lower case, "System/" before plain names.
  manager->setBehaviorState("a", StateRunning);
  manager->setBehaviorState("Zeta", StateRunning);
  manager->setBehaviorState("System/x", StateRunning);
  EXPECT_EQ(manager->getRunningBehaviors(), (Names{"System/x", "Zeta", "a"}));
  manager->setBehaviorState("Zeta", StateUnloading);
  EXPECT_EQ(published(), (std::vector<Names>{
                             {"a"}, {"Zeta", "a"}, {"System/x", "Zeta", "a"}, {"System/x", "a"}}));
  for (const char* name : {"a", "Zeta", "System/x"}) manager->setBehaviorState(name, StateUnloaded);
  EXPECT_EQ(published().back(), Names{});
}

TEST_F(States, PublishedValueIsAnArrayOfStringsAndEmptyWhenNothingRuns) {
  startReal();
  events->clear();
  manager->setBehaviorState("a", StateRunning);
  manager->setBehaviorState("a", StateUnloaded);
  const std::vector<ZR::ZRValue> values = events->valuesOf("BehaviorsRun");
  ASSERT_EQ(values.size(), 2u);
  ASSERT_TRUE(values[0].isArray());
  ASSERT_EQ(values[0].size(), 1u);
  EXPECT_TRUE(values[0][0].isString());
  EXPECT_TRUE(values[1].isArray());
  EXPECT_EQ(values[1].size(), 0u);
  // The memory keeps the last value under the key.
  EXPECT_EQ(memory->getData("BehaviorsRun"), values[1]);
}

// No user behavior here: announcing one would need the memory too.
class StatesWithoutMemory : public LifecycleTest {};

TEST_F(StatesWithoutMemory, AFailedPublicationHappensAfterTheStateAndTheRunningSetChanged) {
  startPlatform(/*memory=*/false);  // nothing answers under "ZRMemory"
  startManager();
  try {
    manager->setBehaviorState("a", StateRunning);
    FAIL() << "the publication did not fail";
  } catch (const ZR::ZRError& error) {
    EXPECT_NE(error.description().find("ZRMemory"), std::string::npos) << error.description();
  }
  EXPECT_EQ(manager->behaviorState("a"), StateRunning);
  EXPECT_EQ(manager->getRunningBehaviors(), Names{"a"});
  EXPECT_THROW(manager->setBehaviorState("a", StateUnloaded), ZR::ZRError);
  EXPECT_EQ(manager->behaviorState("a"), StateUnloaded);
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
  // Changes that publish nothing do not reach the memory at all.
  EXPECT_NO_THROW(manager->setBehaviorState("a", StateLoading));
  EXPECT_NO_THROW(manager->setBehaviorState("a", StateUnloaded));
}

TEST_F(StatesWithoutMemory, AFailedPublicationStillWakesTheWaitingThreads) {
  startPlatform(/*memory=*/false);
  startManager();
  WaitingCall<bool> waiting =
      startWaiting([this] { return manager->waitBehaviorState("a", StateRunning, 60000); });
  ASSERT_TRUE(waiting.watch.waitUntilBlocked());
  EXPECT_THROW(manager->setBehaviorState("a", StateRunning), ZR::ZRError);
  ASSERT_TRUE(waiting.returned()) << "the change did not wake the wait";
  EXPECT_TRUE(waiting.result.get());
}

// ---- waitBehaviorState

TEST_F(States, WaitForAReachedStateReturnsTrueWhateverTheTimeout) {
  startReal();
  for (const int timeout : {10000, 1000, 0, -1}) {
    SCOPED_TRACE(timeout);
    EXPECT_TRUE(manager->waitBehaviorState("a", StateUnloaded, timeout));
  }
  // An unknown name reads as StateUnknown, which is then reached at once.
  EXPECT_TRUE(manager->waitBehaviorState("nobody", StateUnknown, 0));
  EXPECT_EQ(manager->xStateTable().count("nobody"), 1u);
}

TEST_F(States, WaitWithoutTimeLeftLooksOnceAndFails) {
  startReal();
  for (const int timeout : {0, -500}) {
    SCOPED_TRACE(timeout);
    EXPECT_FALSE(manager->waitBehaviorState("a", StateLoaded, timeout));
  }
  // The look gives an unknown name its entry, as behaviorState does.
  EXPECT_FALSE(manager->waitBehaviorState("nobody", StateLoaded, 0));
  EXPECT_EQ(manager->xStateTable().count("nobody"), 1u);
}

TEST_F(States, WaitForAStateThatNeverComesFailsAtItsTimeout) {
  startReal();
  for (const int timeout : {1, 50, 250}) {
    SCOPED_TRACE(timeout);
    EXPECT_FALSE(manager->waitBehaviorState("a", StateLoaded, timeout));
  }
  EXPECT_EQ(manager->behaviorState("a"), StateUnloaded);
}

TEST_F(States, OtherChangesDoNotEndAWaitForAState) {
  startReal();
  WaitingCall<bool> waiting =
      startWaiting([this] { return manager->waitBehaviorState("a", StateLoaded, 60000); });
  ASSERT_TRUE(waiting.watch.waitUntilBlocked());
  // Each change wakes the waiting thread; the wait goes on until "a" is loaded.
  manager->setBehaviorState("a", StateLoading);
  manager->setBehaviorState("b", StateLoaded);
  manager->setBehaviorState("a", StateUnloaded);
  manager->setBehaviorState("a", StateLoaded);
  ASSERT_TRUE(waiting.returned());
  EXPECT_TRUE(waiting.result.get());
  manager->setBehaviorState("a", StateUnloaded);
  manager->setBehaviorState("b", StateUnloaded);
}

TEST_F(States, AWaitingThreadWakesOnTheChangeLongBeforeItsTimeout) {
  startReal();
  // Several rounds, each changing the state while the other thread sleeps in its wait.
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    WaitingCall<bool> waiting =
        startWaiting([this] { return manager->waitBehaviorState("a", StateLoaded, 60000); });
    ASSERT_TRUE(waiting.watch.waitUntilBlocked());
    manager->setBehaviorState("a", StateLoaded);
    ASSERT_TRUE(waiting.returned()) << "the change did not wake the wait";
    EXPECT_TRUE(waiting.result.get());
    manager->setBehaviorState("a", StateUnloaded);
  }
}

TEST_F(States, EveryWaitingThreadWakesOnTheChange) {
  startReal();
  std::vector<WaitingCall<bool>> waiting;
  for (int i = 0; i < 4; ++i) {
    waiting.push_back(
        startWaiting([this] { return manager->waitBehaviorState("a", StateLoaded, 60000); }));
  }
  for (const WaitingCall<bool>& call : waiting) ASSERT_TRUE(call.watch.waitUntilBlocked());
  manager->setBehaviorState("a", StateLoaded);
  for (WaitingCall<bool>& call : waiting) {
    ASSERT_TRUE(call.returned());
    EXPECT_TRUE(call.result.get());
  }
  manager->setBehaviorState("a", StateUnloaded);
}

// ---- waitBehaviorStateLeaves

TEST_F(States, WaitToLeaveAStateEndsOnAnyOtherState) {
  startReal();
  EXPECT_TRUE(manager->waitBehaviorStateLeaves("a", StateLoaded, 0));  // "a" is unloaded
  EXPECT_FALSE(manager->waitBehaviorStateLeaves("a", StateUnloaded, 0));
  EXPECT_FALSE(manager->waitBehaviorStateLeaves("a", StateUnloaded, 50));
  manager->setBehaviorState("a", StateUnloading);
  WaitingCall<bool> waiting =
      startWaiting([this] { return manager->waitBehaviorStateLeaves("a", StateUnloading, 60000); });
  ASSERT_TRUE(waiting.watch.waitUntilBlocked());
  manager->setBehaviorState("a", StateLoading);
  ASSERT_TRUE(waiting.returned());
  EXPECT_TRUE(waiting.result.get());
  manager->setBehaviorState("a", StateUnloaded);
}

// ---- waitBehaviorStateChange

TEST_F(States, WaitForChangeWithoutTimeLeftFails) {
  startReal();
  for (const int timeout : {-1, 0}) {
    SCOPED_TRACE(timeout);
    EXPECT_FALSE(manager->waitBehaviorStateChange("a", timeout));
  }
}

TEST_F(States, WaitForChangeWithNoChangeFailsAtItsTimeout) {
  startReal();
  for (const int timeout : {1, 50, 250}) {
    SCOPED_TRACE(timeout);
    EXPECT_FALSE(manager->waitBehaviorStateChange("a", timeout));
  }
}

TEST_F(States, WaitForChangeWakesOnAnyNewStateSetByAnotherThread) {
  startReal();
  manager->setBehaviorState("a", StateLoading);
  WaitingCall<bool> waiting =
      startWaiting([this] { return manager->waitBehaviorStateChange("a", 60000); });
  ASSERT_TRUE(waiting.watch.waitUntilBlocked());  // the wait has taken "loading" as its start
  manager->setBehaviorState("b", StateLoaded);    // another behavior's change goes on waiting
  manager->setBehaviorState("a", StateUnloaded);  // not the state anyone waits for
  ASSERT_TRUE(waiting.returned()) << "the change did not wake the wait";
  EXPECT_TRUE(waiting.result.get());
  manager->setBehaviorState("b", StateUnloaded);
}

}  // namespace
}  // namespace bmtest
