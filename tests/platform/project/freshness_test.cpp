// Every query reflects the disk at the time of the call, whatever changed it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project/behaviorlibraryproject.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>

#include "support.h"

using namespace projecttest;
using vu::project::BehaviorLibraryProject;
using Paths = std::set<std::string>;
namespace fs = boost::filesystem;

namespace {

using Recorder = std::vector<std::string>;

class FreshnessTest : public ::testing::Test {
protected:
  void SetUp() override {
    makeBehavior(root / "a/one", {"first"});
    makeBehavior(root / "a/two", {"second"});
    makeBehavior(root / "b");
    library = std::make_unique<BehaviorLibraryProject>(root.path());
    ASSERT_EQ((Paths{"a/one", "a/two", "b"}), library->behaviorPaths("", true));
  }

  ScratchDir root;
  ScratchDir outside;
  std::unique_ptr<BehaviorLibraryProject> library;
};

}  // namespace

TEST_F(FreshnessTest, BehaviorAddedByAnotherProcessIsSeenByTheNextCall) {
  const std::string command =
      "mkdir -p '" + root.path() + "/c/d' && echo x > '" + root.path() + "/c/d/behavior.xar'";
  ASSERT_EQ(0, std::system(command.c_str()));
  EXPECT_TRUE(library->hasBehavior("c/d"));
  EXPECT_EQ((Paths{"a/one", "a/two", "b", "c/d"}), library->behaviorPaths("", true));
}

TEST_F(FreshnessTest, DirectoryFirstAndBehaviorXarLater) {
  ASSERT_EQ(0, ::mkdir((root / "later").c_str(), 0755));
  EXPECT_FALSE(library->hasBehavior("later"));
  ASSERT_EQ(0, ::mkdir((root / "later/deeper").c_str(), 0755));
  EXPECT_EQ(Paths{}, library->behaviorPaths("later", true));
  writeFile(root / "later/deeper/behavior.xar", "");
  EXPECT_EQ((Paths{"later/deeper"}), library->behaviorPaths("later", true));
  writeFile(root / "later/project.xml", projectXml("Behavior", {"late"}));
  writeFile(root / "later/behavior.xar", "");
  // later is a behavior now, so later/deeper is inside a behavior.
  EXPECT_EQ((Paths{"later"}), library->behaviorPaths("later", true));
  EXPECT_EQ((Paths{"later"}), library->findTag("late"));
}

TEST_F(FreshnessTest, BehaviorXarMovedIntoPlaceAsAFileServerDoes) {
  ASSERT_EQ(0, ::mkdir((root / "upload").c_str(), 0755));
  writeFile(root / "upload/.behavior.xar.part", "content");
  EXPECT_FALSE(library->hasBehavior("upload"));
  ASSERT_EQ(0, ::rename((root / "upload/.behavior.xar.part").c_str(),
                        (root / "upload/behavior.xar").c_str()));
  EXPECT_TRUE(library->hasBehavior("upload"));
}

TEST_F(FreshnessTest, RemovedByHand) {
  fs::remove_all(root / "a/one");
  EXPECT_FALSE(library->hasBehavior("a/one"));
  EXPECT_EQ(Paths{}, library->findTag("first"));
  ASSERT_EQ(0, ::unlink((root / "b/behavior.xar").c_str()));
  EXPECT_EQ((Paths{"a/two"}), library->behaviorPaths("", true));
  fs::remove_all(root / "a");
  EXPECT_EQ(Paths{}, library->behaviorPaths("", true));
  EXPECT_EQ(Paths{}, library->tags("", true));
}

