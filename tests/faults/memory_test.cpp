// A memory module that refuses every subscription and every event declaration: the
// behavior manager still comes up, says once per refusal that it is not started
// properly, and works: it answers calls, runs behaviors and publishes its events.
#include <algorithm>

#include "faults.h"

namespace faulttest {
namespace {

using ZR::ZRValue;
using ZR::BehaviorManager::StateUnloaded;

class MemoryFaults : public bmtest::ManagerTest {
protected:
  void SetUp() override {
    ManagerTest::SetUp();
    startPlatform(false, true, true);
    memory = std::make_unique<RefusingMemory>(broker);
    memory->plan().fail("subscribeToMicroEvent");
    memory->plan().fail("declareEvent");
    observer = memory->real().addObserver([this](const std::string& key, const ZRValue& value) {
      std::lock_guard<std::mutex> lock(fMutex);
      fRaised.emplace_back(key, value);
    });
    bmtest::makeBehavior(userRoot() / "quick", endsAtOnceXar());
  }
  void TearDown() override {
    manager.reset();
    if (memory) memory->real().removeObserver(observer);
    memory.reset();
    ManagerTest::TearDown();
  }

  std::vector<std::pair<std::string, ZRValue>> raised(const std::string& key) {
    EXPECT_TRUE(memory->real().flushNotifications(10000));
    std::lock_guard<std::mutex> lock(fMutex);
    std::vector<std::pair<std::string, ZRValue>> found;
    for (const auto& event : fRaised) {
      if (event.first == key) found.push_back(event);
    }
    return found;
  }
  static std::string notStarted(const std::string& what) {
    return what + ". The BehaviorManager is not started properly.";
  }

  std::unique_ptr<RefusingMemory> memory;
  int observer = 0;

private:
  std::mutex fMutex;  // guards fRaised
  std::vector<std::pair<std::string, ZRValue>> fRaised;
};

TEST_F(MemoryFaults, EveryRefusalIsLoggedOnceAndTheModuleStillComesUp) {
  startManager();

  EXPECT_EQ(1, memory->plan().failed("subscribeToMicroEvent"));
  EXPECT_EQ(1, logs->count(2, "behaviormanager", "ZRBehaviorManager",
                           notStarted("Could not subscribe to the TUQvuReady event")));
  EXPECT_EQ(4, memory->plan().failed("declareEvent"));
  for (const char* key :
       {"BehaviorsRun", "ZRBehaviorManager/BehaviorAdded", "ZRBehaviorManager/BehaviorUpdated",
        "ZRBehaviorManager/BehaviorRemoved"}) {
    EXPECT_EQ(1, logs->count(2, "behaviormanager", "ZRBehaviorManager",
                             notStarted(std::string("Could not declare the ") + key + " event")))
        << key;
  }
}

TEST_F(MemoryFaults, TheModuleAnswersRunsAndPublishesWithoutItsSubscriptionAndDeclarations) {
  startManager();

  const Outcome installed = callRemote(*broker, "ZRBehaviorManager", "getInstalledBehaviors");
  ASSERT_FALSE(installed.threw) << installed.description;
  EXPECT_EQ(std::vector<std::string>{"quick"}, installed.value.toStringVector());

  const Outcome run = callRemote(*broker, "ZRBehaviorManager", "runBehavior", {ZRValue("quick")});
  EXPECT_FALSE(run.threw) << run.description;
  EXPECT_EQ(StateUnloaded, manager->behaviorState("quick"));
  const auto runs = raised("BehaviorsRun");
  ASSERT_EQ(2u, runs.size());
  EXPECT_EQ(std::vector<std::string>{"quick"}, runs[0].second.toStringVector());
  EXPECT_TRUE(runs[1].second.toStringVector().empty());

  // Events still reach the memory: an installation announces the new behavior.
  bmtest::makeBehavior(uploads() / "wave", endsAtOnceXar());
  const Outcome install =
      callRemote(*broker, "ZRBehaviorManager", "installBehavior",
                 {ZRValue((uploads() / "wave").string()), ZRValue("wave"), ZRValue(false)});
  ASSERT_FALSE(install.threw) << install.description;
  EXPECT_TRUE(install.value.toBool());
  const auto added = raised("ZRBehaviorManager/BehaviorAdded");
  EXPECT_EQ(1, std::count_if(added.begin(), added.end(), [](const auto& event) {
              return event.second.toString().find("wave") != std::string::npos;
            }));

  // Readiness never arrives (there is no subscription), but a default behavior can
  // still be started by hand.
  const Outcome add =
      callRemote(*broker, "ZRBehaviorManager", "addDefaultBehavior", {ZRValue("quick")});
  EXPECT_FALSE(add.threw) << add.description;
  EXPECT_EQ(std::vector<std::string>{"quick"}, manager->getDefaultBehaviors());
}

}  // namespace
}  // namespace faulttest
