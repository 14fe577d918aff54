// The default behaviors: the preference file's shape, adding and removing names, reading
// what others wrote, and the start of the defaults when "TUQvuReady" is announced.
#include <sys/stat.h>
#include <zr/proxies/zrmemoryproxy.h>
#include <zr/proxies/zrpreferencesproxy.h>
#include <zr/zrbinding.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <condition_variable>
#include <thread>

#include "fixture.h"
#include "interposer.h"

namespace bmtest {
namespace {

const char* const kDescription = "List of default behaviors separated by endlines";

// A module whose method "enter" records the names it is given, in call order. A behavior
// whose first step calls it tells when its run began.
class Gate : public ZR::ZRModule {
public:
  explicit Gate(boost::shared_ptr<ZR::ZRBroker> broker) : ZR::ZRModule(broker, "Gate") {
    ZR::bindCallable(*this, {"enter", "records a name", {{"name", ZR::TypeCodeString}}},
                     ([this](const ZR::ZRValue& args, ZR::ZRValue&) {
                       std::lock_guard<std::mutex> lock(fMutex);
                       fEntered.push_back(args[0].toString());
                       fChanged.notify_all();
                     }));
  }
  std::vector<std::string> entered() {
    std::lock_guard<std::mutex> lock(fMutex);
    return fEntered;
  }
  bool waitFor(const std::string& name, int timeoutMs) {
    std::unique_lock<std::mutex> lock(fMutex);
    return fChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
      return std::find(fEntered.begin(), fEntered.end(), name) != fEntered.end();
    });
  }

private:
  std::mutex fMutex;  // guards fEntered
  std::condition_variable fChanged;
  std::vector<std::string> fEntered;
};

// A behavior whose run first tells the gate its name.
std::string gateBehavior(const std::string& name) {
  return "<behavior><call module=\"Gate\" method=\"enter\"><arg type=\"string\" value=\"" + name +
         "\"/></call></behavior>";
}

ZR::ZRValue defaultsFile(const std::string& value) {
  ZR::ZRValue entry = ZR::ZRValue::array();
  entry.arrayPush(ZR::ZRValue("DefaultBehaviors"));
  entry.arrayPush(ZR::ZRValue(kDescription));
  entry.arrayPush(ZR::ZRValue(value));
  ZR::ZRValue file = ZR::ZRValue::array();
  file.arrayPush(entry);
  return file;
}

class Defaults : public ManagerTest {
protected:
  void start() {
    startPlatform();
    gate = std::make_unique<Gate>(broker);
    startManager();
    events->clear();
    logs->clear();
  }

  ZR::ZRPreferencesProxy prefs() { return ZR::ZRPreferencesProxy(broker); }
  ZR::ZRValue readFile() { return prefs().readPrefFile("DefaultBehaviors", false); }
  void writeDefaults(const std::string& value) {
    prefs().writePrefFile("DefaultBehaviors", defaultsFile(value), true);
  }
  fs::path preferenceFile() { return preferences->prefFilePath("DefaultBehaviors"); }
  ino_t inode() {
    struct stat info;
    EXPECT_EQ(::stat(preferenceFile().c_str(), &info), 0);
    return info.st_ino;
  }

  void call(const std::string& method, const std::string& argument) {
    ZR::ZRValue args = ZR::ZRValue::array();
    args.arrayPush(ZR::ZRValue(argument));
    broker->call("ZRBehaviorManager", method, args);
  }
  std::vector<std::string> remoteDefaults() {
    return broker->call("ZRBehaviorManager", "getDefaultBehaviors", ZR::ZRValue::array())
        .toStringVector();
  }

  std::vector<vu::log::Message> readLogs() {
    std::vector<vu::log::Message> found;
    for (const vu::log::Message& message : logs->messages()) {
      if (message.function == "xReadDefaultBehaviors") found.push_back(message);
    }
    return found;
  }

  // The id the broker gives to the next posted task; posts a task that does nothing.
  int nextTaskId() {
    return broker->postTask("Gate", [] {});
  }