TEST_F(FreshnessTest, ABehaviorThatStopsBeingOneRevealsTheBehaviorsInsideIt) {
  makeBehavior(root / "b/inner/x", {"inside"});
  EXPECT_EQ((Paths{"b"}), library->behaviorPaths("b", true));
  ASSERT_EQ(0, ::unlink((root / "b/behavior.xar").c_str()));
  EXPECT_EQ((Paths{"b/inner/x"}), library->behaviorPaths("b", true));
  EXPECT_EQ((Paths{"b/inner/x"}), library->findTag("inside"));
  // A change deep inside is seen too, since the directories are watched now.
  makeBehavior(root / "b/inner/y");
  EXPECT_EQ((Paths{"b/inner/x", "b/inner/y"}), library->behaviorPaths("b", true));
  writeFile(root / "b/behavior.xar", "");
  EXPECT_EQ((Paths{"b"}), library->behaviorPaths("b", true));
  EXPECT_EQ(Paths{}, library->findTag("inside"));
}

TEST_F(FreshnessTest, RenamedMovedInAndMovedOut) {
  ASSERT_EQ(0, ::rename((root / "a").c_str(), (root / "z").c_str()));
  EXPECT_EQ((Paths{"b", "z/one", "z/two"}), library->behaviorPaths("", true));
  EXPECT_EQ((Paths{"z/one"}), library->findTag("first"));
  ASSERT_EQ(0, ::rename((root / "z/one").c_str(), (outside / "one").c_str()));
  EXPECT_EQ((Paths{"b", "z/two"}), library->behaviorPaths("", true));
  makeBehavior(outside / "tree/three", {"third"});
  ASSERT_EQ(0, ::rename((outside / "tree").c_str(), (root / "z/tree").c_str()));
  EXPECT_EQ((Paths{"b", "z/tree/three", "z/two"}), library->behaviorPaths("", true));
  // The moved-in tree is watched: changes inside it are seen.
  makeBehavior(root / "z/tree/four");
  EXPECT_TRUE(library->hasBehavior("z/tree/four"));
  // And the moved-out one is not followed any more.
  makeBehavior(outside / "one/nested");
  EXPECT_FALSE(library->hasBehavior("z/one/nested"));
  EXPECT_FALSE(library->hasBehavior("one/nested"));
}

TEST_F(FreshnessTest, DirectoryReplacedByAnotherOfTheSameName) {
  makeBehavior(outside / "a/three");
  fs::remove_all(root / "a");
  ASSERT_EQ(0, ::rename((outside / "a").c_str(), (root / "a").c_str()));
  EXPECT_EQ((Paths{"a/three", "b"}), library->behaviorPaths("", true));
  makeBehavior(root / "a/four");
  EXPECT_EQ((Paths{"a/four", "a/three", "b"}), library->behaviorPaths("", true));
}

TEST_F(FreshnessTest, TagsFollowTheProjectFile) {
  writeFile(root / "b/project.xml", projectXml("Behavior", {"added"}));
  EXPECT_EQ((Paths{"added"}), library->tags("b", true));
  // Rewritten in place.
  writeFile(root / "b/project.xml", projectXml("Behavior", {"changed", "more"}));
  EXPECT_EQ((Paths{"changed", "more"}), library->tags("b", true));
  EXPECT_EQ(Paths{}, library->findTag("added"));
  // Replaced by a rename.
  writeFile(root / "b/.project.xml.new", projectXml("Behavior", {"renamed"}));
  ASSERT_EQ(0, ::rename((root / "b/.project.xml.new").c_str(), (root / "b/project.xml").c_str()));
  EXPECT_EQ((Paths{"b"}), library->findTag("renamed"));
  ASSERT_EQ(0, ::unlink((root / "b/project.xml").c_str()));
  EXPECT_EQ(Paths{}, library->tags("b", true));
  EXPECT_EQ((Paths{"first", "second"}), library->tags("", true));
}

TEST_F(FreshnessTest, RootDeletedThenMadeAgain) {
  fs::remove_all(root.path());
  EXPECT_FALSE(library->valid());
  EXPECT_EQ(Paths{}, library->behaviorPaths("", true));
  makeBehavior(root / "new");
  EXPECT_TRUE(library->valid());
  EXPECT_EQ((Paths{"new"}), library->behaviorPaths("", true));
  makeBehavior(root / "newer");
  EXPECT_EQ((Paths{"new", "newer"}), library->behaviorPaths("", true));
}

