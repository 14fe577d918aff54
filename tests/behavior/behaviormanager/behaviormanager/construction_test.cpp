// Construction of the module: the user behaviors directory (created, used as it is, or
// impossible to create), and a memory module that refuses the subscription or some of the
// event declarations.
#include <vu/project/project.h>
#include <zr/zrerror.h>
#include <zr/zrtypes.h>

#include <boost/make_shared.hpp>
#include <mutex>
#include <set>
#include <stdexcept>

#include "fixture.h"

namespace bmtest {
namespace {

using ZR::BehaviorManager::StateUnknown;
using ZR::BehaviorManager::StateUnloaded;

const char* const kSubscribeMessage =
    "Could not subscribe to the TUQvuReady event. The BehaviorManager is not started properly.";

std::string declareMessage(const std::string& key) {
  return "Could not declare the " + key + " event. The BehaviorManager is not started properly.";
}

// Every file and directory below root, relative to it.
std::set<std::string> tree(const fs::path& root) {
  std::set<std::string> entries;
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    entries.insert(fs::relative(it->path(), root).string());
  }
  return entries;
}

std::vector<std::string> stringsOf(const std::vector<ZR::ZRValue>& values) {
  std::vector<std::string> strings;
  for (const ZR::ZRValue& value : values) strings.push_back(value.toString());
  return strings;
}

// ---- the user behaviors directory

class Construction : public ManagerTest {};

TEST_F(Construction, MissingUserDirectoryIsCreatedMadeALibraryAndUsed) {
  ASSERT_FALSE(fs::exists(home() / ".tuqvu"));
  startPlatform();
  startManager();

  ASSERT_TRUE(fs::is_directory(userRoot()));
  EXPECT_EQ(vu::project::Project(userRoot().string()).getMetadata("Type"), "BehaviorLibrary");
  EXPECT_EQ(tree(userRoot()), (std::set<std::string>{"project.xml"}));
  EXPECT_TRUE(logs->withText("Could not create behaviors path " + userRoot().string() +
                             " for the Behavior Manager.")
                  .empty());

  // The new directory is the user library: what lands there is installed.
  EXPECT_TRUE(manager->getInstalledBehaviors().empty());
  makeBehavior(userRoot() / "dance");
  EXPECT_EQ(manager->getInstalledBehaviors(), std::vector<std::string>{"dance"});
  EXPECT_EQ(manager->xFindBehavior("dance"), userRoot() / "dance");
  EXPECT_EQ(manager->xUserLibrary().projectPath(), userRoot().string());
}

TEST_F(Construction, ExistingUserDirectoryIsUsedAsItIs) {
  makeBehavior(userRoot() / "wave");
  makeBehavior(userRoot() / "dance");
  makeBehavior(userRoot() / "dir" / "sub");
  fs::remove(userRoot() / "dance" / "project.xml");
  const std::set<std::string> before = tree(home());
  startPlatform();
  startManager();

  EXPECT_EQ(tree(home()), before);  // nothing created, no project.xml written at the root
  EXPECT_FALSE(fs::exists(userRoot() / "project.xml"));
  EXPECT_EQ(manager->getInstalledBehaviors(),
            (std::vector<std::string>{"dance", "dir/sub", "wave"}));
  // Announced as a remote subscriber sees it, in ascending order, each one unloaded.
  EXPECT_EQ(stringsOf(events->valuesOf("ZRBehaviorManager/BehaviorAdded")),
            (std::vector<std::string>{"dance", "dir/sub", "wave"}));
  EXPECT_EQ(manager->behaviorState("dance"), StateUnloaded);
  EXPECT_EQ(manager->behaviorState("dir/sub"), StateUnloaded);
  EXPECT_EQ(manager->behaviorState("wave"), StateUnloaded);
  EXPECT_EQ(logs->count(3, "behavior.manager", "ZRBehaviorManager",
                        "Could not create behaviors path " + userRoot().string() +
                            " for the Behavior Manager."),
            0);
}

TEST_F(Construction, UserDirectoryThatCannotBeCreatedIsLoggedAndLeftEmpty) {
  writeFile(home() / ".tuqvu", "a file where the directory should be\n");
  makeBehavior(systemRoot() / "dance");
  startPlatform();
  startManager();

  const std::string text =
      "Could not create behaviors path " + userRoot().string() + " for the Behavior Manager.";
  EXPECT_EQ(logs->count(3, "behavior.manager", "ZRBehaviorManager", text), 1);
  EXPECT_EQ(logs->withText(text).size(), 1u);
  EXPECT_TRUE(fs::is_regular_file(home() / ".tuqvu"));

  // Still registered with its whole table; the user library keeps its empty path.
  EXPECT_TRUE(broker->hasModule("ZRBehaviorManager"));
  EXPECT_EQ(broker->getMethods("ZRBehaviorManager").size(), 26u);
  EXPECT_EQ(manager->xUserLibrary().projectPath(), "");
  EXPECT_TRUE(manager->getInstalledBehaviors().empty());
  EXPECT_TRUE(events->valuesOf("ZRBehaviorManager/BehaviorAdded").empty());
  EXPECT_EQ(manager->getSystemBehaviorNames(), std::vector<std::string>{"System/dance"});
  EXPECT_EQ(manager->xFindBehavior("System/dance"), systemRoot() / "dance");

  // An empty user root is a prefix of every name: a bare name is taken for an absolute
  // path into the user library, which holds nothing.
  logs->clear();
  EXPECT_EQ(manager->xFindBehavior("dance"), fs::path());
  EXPECT_EQ(logs->count(3, "behavior.manager", "xFindBehavior",
                        "Passing absolute paths to ZRBehaviorManager is deprecated. Please only "
                        "use local paths."),
            1);
}

// ---- destruction that cannot reach the frame manager

TEST_F(Construction, DestructionLogsEachUnloadThatFailsAndGoesOn) {
  makeBehavior(systemRoot() / "wave");
  makeBehavior(systemRoot() / "stand");
  startPlatform();
  startManager();
  ASSERT_TRUE(manager->loadBehavior("System/wave"));
  ASSERT_TRUE(manager->loadBehavior("System/stand"));
  ASSERT_EQ(frameManager->getBehaviorInstances().size(), 2u);
  logs->clear();

  // From now on the broker refuses calls between modules, as it does on its way down.
  ASSERT_TRUE(broker->shutdown(0));
  stopManager();  // must neither throw nor terminate

  EXPECT_FALSE(broker->hasModule("ZRBehaviorManager"));
  std::vector<std::string> failures;
  for (const vu::log::Message& message : logs->messages()) {
    if (message.function == "~ZRBehaviorManager") {
      EXPECT_EQ(message.level, 2);
      EXPECT_EQ(message.category, "behavior.manager");
      failures.push_back(message.text.substr(0, message.text.find(": ")));
    }
  }
  // Each loaded behavior was still attempted, in name order.
  EXPECT_EQ(failures, (std::vector<std::string>{
                          "Could not unload behavior System/stand while shutting down",
                          "Could not unload behavior System/wave while shutting down"}));
}

// ---- a memory module that refuses some calls

// Stands in for "ZRMemory": forwards every call to a real memory module registered under
// another name, except the refused ones, and records every attempt in order.
class RefusingMemory : public ZR::ZRModule {
public:
  RefusingMemory(boost::shared_ptr<ZR::ZRBroker> broker, std::string target,
                 std::set<std::string> refusedDeclarations, bool refuseReadySubscription)
      : ZR::ZRModule(broker, "ZRMemory"),
        fTarget(std::move(target)),
        fRefusedDeclarations(std::move(refusedDeclarations)),
        fRefuseReadySubscription(refuseReadySubscription) {
    const std::string s = ZR::getTypeString(ZR::TypeCodeString);
    const std::string v = ZR::getTypeString(ZR::TypeCodeValue);
    forward("declareEvent", {s});
    forward("raiseMicroEvent", {s, v});
    forward("insertData", {s, v});
    forward("getData", {s});
    forward("subscribeToMicroEvent", {s, s, s, s});
    forward("unsubscribeToMicroEvent", {s, s});
  }