  // Announces "TUQvuReady" through the memory module (inserted, or raised as an event)
  // and waits until the manager has handled it and the runs it posted have ended.
  // Returns how many runs were posted.
  int announceReady(const ZR::ZRValue& value, bool raise = false) {
    const int before = nextTaskId();
    if (raise) {
      ZR::ZRMemoryProxy(broker).raiseMicroEvent("TUQvuReady", value);
    } else {
      ZR::ZRMemoryProxy(broker).insertData("TUQvuReady", value);
    }
    events->drain();  // delivered after the manager's own notification
    const int after = nextTaskId();
    for (int id = before + 1; id < after; ++id) EXPECT_TRUE(broker->waitTask(id, 20000));
    return after - before - 1;
  }

  std::unique_ptr<Gate> gate;
};

// ---- the file

TEST_F(Defaults, FileIsOneEntryOfThreeStringsWithEveryNameFollowedByALineFeed) {
  makeBehavior(userRoot() / "b");
  makeBehavior(userRoot() / "a");
  makeBehavior(userRoot() / "dir" / "c");
  start();
  call("addDefaultBehavior", "b");
  call("addDefaultBehavior", "dir/c");
  call("addDefaultBehavior", "a");

  const ZR::ZRValue file = readFile();
  ASSERT_TRUE(file.isArray());
  ASSERT_EQ(file.size(), 1u);
  ASSERT_EQ(file[0].size(), 3u);
  EXPECT_EQ(file[0][0].toString(), "DefaultBehaviors");
  EXPECT_EQ(file[0][1].toString(), kDescription);
  EXPECT_EQ(file[0][2].toString(), "a\nb\ndir/c\n");
  EXPECT_EQ(file, defaultsFile("a\nb\ndir/c\n"));
  EXPECT_EQ(remoteDefaults(), (std::vector<std::string>{"a", "b", "dir/c"}));
  EXPECT_EQ(readLogs().size(), 1u);  // only the first addition found no file
}

TEST_F(Defaults, AddingTwiceStoresOnceAndStillRewritesTheFile) {
  makeBehavior(userRoot() / "wave");
  start();
  call("addDefaultBehavior", "wave");
  const ino_t first = inode();
  call("addDefaultBehavior", "wave");
  EXPECT_EQ(readFile(), defaultsFile("wave\n"));
  EXPECT_NE(inode(), first);  // written again (the preferences module replaces the file)
}

TEST_F(Defaults, NamesAreStoredInTheirNormalisedForm) {
  makeBehavior(userRoot() / "dance");
  makeBehavior(systemRoot() / "sit");
  start();
  call("addDefaultBehavior", "User/dance");
  call("addDefaultBehavior", "sit");
  call("addDefaultBehavior", (userRoot() / "dance").string());  // deprecated absolute form
  EXPECT_EQ(readFile(), defaultsFile("System/sit\ndance\n"));
  EXPECT_EQ(remoteDefaults(), (std::vector<std::string>{"System/sit", "dance"}));
  EXPECT_TRUE(manager->xIsDefaultBehavior("dance"));
  EXPECT_FALSE(manager->xIsDefaultBehavior("User/dance"));  // compared as given
  EXPECT_FALSE(manager->xIsDefaultBehavior("sit"));

  // Removal tries the name as given, then its normalised form.
  call("removeDefaultBehavior", "User/dance");
  EXPECT_EQ(readFile(), defaultsFile("System/sit\n"));
  call("removeDefaultBehavior", "System/sit");
  EXPECT_EQ(readFile(), defaultsFile(""));
}

