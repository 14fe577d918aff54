// Removing behaviors, directories of behaviors and resources from the user library:
// events, default list, running behaviors, and the errors for what cannot be removed.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zr/proxies/zrpreferencesproxy.h>
#include <zr/zrbinding.h>

#include <boost/make_shared.hpp>
#include <condition_variable>
#include <cstring>
#include <thread>

#include "fixture.h"

namespace bmtest {
namespace {

const char* const kRemoved = "ZRBehaviorManager/BehaviorRemoved";
const char* const kSource = "behavior/behaviormanager/src/behaviormanager";

// A module whose method "hold" blocks its caller until the test releases it: a behavior
// that calls it cannot be ended by the frame manager while the call lasts.
class Blocker : public ZR::ZRModule {
public:
  explicit Blocker(boost::shared_ptr<ZR::ZRBroker> broker) : ZR::ZRModule(broker, "Blocker") {
    ZR::bindCallable(*this, {"hold", "blocks until released"},
                     ([this](const ZR::ZRValue&, ZR::ZRValue&) {
                       std::unique_lock<std::mutex> lock(fMutex);
                       ++fEntered;
                       fChanged.notify_all();
                       fChanged.wait(lock, [this] { return fReleased; });
                     }));
  }
  bool waitEntered(int timeoutMs) {
    std::unique_lock<std::mutex> lock(fMutex);
    return fChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [this] { return fEntered > 0; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(fMutex);
    fReleased = true;
    fChanged.notify_all();
  }

private:
  std::mutex fMutex;  // guards fEntered and fReleased
  std::condition_variable fChanged;
  int fEntered = 0;
  bool fReleased = false;
};

// A chain of directories below dir deeper than a removal by descriptors goes (it holds
// one descriptor per level and stops at 256), built (and removed) step by step relative
// to open directories.
void makeDeepChain(const fs::path& dir) {
  const std::string name = "d";
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(::mkdirat(fd, name.c_str(), 0755), 0);
    const int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
    ::close(fd);
    ASSERT_GE(next, 0);
    fd = next;
  }
  ::close(fd);
}

void removeBelow(int parent, const char* name) {
  const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (fd < 0) {
    ::unlinkat(parent, name, 0);
    return;
  }
  DIR* dir = ::fdopendir(fd);
  std::vector<std::string> entries;
  while (dirent* entry = ::readdir(dir)) {
    const std::string entryName = entry->d_name;
    if (entryName != "." && entryName != "..") entries.push_back(entryName);
  }
  for (const std::string& entry : entries) removeBelow(fd, entry.c_str());
  ::closedir(dir);
  ::unlinkat(parent, name, AT_REMOVEDIR);
}

void removeDeep(const fs::path& path) {
  removeBelow(AT_FDCWD, path.c_str());
}

class Remove : public ManagerTest {
protected:
  void start() {
    startPlatform();
    startManager();
    events->clear();
    logs->clear();
  }

  bool remove(const std::string& name) {
    ZR::ZRValue args = ZR::ZRValue::array();
    args.arrayPush(ZR::ZRValue(name));
    return broker->call("ZRBehaviorManager", "removeBehavior", args).toBool();
  }

  std::vector<std::string> removedEvents() {
    std::vector<std::string> paths;
    for (const ZR::ZRValue& value : events->valuesOf(kRemoved)) paths.push_back(value.toString());
    return paths;
  }

  fs::path preferenceFile() { return preferences->prefFilePath("DefaultBehaviors"); }

  ino_t inodeOf(const fs::path& file) {
    struct stat info;
    EXPECT_EQ(::stat(file.c_str(), &info), 0) << file;
    return info.st_ino;
  }

