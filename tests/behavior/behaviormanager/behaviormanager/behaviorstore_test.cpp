// The user library: replacing it with setBehaviorsPath, the module's connections to its
// notifications, and the names behavior directories go by.
#include <boost/bind/bind.hpp>

#include "fixture.h"

namespace bmtest {
namespace {

using ZR::BehaviorManager::StateUnknown;
using ZR::BehaviorManager::StateUnloaded;

const char* const kAdded = "ZRBehaviorManager/BehaviorAdded";
const char* const kUpdated = "ZRBehaviorManager/BehaviorUpdated";
const char* const kRemoved = "ZRBehaviorManager/BehaviorRemoved";

const char* const kUntilStopped =
    "<behavior>\n  <repeat>\n    <wait ms=\"60000\"/>\n  </repeat>\n</behavior>\n";

// "key value" for a string event, "key [a,b]" for a list.
std::string describe(const EventRecorder::Event& event) {
  if (event.second.size() > 0 || event.first == "BehaviorsRun") {
    std::string text = event.first + " [";
    const std::vector<std::string> names = event.second.toStringVector();
    for (std::size_t i = 0; i < names.size(); ++i) text += (i ? "," : "") + names[i];
    return text + "]";
  }
  return event.first + " " + event.second.toString();
}

std::vector<std::string> describeAll(const std::vector<EventRecorder::Event>& events) {
  std::vector<std::string> texts;
  for (const EventRecorder::Event& event : events) texts.push_back(describe(event));
  return texts;
}

std::vector<std::string> stringsOf(const std::vector<ZR::ZRValue>& values) {
  std::vector<std::string> strings;
  for (const ZR::ZRValue& value : values) strings.push_back(value.toString());
  return strings;
}

class BehaviorStore : public ManagerTest {
protected:
  fs::path prefix() const { return systemRoot().parent_path().parent_path().parent_path(); }
};

// ---- setBehaviorsPath

TEST_F(BehaviorStore, SamePathStopsAllThenRemovesEveryBehaviorThenAddsEveryOneAscending) {
  makeBehavior(userRoot() / "b");
  makeBehavior(userRoot() / "idle", kUntilStopped);
  makeBehavior(userRoot() / "dir" / "sub");
  makeBehavior(userRoot() / "a");
  startPlatform();
  startManager();
  EXPECT_EQ(stringsOf(events->valuesOf(kAdded)),
            (std::vector<std::string>{"a", "b", "dir/sub", "idle"}));

  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue("idle"));
  const int run = broker->post("ZRBehaviorManager", "runBehavior", args);
  ASSERT_TRUE(events->waitFor(
      [](const EventRecorder::Event& e) { return describe(e) == "BehaviorsRun [idle]"; }, 20000));
  events->clear();

  manager->setBehaviorsPath(userRoot().string());

  EXPECT_EQ(
      describeAll(events->drain()),
      (std::vector<std::string>{"BehaviorsRun []",  // the run was stopped first
                                std::string(kRemoved) + " a", std::string(kRemoved) + " b",
                                std::string(kRemoved) + " dir/sub", std::string(kRemoved) + " idle",
                                std::string(kAdded) + " a", std::string(kAdded) + " b",
                                std::string(kAdded) + " dir/sub", std::string(kAdded) + " idle"}));
  EXPECT_TRUE(broker->waitTask(run, 20000));
  EXPECT_TRUE(manager->getRunningBehaviors().empty());
  EXPECT_TRUE(manager->getLoadedBehaviors().empty());
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
  EXPECT_EQ(manager->behaviorState("idle"), StateUnloaded);
  EXPECT_EQ(manager->getInstalledBehaviors(),
            (std::vector<std::string>{"a", "b", "dir/sub", "idle"}));
}

TEST_F(BehaviorStore, AnotherPathRetiresTheOldLibraryAndAnnouncesTheNewOne) {
  makeBehavior(userRoot() / "old2");
  makeBehavior(userRoot() / "old1");
  const fs::path other = home() / "other";
  makeBehavior(other / "x" / "y");
  makeBehavior(other / "new");
  startPlatform();
  startManager();
  ASSERT_TRUE(manager->loadBehavior("old1"));
  ASSERT_EQ(manager->getLoadedBehaviors(), std::vector<std::string>{"old1"});
  events->clear();

  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue(other.string()));
  broker->call("ZRBehaviorManager", "_setBehaviorsPath", args);  // the remote form