TEST_F(FreshnessTest, RootReplacedByARename) {
  makeBehavior(outside / "lib/other");
  fs::rename(root.path(), outside / "old");
  fs::rename(outside / "lib", root.path());
  EXPECT_EQ((Paths{"other"}), library->behaviorPaths("", true));
  makeBehavior(outside / "old/ignored");  // the old root is not followed
  makeBehavior(root / "seen");
  EXPECT_EQ((Paths{"other", "seen"}), library->behaviorPaths("", true));
}

TEST_F(FreshnessTest, ManyChangesBetweenTwoCalls) {
  for (int i = 0; i < 150; ++i) {
    makeBehavior(root / ("bulk/" + std::to_string(i / 30) + "/" + std::to_string(i)),
                 {"bulk" + std::to_string(i % 3)});
  }
  EXPECT_EQ(150u, library->behaviorPaths("bulk", true).size());
  EXPECT_EQ(50u, library->findTag("bulk0").size());
  fs::remove_all(root / "bulk/3");
  EXPECT_EQ(120u, library->behaviorPaths("bulk", true).size());
}

TEST_F(FreshnessTest, LostNotificationsLeadToAFullRescan) {
  // More events than the kernel queues (two files inside a behavior written in turn, so
  // that no two events in a row are alike and merged), then a behavior created elsewhere
  // whose events are dropped with the overflow.
  long limit = 16384;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  ASSERT_LT(limit, 1000000) << "the kernel queues too many events for this test";
  const std::string files[] = {root / "b/f0", root / "b/f1"};
  for (long i = 0; i <= limit; ++i) {
    std::ofstream(files[i % 2], std::ios::app);  // one "closed after writing" event
  }
  makeBehavior(root / "after/overflow", {"late"});
  LogCapture log;
  EXPECT_TRUE(library->hasBehavior("after/overflow"));
  EXPECT_EQ(1u, log.texts(vu::log::info, "vu.project").size());
  EXPECT_EQ((Paths{"a/one", "a/two", "after/overflow", "b"}), library->behaviorPaths("", true));
  EXPECT_EQ((Paths{"after/overflow"}), library->findTag("late"));
  makeBehavior(root / "after/more");  // and watching goes on
  EXPECT_TRUE(library->hasBehavior("after/more"));
}

TEST_F(FreshnessTest, TwoLibrariesOfOneRootSeeTheSameDisk) {
  BehaviorLibraryProject second(root.path() + "/");
  makeBehavior(root / "c");
  EXPECT_TRUE(second.hasBehavior("c"));
  EXPECT_TRUE(library->hasBehavior("c"));
  library.reset();
  makeBehavior(root / "d");
  EXPECT_TRUE(second.hasBehavior("d"));
}

TEST(Polling, WithoutNotificationsEveryCallRescans) {
  ScratchDir root;
  makeBehavior(root / "a", {"x"});
  ::setenv("TUQVU_LIBRARY_POLLING", "1", 1);
  BehaviorLibraryProject library(root.path());
  ::unsetenv("TUQVU_LIBRARY_POLLING");
  EXPECT_EQ((Paths{"a"}), library.behaviorPaths("", true));
  makeBehavior(root / "b/c", {"y"});
  fs::remove_all(root / "a");
  EXPECT_EQ((Paths{"b/c"}), library.behaviorPaths("", true));
  EXPECT_EQ((Paths{"y"}), library.tags("", true));
  Recorder recorder;
  library.behaviorAdded.connect([&](const std::string& path) { recorder.push_back(path); });
  makeBehavior(root / "up");
  EXPECT_TRUE(library.importBehavior(root / "up", "up", true));
  EXPECT_TRUE(library.removeBehavior("b/c"));
  EXPECT_EQ((Paths{"up"}), library.behaviorPaths("", true));
  EXPECT_EQ((std::vector<std::string>{"up"}), recorder);
}