TEST_F(Defaults, ChangesMadeAtOnceFromManyCallersAreAllKept) {
  // Eight callers each add six behaviors and take three of them off again, at the same
  // time: every change survives, none overwrites another's.
  constexpr int kCallers = 8, kEach = 6;
  const auto name = [](int caller, int i) {
    return "c" + std::to_string(caller) + "-" + std::to_string(i);
  };
  for (int c = 0; c < kCallers; ++c) {
    for (int i = 0; i < kEach; ++i) makeBehavior(userRoot() / name(c, i));
  }
  start();
  std::vector<std::thread> callers;
  for (int c = 0; c < kCallers; ++c) {
    callers.emplace_back([&, c] {
      for (int i = 0; i < kEach; ++i) call("addDefaultBehavior", name(c, i));
      for (int i = 0; i < kEach; i += 2) call("removeDefaultBehavior", name(c, i));
    });
  }
  for (std::thread& caller : callers) caller.join();

  std::vector<std::string> expected;
  for (int c = 0; c < kCallers; ++c) {
    for (int i = 1; i < kEach; i += 2) expected.push_back(name(c, i));
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(remoteDefaults(), expected);
}

TEST_F(Defaults, UnknownBehaviorIsAnErrorOfLoadBehaviorAndTheFileStays) {
  makeBehavior(userRoot() / "a");
  start();
  call("addDefaultBehavior", "a");
  const ino_t before = inode();
  for (const bool remote : {true, false}) {
    try {
      if (remote)
        call("addDefaultBehavior", "User/ghost");
      else
        manager->addDefaultBehavior("User/ghost");
      ADD_FAILURE() << "no error";
    } catch (const ZR::ZRError& error) {
      EXPECT_EQ(error.module(), "ZRBehaviorManager");
      EXPECT_EQ(error.method(), "loadBehavior");
      EXPECT_EQ(error.description(), "behavior User/ghost is not installed");
      EXPECT_EQ(error.file(), "behavior/behaviormanager/src/behaviormanager");
      EXPECT_EQ(error.line(), 1358);
    }
  }
  EXPECT_EQ(inode(), before);
  EXPECT_EQ(readFile(), defaultsFile("a\n"));
}

TEST_F(Defaults, UnknownBehaviorWithoutAFileWritesNone) {
  start();
  EXPECT_THROW(manager->addDefaultBehavior("ghost"), ZR::ZRError);
  EXPECT_FALSE(fs::exists(preferenceFile()));
}

TEST_F(Defaults, RemovingANameThatIsNotListedRewritesTheFileQuietly) {
  makeBehavior(userRoot() / "a");
  start();
  call("addDefaultBehavior", "a");
  const ino_t before = inode();
  logs->clear();
  call("removeDefaultBehavior", "b");
  EXPECT_NE(inode(), before);
  EXPECT_EQ(readFile(), defaultsFile("a\n"));
  for (const vu::log::Message& message : logs->messages()) {
    EXPECT_GT(message.level, 3) << message.text;
  }
}

TEST_F(Defaults, RemovingWithoutAFileWritesAnEmptyList) {
  start();
  call("removeDefaultBehavior", "anything");
  EXPECT_EQ(readFile(), defaultsFile(""));
  EXPECT_EQ(readLogs().size(), 1u);  // the read of the missing file
}

// ---- reading what others wrote

struct Stored {
  const char* name;
  const char* value;
  std::vector<std::string> names;
};

class DefaultsRead : public Defaults, public ::testing::WithParamInterface<Stored> {};

TEST_P(DefaultsRead, SplitsAtLineFeedsOnly) {
  start();
  writeDefaults(GetParam().value);
  EXPECT_EQ(manager->getDefaultBehaviors(), GetParam().names);
  std::set<std::string> names;
  manager->xReadDefaultBehaviors(names);
  EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()), GetParam().names);
  EXPECT_TRUE(readLogs().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Values, DefaultsRead,
    ::testing::Values(Stored{"Plain", "a\nb\n", {"a", "b"}},
                      Stored{"NoTrailingLineFeed", "b\na", {"a", "b"}},
                      Stored{"EmptyLines", "\n\na\n\n\nb\n\n", {"a", "b"}},
                      Stored{"CarriageReturnsStay", "a\r\nb\r\n", {"a\r", "b\r"}},
                      Stored{"BlanksStay", " a \n\tb\n", {"\tb", " a "}},
                      Stored{"Duplicates", "b\na\nb\n", {"a", "b"}}, Stored{"Empty", "", {}},
                      Stored{"OnlyLineFeeds", "\n\n", {}}),
    [](const ::testing::TestParamInfo<Stored>& info) { return std::string(info.param.name); });

