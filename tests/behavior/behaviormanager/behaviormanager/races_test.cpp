// Races between loads, run ends and stops of one behavior that the soak test
// (tests/soak) met with many clients: two loads that both found the behavior unloaded,
// and waits for the unloaded state that a reload passed between two looks.
#include <zr/zrbinding.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>

#include <boost/make_shared.hpp>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "lifecycle.h"

namespace bmtest {
namespace {

using Names = std::vector<std::string>;

// A frame manager whose exit requests can be held: the unload that makes one holds the
// registry lock meanwhile. Loads answer at once; runs end at once.
class GatedFrameManager : public ZR::ZRModule {
public:
  explicit GatedFrameManager(boost::shared_ptr<ZR::ZRBroker> broker)
      : ZR::ZRModule(broker, "ZRFrameManager") {
    bind("newBehaviorFromFile", {"xarPath", "behaviorName"}, ZR::TypeCodeString,
         [this](const ZR::ZRValue& args, ZR::ZRValue& result) {
           std::lock_guard<std::mutex> lock(fMutex);
           const std::string id = "gated-" + std::to_string(++fNextId);
           fInstances[id] = args[1].toString();
           result = ZR::ZRValue(id);
         });
    bind("completeBehavior", {"id"}, ZR::TypeCodeVoid, [](const ZR::ZRValue&, ZR::ZRValue&) {});
    bind("exitBehavior", {"id"}, ZR::TypeCodeVoid, [this](const ZR::ZRValue&, ZR::ZRValue&) {
      std::unique_lock<std::mutex> lock(fMutex);
      fExitsWaiting += 1;
      fChanged.notify_all();
      fChanged.wait(lock, [&] { return !fExitsClosed; });
      fExitsWaiting -= 1;
    });
    bind("deleteBehavior", {"id"}, ZR::TypeCodeVoid, [this](const ZR::ZRValue& args, ZR::ZRValue&) {
      std::lock_guard<std::mutex> lock(fMutex);
      fInstances.erase(args[0].toString());
    });
    bind("cleanBehaviors", {}, ZR::TypeCodeVoid, [this](const ZR::ZRValue&, ZR::ZRValue&) {
      std::lock_guard<std::mutex> lock(fMutex);
      fInstances.clear();
    });
  }
  ~GatedFrameManager() override { openExits(); }

  void closeExits() {
    std::lock_guard<std::mutex> lock(fMutex);
    fExitsClosed = true;
  }
  void openExits() {
    std::lock_guard<std::mutex> lock(fMutex);
    fExitsClosed = false;
    fChanged.notify_all();
  }
  bool waitExitHeld() {
    std::unique_lock<std::mutex> lock(fMutex);
    return fChanged.wait_for(lock, std::chrono::seconds(20), [&] { return fExitsWaiting > 0; });
  }
  // The instances of a behavior name.
  int instancesOf(const std::string& name) const {
    std::lock_guard<std::mutex> lock(fMutex);
    int count = 0;
    for (const auto& instance : fInstances) count += instance.second == name ? 1 : 0;
    return count;
  }

private:
  void bind(const std::string& method, const std::vector<std::string>& params, int resultCode,
            ZR::ZRCallableFunctor::Target target) {
    std::vector<std::pair<std::string, int>> described;
    for (const std::string& param : params) described.emplace_back(param, ZR::TypeCodeString);
    ZR::bindCallable(*this, {method, "gated frame manager: " + method, described, resultCode},
                     std::move(target));
  }