  EXPECT_EQ(
      describeAll(events->drain()),
      (std::vector<std::string>{std::string(kRemoved) + " old1", std::string(kRemoved) + " old2",
                                std::string(kAdded) + " new", std::string(kAdded) + " x/y"}));
  EXPECT_TRUE(manager->getLoadedBehaviors().empty());
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
  EXPECT_EQ(manager->behaviorState("old1"), StateUnknown);
  EXPECT_EQ(manager->behaviorState("new"), StateUnloaded);
  EXPECT_EQ(manager->getInstalledBehaviors(), (std::vector<std::string>{"new", "x/y"}));
  EXPECT_EQ(manager->xUserLibrary().projectPath(), other.string());
  EXPECT_TRUE(fs::exists(userRoot() / "old1" / "behavior.xar"));  // nothing deleted on disk
}

TEST_F(BehaviorStore, PathThatDoesNotExistIsTakenAndListsNothing) {
  makeBehavior(userRoot() / "dance");
  startPlatform();
  startManager();
  events->clear();
  logs->clear();
  const fs::path missing = home() / "nowhere" / "behaviors";

  manager->setBehaviorsPath(missing.string());

  EXPECT_EQ(describeAll(events->drain()),
            std::vector<std::string>{std::string(kRemoved) + " dance"});
  EXPECT_TRUE(manager->getInstalledBehaviors().empty());
  EXPECT_FALSE(fs::exists(home() / "nowhere"));
  EXPECT_TRUE(logs->messages().empty());
}

TEST_F(BehaviorStore, CalledTwiceLeavesOneConnectionPerHandlerAndAnInstallRaisesOneEvent) {
  makeBehavior(userRoot() / "dance");
  const fs::path source = uploads() / "wave";
  makeBehavior(source);
  startPlatform();
  startManager();
  vu::project::BehaviorLibraryProject& library = manager->xUserLibrary();
  EXPECT_EQ(library.behaviorAdded.num_slots(), 1u);
  EXPECT_EQ(library.behaviorUpdated.num_slots(), 1u);
  EXPECT_EQ(library.behaviorRemoved.num_slots(), 1u);

  manager->setBehaviorsPath(userRoot().string());
  manager->setBehaviorsPath(userRoot().string());
  EXPECT_EQ(library.behaviorAdded.num_slots(), 1u);
  EXPECT_EQ(library.behaviorUpdated.num_slots(), 1u);
  EXPECT_EQ(library.behaviorRemoved.num_slots(), 1u);
  events->clear();

  ASSERT_TRUE(manager->installBehavior(source.string(), "greetings/wave", false));
  EXPECT_EQ(describeAll(events->drain()),
            std::vector<std::string>{std::string(kAdded) + " greetings/wave"});
  EXPECT_EQ(manager->behaviorState("greetings/wave"), StateUnloaded);
  events->clear();

  ASSERT_TRUE(manager->installBehavior(source.string(), "greetings/wave", true));
  EXPECT_EQ(describeAll(events->drain()),
            std::vector<std::string>{std::string(kUpdated) + " greetings/wave"});
  events->clear();

  ASSERT_TRUE(library.removeBehavior("greetings/wave"));
  EXPECT_EQ(describeAll(events->drain()),
            std::vector<std::string>{std::string(kRemoved) + " greetings/wave"});
  EXPECT_EQ(manager->behaviorState("greetings/wave"), StateUnknown);
}

TEST_F(BehaviorStore, SlotsConnectedByOthersSurviveSetBehaviorsPath) {
  const fs::path source = uploads() / "wave";
  makeBehavior(source);
  startPlatform();
  startManager();
  vu::project::BehaviorLibraryProject& library = manager->xUserLibrary();
  std::vector<std::string> seen;
  library.behaviorAdded.connect([&seen](const std::string& path) { seen.push_back(path); });
  // The module's own handler, bound to another object: not the module's connection.
  alignas(ZRBehaviorManager) static char otherObject[sizeof(ZRBehaviorManager)];
  ZRBehaviorManager* other = reinterpret_cast<ZRBehaviorManager*>(otherObject);
  const boost::signals2::connection foreign = library.behaviorUpdated.connect(
      boost::bind(&ZRBehaviorManager::onBehaviorUpdated, other, boost::placeholders::_1));

  manager->setBehaviorsPath((home() / "second").string());
  manager->setBehaviorsPath(userRoot().string());

  EXPECT_EQ(library.behaviorAdded.num_slots(), 2u);
  EXPECT_EQ(library.behaviorUpdated.num_slots(), 2u);
  EXPECT_EQ(library.behaviorRemoved.num_slots(), 1u);
  EXPECT_TRUE(foreign.connected());
  foreign.disconnect();  // the other object does not exist: it must never be called
  events->clear();

  ASSERT_TRUE(manager->installBehavior(source.string(), "wave", false));
  EXPECT_EQ(seen, std::vector<std::string>{"wave"});
  EXPECT_EQ(describeAll(events->drain()), std::vector<std::string>{std::string(kAdded) + " wave"});
}

// ---- names