  std::vector<std::string> attempts() {
    std::lock_guard<std::mutex> lock(fMutex);
    return fAttempts;
  }

private:
  void forward(const std::string& method, const std::vector<std::string>& types) {
    functionName(method, getName(), "forwarded", 0);
    for (std::size_t i = 0; i < types.size(); ++i) addParam("p" + std::to_string(i), "");
    for (std::size_t i = 0; i < types.size(); ++i) {
      getCurrentMethodDescription().parameters[i].type = types[i];
    }
    getCurrentMethodDescription().returnType = ZR::getTypeString(ZR::TypeCodeValue);
    bindMethod(boost::make_shared<ZR::ZRCallableFunctor>([this, method](const ZR::ZRValue& args,
                                                                        ZR::ZRValue& result) {
      const std::string key = args[0].toString();
      if (method != "raiseMicroEvent") {
        std::lock_guard<std::mutex> lock(fMutex);
        fAttempts.push_back(method + " " + key);
      }
      if (method == "subscribeToMicroEvent" && fRefuseReadySubscription && key == "TUQvuReady") {
        throw std::runtime_error("subscriptions are refused");  // not even a ZRError
      }
      if (method == "declareEvent" && fRefusedDeclarations.count(key) != 0) {
        throw ZR::ZRError("ZRMemory", "declareEvent", "declarations are refused", __FILE__,
                          __LINE__);
      }
      result = getParentBroker()->call(fTarget, method, args);
    }));
  }