  mutable std::mutex fMutex;  // guards everything below
  std::condition_variable fChanged;
  bool fExitsClosed = false;
  int fExitsWaiting = 0;
  int fNextId = 0;
  std::map<std::string, std::string> fInstances;  // id -> behavior name
};

class Races : public LifecycleTest {
protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    userBehavior("wave", shortWaitXar());
    userBehavior("idle", untilStoppedXar());
  }
  void TearDown() override {
    if (gated) gated->openExits();
    joinAll();
    manager.reset();
    gated.reset();
    LifecycleTest::TearDown();
  }
  std::unique_ptr<GatedFrameManager> gated;
};

// Two loads that both read "unloaded" and then queue for the registry lock (held here by
// an unload waiting for its exit request) must not both create an instance: the second
// one's would replace the first's in the registry, and a run of the first could then be
// stopped by nothing but cleanBehaviors.
TEST_F(Races, LoadsThatBothFoundTheBehaviorUnloadedCreateOneInstance) {
  startPlatform(true, true, false);
  gated = std::make_unique<GatedFrameManager>(broker);
  startManager();
  ASSERT_TRUE(manager->loadBehavior("idle"));
  gated->closeExits();
  spawn([this] { manager->xUnloadBehavior("idle"); });
  ASSERT_TRUE(gated->waitExitHeld());  // the registry lock is taken now

  bool loaded[2] = {false, false};
  std::string errors[2];
  for (int i = 0; i < 2; ++i) {
    spawn([this, i, &loaded, &errors] {
      try {
        loaded[i] = manager->loadBehavior("wave");
      } catch (const ZR::ZRError& error) {
        errors[i] = error.description();
      }
    });
  }
  // Both loads have read the state and queue for the lock.
  ASSERT_TRUE(eventually([this] { return manager->xRegistryLockWaiters() == 2; }));
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
  gated->openExits();
  joinAll();
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(loaded[i]) << i << ": " << errors[i];
  }
  EXPECT_EQ(gated->instancesOf("wave"), 1);
  EXPECT_EQ(manager->behaviorState("wave"), StateLoaded);
  manager->xUnloadBehavior("wave");
  EXPECT_EQ(gated->instancesOf("wave"), 0) << "an instance the registry had lost";
}

// A load waiting for a run's clean-up must not insist on seeing "unloaded" itself: a
// system behavior, or another caller's load, may be loading or loaded again before the
// woken wait looks.
TEST_F(Races, ALoadWaitingForAnUnloadAcceptsABehaviorLoadedAgainMeanwhile) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("wave"));
  manager->setBehaviorState("wave", StateUnloading);  // a run that has just ended
  WaitingCall<std::string> load = startWaiting([this] {
    try {
      return std::string(manager->loadBehavior("wave") ? "" : "returned false");
    } catch (const ZR::ZRError& error) {
      return error.description();
    }
  });
  ASSERT_TRUE(load.watch.waitUntilBlocked());  // the load waits for the clean-up
  manager->xUnloadBehavior("wave");
  manager->loadBehavior("wave");  // at once, as the reload of a system behavior does
  ASSERT_TRUE(load.returned()) << "waited for an \"unloaded\" that had passed";
  EXPECT_EQ(load.result.get(), "");
  EXPECT_EQ(manager->behaviorState("wave"), StateLoaded);
  EXPECT_EQ(fake->count("newBehaviorFromFile"), 2);  // the first load and the reload
  EXPECT_EQ(fake->instances(), Names{manager->getBehaviorFrameManagerId("wave")});
}

// The same for a stop that finds the run cleaning up.
TEST_F(Races, AStopOfAnUnloadingBehaviorAcceptsABehaviorLoadedAgainMeanwhile) {
  startFake();
  ASSERT_TRUE(manager->loadBehavior("idle"));
  manager->setBehaviorState("idle", StateUnloading);
  WaitingCall<std::string> stop = startWaiting([this] {
    try {
      manager->stopBehavior("idle");
      return std::string();
    } catch (const ZR::ZRError& error) {
      return error.description();
    }
  });
  ASSERT_TRUE(stop.watch.waitUntilBlocked());  // the stop waits for the clean-up
  manager->xUnloadBehavior("idle");
  manager->loadBehavior("idle");
  ASSERT_TRUE(stop.returned()) << "waited for an \"unloaded\" that had passed";
  EXPECT_EQ(stop.result.get(), "");
  EXPECT_EQ(manager->behaviorState("idle"), StateLoaded);
}

}  // namespace
}  // namespace bmtest