TEST_F(Defaults, NamesAlreadyInTheSetAreKept) {
  start();
  writeDefaults("b\n");
  std::set<std::string> names{"a"};
  manager->xReadDefaultBehaviors(names);
  EXPECT_EQ(names, (std::set<std::string>{"a", "b"}));
}

TEST_F(Defaults, MissingFileGivesAnEmptyListAndOneVerboseLine) {
  start();
  std::string description;
  try {
    readFile();
    FAIL() << "there is a file";
  } catch (const ZR::ZRError& error) {
    description = error.description();
  }
  EXPECT_TRUE(remoteDefaults().empty());
  const std::vector<vu::log::Message> lines = readLogs();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 5);
  EXPECT_EQ(lines[0].category, "behavior.manager");
  EXPECT_EQ(lines[0].text, "DefaultBehaviors preference file could not be read: " + description);
}

TEST_F(Defaults, MalformedFileGivesAnEmptyListAndOneVerboseLine) {
  start();
  writeFile(preferenceFile(), "<preferences module=\"DefaultBehaviors\" version=\"1\"><preference");
  std::string description;
  try {
    readFile();
    FAIL() << "the file was read";
  } catch (const ZR::ZRError& error) {
    description = error.description();
  }
  EXPECT_TRUE(manager->getDefaultBehaviors().empty());
  EXPECT_EQ(logs->count(5, "behavior.manager", "xReadDefaultBehaviors",
                        "DefaultBehaviors preference file could not be read: " + description),
            1);
  EXPECT_EQ(readLogs().size(), 1u);
}

TEST_F(Defaults, FileWithoutEntriesGivesAnEmptyListAndOneVerboseLine) {
  start();
  prefs().writePrefFile("DefaultBehaviors", ZR::ZRValue::array(), true);
  std::string description;
  try {
    (void)ZR::ZRValue::array()[0];
    FAIL();
  } catch (const ZR::ZRError& error) {
    description = error.description();
  }
  EXPECT_TRUE(manager->getDefaultBehaviors().empty());
  EXPECT_EQ(logs->count(5, "behavior.manager", "xReadDefaultBehaviors",
                        "DefaultBehaviors preference file could not be read: " + description),
            1);
}

// ---- start-up

TEST_F(Defaults, ReadyValuesThatDoNotTruncateToOneDoNothing) {
  makeBehavior(systemRoot() / "sit", gateBehavior("System/sit"));
  makeBehavior(userRoot() / "a", gateBehavior("a"));
  start();
  call("addDefaultBehavior", "a");
  for (const ZR::ZRValue& value : {ZR::ZRValue(0), ZR::ZRValue(2), ZR::ZRValue(0.99f),
                                   ZR::ZRValue(2.0), ZR::ZRValue(-1), ZR::ZRValue(-1.5f)}) {
    SCOPED_TRACE(value.toDebugString());
    EXPECT_EQ(announceReady(value), 0);
    EXPECT_EQ(announceReady(value, true), 0);
    EXPECT_FALSE(manager->isBehaviorLoaded("System/sit"));
  }
  // A value that is not a number is refused before anything starts.
  EXPECT_EQ(announceReady(ZR::ZRValue("1")), 0);
  EXPECT_FALSE(manager->isBehaviorLoaded("System/sit"));
  // Other keys are not looked at, whatever their value.
  const int before = nextTaskId();
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue("NotReady"));
  args.arrayPush(ZR::ZRValue(1));
  args.arrayPush(ZR::ZRValue(""));
  broker->call("ZRBehaviorManager", "_onDataChanged", args);
  EXPECT_EQ(nextTaskId(), before + 1);
  EXPECT_TRUE(gate->entered().empty());
}