  const std::string fTarget;
  const std::set<std::string> fRefusedDeclarations;
  const bool fRefuseReadySubscription;
  std::mutex fMutex;  // guards fAttempts
  std::vector<std::string> fAttempts;
};

class RefusedByMemory : public ManagerTest {
protected:
  void start(std::set<std::string> refusedDeclarations, bool refuseReadySubscription) {
    startPlatform(false, true, true);
    realMemory = std::make_unique<ZR::ZRMemory>(broker, "RealMemory");
    refusing = std::make_unique<RefusingMemory>(
        broker, "RealMemory", std::move(refusedDeclarations), refuseReadySubscription);
    events = std::make_unique<EventRecorder>(broker, managerEventKeys());
    makeBehavior(userRoot() / "dance");
    logs->clear();
    startManager();
  }

  // Only what the manager attempted: the recorder's own subscriptions come first.
  std::vector<std::string> managerAttempts() {
    std::vector<std::string> all = refusing->attempts();
    const std::size_t recorder = managerEventKeys().size() + 1;
    EXPECT_GE(all.size(), recorder);
    return std::vector<std::string>(all.begin() + static_cast<long>(recorder), all.end());
  }

  void TearDown() override {
    stopManager();
    realMemory->flushNotifications(10000);  // the recorder must not go while it delivers
    events.reset();
    refusing.reset();
    realMemory.reset();
    ManagerTest::TearDown();
  }

  std::unique_ptr<ZR::ZRMemory> realMemory;
  std::unique_ptr<RefusingMemory> refusing;
};

const std::vector<std::string> kEveryAttempt = {
    "subscribeToMicroEvent TUQvuReady",
    "declareEvent BehaviorsRun",
    "declareEvent ZRBehaviorManager/BehaviorAdded",
    "declareEvent ZRBehaviorManager/BehaviorUpdated",
    "declareEvent ZRBehaviorManager/BehaviorRemoved",
};

TEST_F(RefusedByMemory, RefusedSubscriptionIsLoggedOnceAndTheEventsAreStillDeclared) {
  start({}, true);

  EXPECT_EQ(managerAttempts(), kEveryAttempt);
  EXPECT_EQ(logs->count(2, "behaviormanager", "ZRBehaviorManager", kSubscribeMessage), 1);
  EXPECT_EQ(logs->withText(kSubscribeMessage).size(), 1u);
  for (const char* key :
       {"BehaviorsRun", "ZRBehaviorManager/BehaviorAdded", "ZRBehaviorManager/BehaviorUpdated",
        "ZRBehaviorManager/BehaviorRemoved"}) {
    EXPECT_TRUE(logs->withText(declareMessage(key)).empty()) << key;
  }
  EXPECT_EQ(realMemory->getEventList(),
            (std::vector<std::string>{"BehaviorsRun", "ZRBehaviorManager/BehaviorAdded",
                                      "ZRBehaviorManager/BehaviorRemoved",
                                      "ZRBehaviorManager/BehaviorUpdated"}));

  // The module is up: it chose its directory, announced what it holds, and answers.
  EXPECT_EQ(stringsOf(events->valuesOf("ZRBehaviorManager/BehaviorAdded")),
            std::vector<std::string>{"dance"});
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue("dance"));
  EXPECT_TRUE(broker->call("ZRBehaviorManager", "isBehaviorInstalled", args).toBool());
}

TEST_F(RefusedByMemory, EachRefusedDeclarationLogsItsKeyAndTheFollowingOnesAreAttempted) {
  start({"BehaviorsRun", "ZRBehaviorManager/BehaviorUpdated"}, false);

  EXPECT_EQ(managerAttempts(), kEveryAttempt);
  EXPECT_EQ(logs->count(2, "behaviormanager", "ZRBehaviorManager", declareMessage("BehaviorsRun")),
            1);
  EXPECT_EQ(logs->count(2, "behaviormanager", "ZRBehaviorManager",
                        declareMessage("ZRBehaviorManager/BehaviorUpdated")),
            1);
  EXPECT_TRUE(logs->withText(declareMessage("ZRBehaviorManager/BehaviorAdded")).empty());
  EXPECT_TRUE(logs->withText(declareMessage("ZRBehaviorManager/BehaviorRemoved")).empty());
  EXPECT_TRUE(logs->withText(kSubscribeMessage).empty());
  int constructorErrors = 0;
  for (const vu::log::Message& message : logs->messages()) {
    if (message.category == "behaviormanager") ++constructorErrors;
  }
  EXPECT_EQ(constructorErrors, 2);
  EXPECT_EQ(realMemory->getEventList(),
            (std::vector<std::string>{"ZRBehaviorManager/BehaviorAdded",
                                      "ZRBehaviorManager/BehaviorRemoved"}));
  EXPECT_EQ(stringsOf(events->valuesOf("ZRBehaviorManager/BehaviorAdded")),
            std::vector<std::string>{"dance"});
}

}  // namespace
}  // namespace bmtest