TEST_F(BehaviorStore, DirectoriesAreNamedByTheLibraryTheyLieIn) {
  makeBehavior(userRoot() / "dance");
  makeBehavior(userRoot() / "dir" / "sub");
  makeResource(userRoot() / "sounds");
  fs::create_directories(userRoot() / "empty");
  makeBehavior(systemRoot() / "dance");
  makeBehavior(systemRoot() / "animations" / "wave");
  makeBehavior(home() / "elsewhere" / "jump");
  startPlatform();
  startManager();

  EXPECT_EQ(manager->xBehaviorNameFromPath(userRoot() / "dance"), "dance");
  EXPECT_EQ(manager->xBehaviorNameFromPath(userRoot() / "dir" / "sub"), "dir/sub");
  EXPECT_EQ(manager->xBehaviorNameFromPath(systemRoot() / "dance"), "System/dance");
  EXPECT_EQ(manager->xBehaviorNameFromPath(systemRoot() / "animations" / "wave"),
            "System/animations/wave");
  // Not behaviors: a resource, a plain directory, a directory holding behaviors, nothing.
  EXPECT_EQ(manager->xBehaviorNameFromPath(userRoot() / "sounds"), "");
  EXPECT_EQ(manager->xBehaviorNameFromPath(userRoot() / "empty"), "");
  EXPECT_EQ(manager->xBehaviorNameFromPath(userRoot() / "dir"), "");
  EXPECT_EQ(manager->xBehaviorNameFromPath(userRoot() / "missing"), "");
  // A behavior outside both libraries has no name either.
  EXPECT_EQ(manager->xBehaviorNameFromPath(home() / "elsewhere" / "jump"), "");
}

TEST_F(BehaviorStore, NormalizeLocalPathGivesTheCanonicalName) {
  makeBehavior(userRoot() / "dance");
  makeBehavior(userRoot() / "dir" / "sub");
  makeBehavior(userRoot() / "both");
  makeBehavior(systemRoot() / "stand");
  makeBehavior(systemRoot() / "both");
  startPlatform();
  startManager();

  EXPECT_EQ(manager->xNormalizeLocalPath("dance"), "dance");
  EXPECT_EQ(manager->xNormalizeLocalPath("User/dance"), "dance");
  EXPECT_EQ(manager->xNormalizeLocalPath("User/dir/sub"), "dir/sub");
  EXPECT_EQ(manager->xNormalizeLocalPath("System/stand"), "System/stand");
  EXPECT_EQ(manager->xNormalizeLocalPath("stand"), "System/stand");
  EXPECT_EQ(manager->xNormalizeLocalPath("both"), "System/both");
  EXPECT_EQ(manager->xNormalizeLocalPath("User/both"), "both");
  EXPECT_EQ(manager->xNormalizeLocalPath("unknown"), "");
  EXPECT_EQ(manager->xNormalizeLocalPath("System/unknown"), "");
  EXPECT_EQ(manager->xNormalizeLocalPath(""), "");
}

TEST_F(BehaviorStore, SystemRootNestedInTheUserRootNamesItsBehaviorsAsSystemOnes) {
  makeBehavior(systemRoot() / "dance");
  makeBehavior(prefix() / "mine");
  startPlatform();
  startManager();
  events->clear();

  manager->setBehaviorsPath(prefix().string());  // the user root now holds the system root

  EXPECT_EQ(manager->getInstalledBehaviors(),
            (std::vector<std::string>{"mine", "share/tuqvu/behaviors/dance"}));
  EXPECT_EQ(manager->xBehaviorNameFromPath(systemRoot() / "dance"), "System/dance");
  EXPECT_EQ(manager->xBehaviorNameFromPath(prefix() / "mine"), "mine");
  EXPECT_EQ(manager->xNormalizeLocalPath("User/share/tuqvu/behaviors/dance"), "System/dance");
  // The notifications carry the library's own paths, not names.
  EXPECT_EQ(stringsOf(events->valuesOf(kAdded)),
            (std::vector<std::string>{"mine", "share/tuqvu/behaviors/dance"}));
}

TEST_F(BehaviorStore, UserRootNestedInTheSystemRootNamesItsBehaviorsAsSystemOnes) {
  makeBehavior(systemRoot() / "stand");
  makeBehavior(systemRoot() / "users" / "jump");
  startPlatform();
  startManager();

  manager->setBehaviorsPath((systemRoot() / "users").string());

  EXPECT_EQ(manager->getInstalledBehaviors(), std::vector<std::string>{"jump"});
  EXPECT_EQ(manager->xBehaviorNameFromPath(systemRoot() / "users" / "jump"), "System/users/jump");
  EXPECT_EQ(manager->xNormalizeLocalPath("User/jump"), "System/users/jump");
  EXPECT_EQ(manager->xBehaviorNameFromPath(systemRoot() / "stand"), "System/stand");
}

}  // namespace
}  // namespace bmtest