TEST_F(Defaults, ReadyValuesOneAndOnePointNineStartTheSequenceEveryTime) {
  makeBehavior(systemRoot() / "sit", gateBehavior("System/sit"));
  makeBehavior(systemRoot() / "stand", gateBehavior("System/stand"));
  makeBehavior(userRoot() / "a", gateBehavior("a"));
  makeBehavior(userRoot() / "b", gateBehavior("b"));
  start();
  call("addDefaultBehavior", "b");
  call("addDefaultBehavior", "a");

  EXPECT_EQ(announceReady(ZR::ZRValue(1)), 2);
  EXPECT_TRUE(manager->isBehaviorLoaded("System/sit"));  // system behaviors preloaded
  EXPECT_TRUE(manager->isBehaviorLoaded("System/stand"));
  std::vector<std::string> entered = gate->entered();
  std::sort(entered.begin(), entered.end());
  EXPECT_EQ(entered, (std::vector<std::string>{"a", "b"}));

  EXPECT_EQ(announceReady(ZR::ZRValue(1.9f)), 2);
  EXPECT_EQ(announceReady(ZR::ZRValue(1.0)), 2);
  EXPECT_EQ(announceReady(ZR::ZRValue(1.9f), true), 2);  // raised as an event
  entered = gate->entered();
  EXPECT_EQ(std::count(entered.begin(), entered.end(), "a"), 4);
  EXPECT_EQ(std::count(entered.begin(), entered.end(), "b"), 4);
  EXPECT_EQ(std::count(entered.begin(), entered.end(), "System/sit"), 0);  // loaded, never run
}

TEST_F(Defaults, WithoutAUserLibrarySystemBehaviorsLoadAndSystemDefaultsStart) {
  // A home where the user library cannot be made (as when it is read-only).
  writeFile(home() / ".tuqvu", "a file where the directory should be\n");
  makeBehavior(systemRoot() / "animations" / "nod", gateBehavior("System/animations/nod"));
  makeBehavior(systemRoot() / "stand", gateBehavior("System/stand"));
  makeBehavior(systemRoot() / "sit", gateBehavior("System/sit"));
  start();
  ASSERT_EQ(manager->xUserLibrary().projectPath(), "");
  writeDefaults("System/animations/nod\nSystem/stand\nwave\n");  // no user library: no wave

  EXPECT_EQ(announceReady(ZR::ZRValue(1)), 2);
  for (const char* name : {"System/animations/nod", "System/stand", "System/sit"}) {
    EXPECT_TRUE(manager->isBehaviorLoaded(name)) << name;
  }
  std::vector<std::string> entered = gate->entered();
  std::sort(entered.begin(), entered.end());
  EXPECT_EQ(entered, (std::vector<std::string>{"System/animations/nod", "System/stand"}));
}

TEST_F(Defaults, ABehaviorThatFailsToLoadAtStartLeavesTheOthersLoadingAndTheDefaultsStarting) {
  makeBehavior(systemRoot() / "a", gateBehavior("System/a"));
  makeBehavior(systemRoot() / "broken", "<behavior><this is not xml");
  makeBehavior(systemRoot() / "z", gateBehavior("System/z"));
  makeBehavior(userRoot() / "wave", gateBehavior("wave"));
  start();
  call("addDefaultBehavior", "wave");

  EXPECT_EQ(announceReady(ZR::ZRValue(1)), 1);
  EXPECT_TRUE(manager->isBehaviorLoaded("System/a"));
  EXPECT_TRUE(manager->isBehaviorLoaded("System/z"));
  EXPECT_FALSE(manager->isBehaviorLoaded("System/broken"));
  EXPECT_EQ(gate->entered(), std::vector<std::string>{"wave"});
  // The failure is logged with the behavior's name.
  bool logged = false;
  for (const vu::log::Message& message : logs->messages()) {
    logged = logged || (message.level <= vu::log::warning &&
                        message.text.find("System/broken") != std::string::npos);
  }
  EXPECT_TRUE(logged);
}

