// The state table, the running set with its "BehaviorsRun" publication, and the two
// polling waits, observed through the sleeps they make.
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

// ---- waitBehaviorState

TEST_F(States, WaitForAReachedStateReturnsAtOnceWithoutSleeping) {
  startReal();
  for (const int timeout : {10000, 1000, 0, -1}) {
    SCOPED_TRACE(timeout);
    bool reached = false;
    EXPECT_EQ(
        sleepsDuring([&] { reached = manager->waitBehaviorState("a", StateUnloaded, timeout); }),
        0u);
    EXPECT_TRUE(reached);
  }
  // An unknown name reads as StateUnknown, which is then reached at once.
  bool reached = false;
  EXPECT_EQ(sleepsDuring([&] { reached = manager->waitBehaviorState("nobody", StateUnknown, 0); }),
            0u);
  EXPECT_TRUE(reached);
}

TEST_F(States, WaitWithTimeoutZeroSleepsOnceAndFails) {
  startReal();
  bool reached = true;
  EXPECT_EQ(sleepsDuring([&] { reached = manager->waitBehaviorState("a", StateLoaded, 0); }), 1u);
  EXPECT_FALSE(reached);
}

TEST_F(States, WaitWithANegativeTimeoutStillLooksOnce) {
  startReal();
  bool reached = true;
  EXPECT_EQ(sleepsDuring([&] { reached = manager->waitBehaviorState("a", StateLoaded, -500); }),
            1u);
  EXPECT_FALSE(reached);
}

TEST_F(States, WaitLooksOnceMorePerFull200Milliseconds) {
  startReal();
  // floor(timeout / 200) + 1 looks, each unsuccessful look followed by a sleep.
  for (const auto& [timeout, sleeps] :
       std::vector<std::pair<int, unsigned long>>{{199, 1}, {200, 2}, {399, 2}, {1000, 6}}) {
    SCOPED_TRACE(timeout);
    bool reached = true;
    EXPECT_EQ(
        sleepsDuring([&] { reached = manager->waitBehaviorState("a", StateLoaded, timeout); }),
        sleeps);
    EXPECT_FALSE(reached);
  }
}

TEST_F(States, WaitSeesAStateSetByAnotherThread) {
  startReal();
  const PollWatch waiter;
  spawn([this, waiter] {
    EXPECT_TRUE(waiter.waitForPoll());  // the wait has looked once
    manager->setBehaviorState("a", StateLoaded);
  });
  bool reached = false;
  const unsigned long sleeps =
      sleepsDuring([&] { reached = manager->waitBehaviorState("a", StateLoaded, 10000); });
  EXPECT_TRUE(reached);
  EXPECT_GE(sleeps, 1u);
  EXPECT_LE(sleeps, 50u);
  joinAll();
  manager->setBehaviorState("a", StateUnloaded);
}

// ---- waitBehaviorStateChange

TEST_F(States, WaitForChangeBelow200SleepsOnceAndFails) {
  startReal();
  for (const int timeout : {-1, 0, 199}) {
    SCOPED_TRACE(timeout);
    bool changed = true;
    EXPECT_EQ(sleepsDuring([&] { changed = manager->waitBehaviorStateChange("a", timeout); }), 1u);
    EXPECT_FALSE(changed);
  }
}

TEST_F(States, WaitForChangeComparesOncePerFull200Milliseconds) {
  startReal();
  // floor(timeout / 200) comparisons; the sleep after the last one ends the wait.
  for (const auto& [timeout, sleeps] :
       std::vector<std::pair<int, unsigned long>>{{200, 2}, {399, 2}, {400, 3}, {1000, 6}}) {
    SCOPED_TRACE(timeout);
    bool changed = true;
    EXPECT_EQ(sleepsDuring([&] { changed = manager->waitBehaviorStateChange("a", timeout); }),
              sleeps);
    EXPECT_FALSE(changed);
  }
}

TEST_F(States, WaitForChangeSeesAnyNewStateSetByAnotherThread) {
  startReal();
  manager->setBehaviorState("a", StateLoading);
  const PollWatch waiter;
  spawn([this, waiter] {
    EXPECT_TRUE(waiter.waitForPoll());              // the wait has looked once
    manager->setBehaviorState("a", StateUnloaded);  // not the state anyone waits for
  });
  bool changed = false;
  const unsigned long sleeps =
      sleepsDuring([&] { changed = manager->waitBehaviorStateChange("a", 10000); });
  EXPECT_TRUE(changed);
  EXPECT_GE(sleeps, 1u);
  EXPECT_LE(sleeps, 50u);
  joinAll();
}

// About 10.2 s: the full wait of a load or a stop behind a load that never ends.
TEST_F(States, SlowWaitForChangeOf10000UnchangedSleeps51TimesAndFails) {
  startReal();
  bool changed = true;
  EXPECT_EQ(sleepsDuring([&] { changed = manager->waitBehaviorStateChange("a", 10000); }), 51u);
  EXPECT_FALSE(changed);
}

}  // namespace
}  // namespace bmtest