  void expectError(const std::function<void()>& call, const std::string& description, int line) {
    try {
      call();
      ADD_FAILURE() << "no error for: " << description;
    } catch (const ZR::ZRError& error) {
      EXPECT_EQ(error.module(), "ZRBehaviorManager");
      EXPECT_EQ(error.method(), "removeBehavior");
      EXPECT_EQ(error.description(), description);
      EXPECT_EQ(error.file(), kSource);
      EXPECT_EQ(error.line(), line);
    }
  }
};

TEST_F(Remove, DirectoryWithTwoBehaviorsRemovesBothInAscendingOrderAndTakesThemOffTheDefaults) {
  makeBehavior(userRoot() / "group" / "b");
  makeBehavior(userRoot() / "group" / "a");
  makeBehavior(userRoot() / "keep");
  start();
  manager->addDefaultBehavior("group/b");
  manager->addDefaultBehavior("group/a");
  manager->addDefaultBehavior("keep");

  EXPECT_TRUE(remove("group"));

  EXPECT_EQ(removedEvents(), (std::vector<std::string>{"group/a", "group/b"}));
  EXPECT_EQ(manager->getDefaultBehaviors(), std::vector<std::string>{"keep"});
  EXPECT_FALSE(fs::exists(userRoot() / "group" / "a"));
  EXPECT_FALSE(fs::exists(userRoot() / "group" / "b"));
  EXPECT_EQ(manager->getInstalledBehaviors(), std::vector<std::string>{"keep"});
  EXPECT_TRUE(logs->withText("Could not stop the behavior group/a properly.").empty());
}

TEST_F(Remove, OneBehaviorByItsPathAndNoOtherNameForm) {
  makeBehavior(userRoot() / "wave");
  makeBehavior(userRoot() / "nod");
  start();
  EXPECT_TRUE(remove("wave"));
  EXPECT_EQ(removedEvents(), std::vector<std::string>{"wave"});
  // The argument is a path below the user root, not a name to normalise.
  expectError([this] { remove("User/nod"); }, "Behavior User/nod was not found.", 1116);
  EXPECT_EQ(manager->getInstalledBehaviors(), std::vector<std::string>{"nod"});
}

TEST_F(Remove, RunningBehaviorIsStoppedBeforeItIsRemoved) {
  makeBehavior(userRoot() / "loop", "<behavior><wait ms=\"600000\"/></behavior>");
  start();
  std::thread run([this] {
    ZR::ZRValue args = ZR::ZRValue::array();
    args.arrayPush(ZR::ZRValue("loop"));
    try {
      broker->call("ZRBehaviorManager", "runBehavior", args);
    } catch (const ZR::ZRError&) {
      // A stop that lands before the frame manager has started the run makes the run
      // call fail; the removal below is what this test is about.
    }
  });
  const bool running = events->waitFor(
      [](const EventRecorder::Event& e) {
        return e.first == "BehaviorsRun" &&
               e.second.toStringVector() == std::vector<std::string>{"loop"};
      },
      10000);
  if (!running) {
    manager->stopBehavior("loop");
    run.join();
    FAIL() << "the behavior never ran";
  }

  EXPECT_TRUE(remove("loop"));
  run.join();  // the run call has returned: its behavior was ended

  // The run ended ("BehaviorsRun" empty again) before the removal was announced.
  int stopped = -1, removed = -1, index = 0;
  for (const EventRecorder::Event& event : events->drain()) {
    if (event.first == "BehaviorsRun" && event.second.toStringVector().empty() && stopped < 0) {
      stopped = index;
    }
    if (event.first == kRemoved && event.second.toString() == "loop") removed = index;
    ++index;
  }
  EXPECT_GE(stopped, 0);
  EXPECT_GT(removed, stopped);
  EXPECT_FALSE(fs::exists(userRoot() / "loop"));
  EXPECT_FALSE(manager->isBehaviorRunning("loop"));
  EXPECT_TRUE(logs->withText("Could not stop the behavior loop properly.").empty());
}

TEST_F(Remove, BehaviorThatCannotBeStoppedIsRemovedAllTheSame) {
  makeBehavior(userRoot() / "stuck",
               "<behavior><call module=\"Blocker\" method=\"hold\"/></behavior>");
  startPlatform();
  Blocker blocker(broker);
  startManager();
  manager->addDefaultBehavior("stuck");
  events->clear();
  logs->clear();
  std::thread run([this] {
    ZR::ZRValue args = ZR::ZRValue::array();
    args.arrayPush(ZR::ZRValue("stuck"));
    try {
      broker->call("ZRBehaviorManager", "runBehavior", args);
    } catch (const ZR::ZRError&) {
      // Its instance was taken away while it ran; only the removal matters here.
    }
  });
  struct Cleanup {
    Blocker& blocker;
    std::thread& run;
    ~Cleanup() {
      blocker.release();
      run.join();
    }
  } cleanup{blocker, run};
  ASSERT_TRUE(blocker.waitEntered(10000));

  EXPECT_TRUE(remove("stuck"));

  EXPECT_EQ(logs->count(5, "behavior.manager", "removeBehavior",
                        "Could not stop the behavior stuck properly."),
            1);
  EXPECT_FALSE(fs::exists(userRoot() / "stuck"));
  EXPECT_EQ(removedEvents(), std::vector<std::string>{"stuck"});
  EXPECT_TRUE(manager->getDefaultBehaviors().empty());
}

TEST_F(Remove, SystemPrefixOrSystemPathIsNotFoundInTheUserLibrary) {
  makeBehavior(systemRoot() / "sit");
  start();
  expectError([this] { remove("System/sit"); }, "Behavior System/sit was not found.", 1116);
  expectError([this] { remove("sit"); }, "Behavior sit was not found.", 1116);
  expectError([this] { manager->removeBehavior("ghost"); }, "Behavior ghost was not found.", 1116);
  EXPECT_TRUE(fs::exists(systemRoot() / "sit" / "behavior.xar"));
  EXPECT_EQ(manager->getSystemBehaviorNames(), std::vector<std::string>{"System/sit"});
  EXPECT_TRUE(removedEvents().empty());
}

TEST_F(Remove, SystemPrefixNamesAResourceOfThatPathUnderTheUserRoot) {
  makeBehavior(systemRoot() / "sit");
  makeResource(userRoot() / "System" / "sit");
  start();
  EXPECT_TRUE(remove("System/sit"));
  EXPECT_FALSE(fs::exists(userRoot() / "System" / "sit"));
  EXPECT_TRUE(fs::exists(systemRoot() / "sit" / "behavior.xar"));
  EXPECT_TRUE(removedEvents().empty());
}

TEST_F(Remove, ResourceIsDeletedWithoutEventAndDefaultsAndRegistryStayAsTheyWere) {
  makeBehavior(userRoot() / "keep");
  makeResource(userRoot() / "media" / "sounds", "Resource");
  writeFile(userRoot() / "media" / "sounds" / "clips" / "beep.raw", "beep");
  start();
  manager->addDefaultBehavior("keep");
  ASSERT_TRUE(manager->loadBehavior("keep"));
  const ino_t inode = inodeOf(preferenceFile());
  const ZR::ZRValue file = ZR::ZRPreferencesProxy(broker).readPrefFile("DefaultBehaviors", false);
  events->clear();

  EXPECT_TRUE(remove("media/sounds"));

  EXPECT_FALSE(fs::exists(userRoot() / "media" / "sounds"));
  EXPECT_TRUE(events->drain().empty());
  EXPECT_EQ(inodeOf(preferenceFile()), inode);  // the file was not rewritten
  EXPECT_EQ(ZR::ZRPreferencesProxy(broker).readPrefFile("DefaultBehaviors", false), file);
  EXPECT_EQ(manager->getLoadedBehaviors(), std::vector<std::string>{"keep"});
  EXPECT_EQ(manager->behaviorState("keep"), ZR::BehaviorManager::StateLoaded);
}

TEST_F(Remove, ResourceThatCannotBeDeletedIsReportedWithTheFileSystemText) {
  makeResource(userRoot() / "media");
  makeDeepChain(userRoot() / "media");
  start();
  try {
    remove("media");
    ADD_FAILURE() << "the resource was removed";
  } catch (const ZR::ZRError& error) {
    EXPECT_EQ(error.module(), "ZRBehaviorManager");
    EXPECT_EQ(error.method(), "removeBehavior");
    EXPECT_EQ(error.file(), kSource);
    EXPECT_EQ(error.line(), 1109);
    EXPECT_EQ(error.description(),
              std::string("Resource media could not be removed. ") + std::strerror(ELOOP));
  }
  EXPECT_TRUE(events->drain().empty());
  removeDeep(userRoot() / "media");
}

TEST_F(Remove, PathsLeavingTheUserRootAreNotFound) {
  makeResource(home() / "outside");
  start();
  expectError([this] { remove("../../outside"); }, "Behavior ../../outside was not found.", 1116);
  expectError([this] { remove(""); }, "Behavior  was not found.", 1116);
  EXPECT_TRUE(fs::exists(home() / "outside" / "project.xml"));
  EXPECT_TRUE(fs::exists(userRoot()));
}

TEST_F(Remove, BehaviorTheLibraryCannotDeleteMakesTheResultFalseAndTheOthersGo) {
  makeBehavior(userRoot() / "group" / "a");
  makeBehavior(userRoot() / "group" / "b");
  if (!setImmutable(userRoot() / "group" / "a", true)) {
    GTEST_SKIP() << "the immutable attribute cannot be set here";
  }
  struct Unlock {
    fs::path dir;
    ~Unlock() { setImmutable(dir, false); }
  } unlock{userRoot() / "group" / "a"};
  start();

  EXPECT_FALSE(remove("group"));

  EXPECT_EQ(
      logs->count(2, "behavior.manager", "removeBehavior", "Error removing the behavior group/a"),
      1);
  EXPECT_TRUE(fs::exists(userRoot() / "group" / "a" / "behavior.xar"));
  EXPECT_FALSE(fs::exists(userRoot() / "group" / "b"));
  EXPECT_EQ(removedEvents(), std::vector<std::string>{"group/b"});
  EXPECT_EQ(manager->getInstalledBehaviors(), std::vector<std::string>{"group/a"});
}

}  // namespace
}  // namespace bmtest