// ---- ".default"

class DefaultsStart : public Defaults {
protected:
  // The real preferences module under another name, behind an interposer that holds
  // back the reading of the list until ".default" has begun to run.
  void startGated() {
    startPlatform(true, false, true);
    preferences = std::make_unique<ZR::ZRPreferences>(broker, "RealPreferences");
    interposer =
        std::make_unique<Interposer>(broker, "ZRPreferences", "RealPreferences",
                                     [this](const std::string& method, const ZR::ZRValue&) {
                                       if (method != "readPrefFile" || !armed) return;
                                       heldRead = gate->waitFor(".default", 10000);
                                       enteredAtRead = gate->entered();
                                     });
    gate = std::make_unique<Gate>(broker);
    startManager();
    events->clear();
    logs->clear();
  }

  std::unique_ptr<Interposer> interposer;
  std::atomic<bool> armed{false};
  bool heldRead = false;
  std::vector<std::string> enteredAtRead;
};

TEST_F(DefaultsStart, DotDefaultIsStartedOnceAndBeforeTheListIsEvenRead) {
  for (const char* name : {".default", "a", "b"}) {
    makeBehavior(userRoot() / name, gateBehavior(name));
  }
  startGated();
  writeDefaults("b\n.default\nghost\na\n");  // ghost is not installed
  armed = true;

  EXPECT_EQ(announceReady(ZR::ZRValue(1)), 3);

  EXPECT_TRUE(heldRead) << "the list was read before .default was started";
  EXPECT_EQ(enteredAtRead, std::vector<std::string>{".default"});
  const std::vector<std::string> entered = gate->entered();
  ASSERT_EQ(entered.size(), 3u);
  EXPECT_EQ(entered[0], ".default");
  EXPECT_EQ(std::count(entered.begin(), entered.end(), ".default"), 1);
  EXPECT_EQ(std::count(entered.begin(), entered.end(), "a"), 1);
  EXPECT_EQ(std::count(entered.begin(), entered.end(), "b"), 1);
  for (const vu::log::Message& message : logs->messages()) {
    EXPECT_EQ(message.text.find("ghost"), std::string::npos) << message.text;
  }
}

TEST_F(Defaults, AUserDefaultThatTheSystemLibraryAlsoHoldsStartsTheUserCopy) {
  makeBehavior(systemRoot() / "twin", gateBehavior("system twin"));
  makeBehavior(userRoot() / "twin", gateBehavior("user twin"));
  start();
  call("addDefaultBehavior", "User/twin");
  EXPECT_EQ(remoteDefaults(), std::vector<std::string>{"twin"});
  EXPECT_EQ(announceReady(ZR::ZRValue(1)), 1);
  EXPECT_EQ(gate->entered(), std::vector<std::string>{"user twin"});
}

TEST_F(Defaults, DotDefaultStartsWhenInstalledEvenIfNotListedAndNotWhenOnlyListed) {
  makeBehavior(userRoot() / ".default", gateBehavior(".default"));
  makeBehavior(userRoot() / "a", gateBehavior("a"));
  start();
  writeDefaults("a\n");
  EXPECT_EQ(announceReady(ZR::ZRValue(1)), 2);
  std::vector<std::string> entered = gate->entered();
  std::sort(entered.begin(), entered.end());
  EXPECT_EQ(entered, (std::vector<std::string>{".default", "a"}));

  fs::remove_all(userRoot() / ".default");
  writeDefaults(".default\na\n");
  const int before = nextTaskId();
  broker->call("ZRBehaviorManager", "playDefaultProject", ZR::ZRValue::array());
  const int after = nextTaskId();
  ASSERT_EQ(after - before - 1, 1);
  EXPECT_TRUE(broker->waitTask(before + 1, 20000));
  entered = gate->entered();
  EXPECT_EQ(std::count(entered.begin(), entered.end(), ".default"), 1);
  EXPECT_EQ(std::count(entered.begin(), entered.end(), "a"), 2);
}

}  // namespace
}  // namespace bmtest
