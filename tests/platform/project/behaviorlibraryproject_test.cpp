// BehaviorLibraryProject: listing, tags, import, removal, notifications and assignment.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project/behaviorlibraryproject.h>

#include <boost/bind/bind.hpp>

#include "support.h"

using namespace projecttest;
using vu::project::BehaviorLibraryProject;
using Paths = std::set<std::string>;

namespace {

// Records the notifications of a library in order, as "added:path" and so on.
struct Recorder {
  std::vector<std::string> events;
  void onBehaviorAdded(const std::string& path) { events.push_back("added:" + path); }
  void onBehaviorUpdated(const std::string& path) { events.push_back("updated:" + path); }
  void onBehaviorRemoved(const std::string& path) { events.push_back("removed:" + path); }
  void onSomethingElse(const std::string& path) { events.push_back("else:" + path); }

  void connect(BehaviorLibraryProject& library) {
    using boost::placeholders::_1;
    library.behaviorAdded.connect(boost::bind(&Recorder::onBehaviorAdded, this, _1));
    library.behaviorUpdated.connect(boost::bind(&Recorder::onBehaviorUpdated, this, _1));
    library.behaviorRemoved.connect(boost::bind(&Recorder::onBehaviorRemoved, this, _1));
  }
};

class LibraryTest : public ::testing::Test {
protected:
  // root/
  //   dance/              behavior (tags: music, party)
  //   dance/inner/        behavior inside a behavior: not listed
  //   greetings/wave/     behavior (tags: arm, greeting)
  //   greetings/bow/      behavior (tags: greeting)
  //   greetings/more/hi/  behavior (no project.xml)
  //   greetings-old/x/    behavior (tags: old)
  //   empty/              plain directory
  void SetUp() override {
    makeBehavior(root / "dance", {"music", "party"});
    makeBehavior(root / "dance/inner", {"hidden"});
    makeBehavior(root / "greetings/wave", {"greeting", "arm"});
    makeBehavior(root / "greetings/bow", {"greeting"});
    makeBehavior(root / "greetings/more/hi");
    makeBehavior(root / "greetings-old/x", {"old"});
    writeFile(root / "empty/readme.txt", "nothing");
    writeFile(source / "wave2/behavior.xar", "new wave");
    writeFile(source / "wave2/data/anim.bin", "frames");
    writeFile(source / "wave2/project.xml", projectXml("Behavior", {"fresh"}));
  }

  ScratchDir root;
  ScratchDir source;
};

}  // namespace

TEST_F(LibraryTest, ValidWithAbsoluteRootPath) {
  BehaviorLibraryProject library(root.path() + "//");
  EXPECT_TRUE(library.valid());
  EXPECT_EQ(root.path(), library.projectPath());
}

TEST_F(LibraryTest, ListsEveryBehaviorSortedAndSkipsBehaviorsInsideBehaviors) {
  BehaviorLibraryProject library(root.path());
  EXPECT_EQ(
      (Paths{"dance", "greetings-old/x", "greetings/bow", "greetings/more/hi", "greetings/wave"}),
      library.behaviorPaths("", true));
  EXPECT_FALSE(library.hasBehavior("dance/inner"));
  EXPECT_TRUE(library.hasBehavior("dance"));
  EXPECT_TRUE(library.hasBehavior("greetings/more/hi"));
  EXPECT_FALSE(library.hasBehavior("greetings"));
  EXPECT_FALSE(library.hasBehavior("empty"));
  EXPECT_FALSE(library.hasBehavior(""));
}

TEST_F(LibraryTest, ListsBelowASubPath) {
  BehaviorLibraryProject library(root.path());
  EXPECT_EQ((Paths{"greetings/bow", "greetings/more/hi", "greetings/wave"}),
            library.behaviorPaths("greetings", true));
  EXPECT_EQ((Paths{"greetings/bow", "greetings/wave"}), library.behaviorPaths("greetings", false));
  EXPECT_EQ((Paths{"dance"}), library.behaviorPaths("dance", true));
  EXPECT_EQ((Paths{"dance"}), library.behaviorPaths("", false));
  EXPECT_EQ((Paths{"greetings/wave"}), library.behaviorPaths("greetings/wave", false));
  EXPECT_EQ(Paths{}, library.behaviorPaths("empty", true));
  EXPECT_EQ(Paths{}, library.behaviorPaths("missing", true));
  EXPECT_EQ(Paths{}, library.behaviorPaths("greet", true));
}

TEST_F(LibraryTest, AcceptsLooseSpellingsOfRelativePathsAndRefusesDotDot) {
  BehaviorLibraryProject library(root.path());
  EXPECT_EQ(library.behaviorPaths("greetings", true), library.behaviorPaths("/greetings/", true));
  EXPECT_EQ(library.behaviorPaths("greetings", true), library.behaviorPaths("./greetings//", true));
  EXPECT_TRUE(library.hasBehavior("/greetings//wave/"));
  EXPECT_EQ(Paths{}, library.behaviorPaths("greetings/../dance", true));
  EXPECT_FALSE(library.hasBehavior("../" + root.path()));
  EXPECT_EQ(Paths{}, library.tags("..", true));
}

TEST_F(LibraryTest, TagsOfABehaviorADirectoryAndTheWholeLibrary) {
  BehaviorLibraryProject library(root.path());
  EXPECT_EQ((Paths{"arm", "greeting"}), library.tags("greetings/wave", true));
  EXPECT_EQ((Paths{"arm", "greeting"}), library.tags("greetings", true));
  EXPECT_EQ((Paths{"music", "party"}), library.tags("dance", false));
  EXPECT_EQ((Paths{"arm", "greeting", "music", "old", "party"}), library.tags("", true));
  EXPECT_EQ((Paths{"music", "party"}), library.tags("", false));
  EXPECT_EQ(Paths{}, library.tags("greetings/more/hi", true));
  EXPECT_EQ(Paths{}, library.tags("empty", true));
}

TEST_F(LibraryTest, FindTag) {
  BehaviorLibraryProject library(root.path());
  EXPECT_EQ((Paths{"greetings/bow", "greetings/wave"}), library.findTag("greeting"));
  EXPECT_EQ((Paths{"greetings/wave"}), library.findTag("arm"));
  EXPECT_EQ(Paths{}, library.findTag("hidden"));  // only on a behavior inside a behavior
  EXPECT_EQ(Paths{}, library.findTag("unknown"));
  EXPECT_EQ(Paths{}, library.findTag(""));
}

TEST_F(LibraryTest, MalformedProjectFileGivesNoTagsAndAWarning) {
  writeFile(root / "greetings/bow/project.xml", "<project><tag>greeting</tag>");
  LogCapture log;
  BehaviorLibraryProject library(root.path());
  EXPECT_TRUE(library.hasBehavior("greetings/bow"));
  EXPECT_EQ(Paths{}, library.tags("greetings/bow", true));
  EXPECT_EQ((Paths{"greetings/wave"}), library.findTag("greeting"));
  EXPECT_FALSE(log.texts(vu::log::warning, "vu.project").empty());
}

TEST(EmptyLibrary, IsInvalidAndHoldsNothing) {
  ScratchDir source;
  makeBehavior(source / "b");
  BehaviorLibraryProject library("");
  Recorder recorder;
  recorder.connect(library);
  EXPECT_FALSE(library.valid());
  EXPECT_EQ("", library.projectPath());
  EXPECT_EQ(Paths{}, library.behaviorPaths("", true));
  EXPECT_FALSE(library.hasBehavior("b"));
  EXPECT_EQ(Paths{}, library.tags("", true));
  EXPECT_EQ(Paths{}, library.findTag("x"));
  EXPECT_FALSE(library.importBehavior(source / "b", "b", true));
  EXPECT_FALSE(library.removeBehavior("b"));
  EXPECT_TRUE(recorder.events.empty());
}

TEST(MissingRoot, IsInvalidUntilItAppears) {
  ScratchDir dir;
  BehaviorLibraryProject library(dir / "later");
  EXPECT_FALSE(library.valid());
  EXPECT_EQ(Paths{}, library.behaviorPaths("", true));
  makeBehavior(dir / "later/wave", {"arm"});
  EXPECT_TRUE(library.valid());
  EXPECT_EQ((Paths{"wave"}), library.behaviorPaths("", true));
  EXPECT_EQ((Paths{"wave"}), library.findTag("arm"));
}

TEST_F(LibraryTest, ImportInPlaceFiresAddedThenUpdated) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  // Written below the root by other means (a file server) after the library was opened:
  // listed at once, but not yet announced.
  makeBehavior(root / "uploads/jump", {"sport"}, "jump v1");
  EXPECT_TRUE(library.hasBehavior("uploads/jump"));
  const std::vector<std::string> before = listDir(root / "uploads/jump");
  EXPECT_TRUE(library.importBehavior(root / "uploads/jump", "uploads/jump", true));
  EXPECT_TRUE(library.importBehavior(root.path() + "/uploads//jump/", "/uploads/jump", true));
  EXPECT_EQ((std::vector<std::string>{"added:uploads/jump", "updated:uploads/jump"}),
            recorder.events);
  EXPECT_EQ(before, listDir(root / "uploads/jump"));  // nothing copied
  EXPECT_EQ("jump v1", readFile(root / "uploads/jump/behavior.xar"));
  EXPECT_EQ((std::vector<std::string>{"bow", "more", "wave"}), listDir(root / "greetings"));
}

TEST_F(LibraryTest, ImportInPlaceOfABehaviorKnownAtOpeningIsAnUpdate) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  EXPECT_TRUE(library.importBehavior(root / "greetings/wave", "greetings/wave", false));
  EXPECT_EQ((std::vector<std::string>{"updated:greetings/wave"}), recorder.events);
  EXPECT_EQ("<xar/>", readFile(root / "greetings/wave/behavior.xar"));
}

TEST_F(LibraryTest, ImportInPlaceOfAnUploadStillWithoutBehaviorXarFails) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  writeFile(root / "uploads/run/project.xml", projectXml("Behavior", {"sport"}));
  EXPECT_FALSE(library.importBehavior(root / "uploads/run", "uploads/run", true));
  writeFile(root / "uploads/run/behavior.xar", "run");  // the upload completes
  EXPECT_TRUE(library.importBehavior(root / "uploads/run", "uploads/run", true));
  EXPECT_EQ((std::vector<std::string>{"added:uploads/run"}), recorder.events);
  EXPECT_EQ((Paths{"uploads/run"}), library.findTag("sport"));
}

TEST_F(LibraryTest, RemovedThenImportedAgainIsAdded) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  EXPECT_TRUE(library.removeBehavior("greetings/bow"));
  EXPECT_TRUE(library.importBehavior(source / "wave2", "greetings/bow", false));
  EXPECT_EQ((std::vector<std::string>{"removed:greetings/bow", "added:greetings/bow"}),
            recorder.events);
}

TEST_F(LibraryTest, ImportCopiesThenUpdates) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  EXPECT_TRUE(library.importBehavior(source / "wave2", "greetings/wave2", false));
  EXPECT_EQ((std::vector<std::string>{"added:greetings/wave2"}), recorder.events);
  EXPECT_TRUE(library.hasBehavior("greetings/wave2"));
  EXPECT_EQ("frames", readFile(root / "greetings/wave2/data/anim.bin"));
  EXPECT_EQ((Paths{"greetings/wave2"}), library.findTag("fresh"));
  EXPECT_TRUE(exists(source / "wave2/behavior.xar"));  // the source stays
  // In place now: the second import of the same directory is an update.
  EXPECT_TRUE(library.importBehavior(root / "greetings/wave2", "greetings/wave2", true));
  EXPECT_EQ((std::vector<std::string>{"added:greetings/wave2", "updated:greetings/wave2"}),
            recorder.events);
}

TEST_F(LibraryTest, ImportIntoNewParentDirectories) {
  BehaviorLibraryProject library(root.path());
  EXPECT_TRUE(library.importBehavior(source / "wave2", "/a/b//c/", false));
  EXPECT_EQ((Paths{"a/b/c"}), library.behaviorPaths("a", true));
}

TEST_F(LibraryTest, OverwriteFalseRefusesAnExistingDestination) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  EXPECT_FALSE(library.importBehavior(source / "wave2", "greetings/wave", false));
  EXPECT_FALSE(library.importBehavior(source / "wave2", "empty", false));  // not a behavior
  writeFile(root / "afile", "x");
  EXPECT_FALSE(library.importBehavior(source / "wave2", "afile", false));
  EXPECT_TRUE(recorder.events.empty());
  EXPECT_EQ("<xar/>", readFile(root / "greetings/wave/behavior.xar"));
  EXPECT_EQ("nothing", readFile(root / "empty/readme.txt"));
}

TEST_F(LibraryTest, OverwriteReplacesTheWholeDirectoryAndFiresUpdated) {
  writeFile(root / "greetings/wave/old-only.txt", "old");
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  EXPECT_TRUE(library.importBehavior(source / "wave2", "greetings/wave", true));
  EXPECT_EQ((std::vector<std::string>{"updated:greetings/wave"}), recorder.events);
  EXPECT_EQ("new wave", readFile(root / "greetings/wave/behavior.xar"));
  EXPECT_FALSE(exists(root / "greetings/wave/old-only.txt"));
  EXPECT_EQ((Paths{"fresh"}), library.tags("greetings/wave", true));
  EXPECT_EQ((Paths{"greetings/bow"}), library.findTag("greeting"));
  // Nothing is left beside it: no copy in progress, no old copy.
  EXPECT_EQ((std::vector<std::string>{"bow", "more", "wave"}), listDir(root / "greetings"));
}

TEST_F(LibraryTest, OverwritingADirectoryOfBehaviorsAnnouncesThoseItHides) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  EXPECT_TRUE(library.importBehavior(source / "wave2", "greetings", true));
  EXPECT_EQ((std::vector<std::string>{"removed:greetings/bow", "removed:greetings/more/hi",
                                      "removed:greetings/wave", "added:greetings"}),
            recorder.events);
  EXPECT_EQ((Paths{"greetings"}), library.behaviorPaths("greetings", true));
}

TEST_F(LibraryTest, ImportRefusesNonBehaviorsAndBadDestinations) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  LogCapture log;
  EXPECT_FALSE(library.importBehavior(root / "empty", "copy", true));
  EXPECT_FALSE(library.importBehavior(source / "missing", "copy", true));
  EXPECT_FALSE(library.importBehavior(source / "wave2", "", true));
  EXPECT_FALSE(library.importBehavior(source / "wave2", "../outside", true));
  EXPECT_FALSE(library.importBehavior(source / "wave2", "dance/sub", true));  // inside a behavior
  EXPECT_FALSE(library.importBehavior(root / "dance", "dance/inner/deeper", true));
  EXPECT_TRUE(recorder.events.empty());
  EXPECT_FALSE(exists(root / "copy"));
  EXPECT_FALSE(exists(root.path() + "/../outside"));
  EXPECT_FALSE(exists(root / "dance/sub"));
  EXPECT_EQ(6u, log.texts(vu::log::warning, "vu.project").size());
}

TEST_F(LibraryTest, RemoveDeletesAndFiresRemoved) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  EXPECT_TRUE(library.removeBehavior("/greetings/wave/"));
  EXPECT_EQ((std::vector<std::string>{"removed:greetings/wave"}), recorder.events);
  EXPECT_FALSE(exists(root / "greetings/wave"));
  EXPECT_FALSE(library.hasBehavior("greetings/wave"));
  EXPECT_EQ((Paths{"greetings/bow"}), library.findTag("greeting"));
  EXPECT_EQ((std::vector<std::string>{"bow", "more"}), listDir(root / "greetings"));
}

TEST_F(LibraryTest, RemoveRefusesWhatIsNotABehaviorOfTheLibrary) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  EXPECT_FALSE(library.removeBehavior("greetings"));
  EXPECT_FALSE(library.removeBehavior("dance/inner"));
  EXPECT_FALSE(library.removeBehavior("missing"));
  EXPECT_FALSE(library.removeBehavior(""));
  EXPECT_FALSE(library.removeBehavior("greetings/../dance"));
  EXPECT_TRUE(recorder.events.empty());
  EXPECT_TRUE(exists(root / "greetings/wave"));
  EXPECT_TRUE(exists(root / "dance/inner/behavior.xar"));
}

TEST_F(LibraryTest, RemovingAnOuterBehaviorRevealsNothingSinceItIsDeletedWhole) {
  BehaviorLibraryProject library(root.path());
  EXPECT_TRUE(library.removeBehavior("dance"));
  EXPECT_FALSE(library.hasBehavior("dance/inner"));
  EXPECT_FALSE(exists(root / "dance"));
}

TEST_F(LibraryTest, DisconnectByBoundExpressionDisconnectsExactlyThatSlot) {
  using boost::placeholders::_1;
  BehaviorLibraryProject library(root.path());
  Recorder mine;
  Recorder other;
  int plainCalls = 0;
  library.behaviorAdded.connect(boost::bind(&Recorder::onBehaviorAdded, &mine, _1));
  library.behaviorAdded.connect(boost::bind(&Recorder::onBehaviorAdded, &other, _1));
  library.behaviorAdded.connect(boost::bind(&Recorder::onSomethingElse, &mine, _1));
  library.behaviorAdded.connect([&plainCalls](const std::string&) { ++plainCalls; });
  ASSERT_EQ(4u, library.behaviorAdded.num_slots());

  library.behaviorAdded.disconnect(boost::bind(&Recorder::onBehaviorAdded, &mine, _1));
  EXPECT_EQ(3u, library.behaviorAdded.num_slots());

  EXPECT_TRUE(library.importBehavior(source / "wave2", "new", false));
  EXPECT_EQ((std::vector<std::string>{"else:new"}), mine.events);
  EXPECT_EQ((std::vector<std::string>{"added:new"}), other.events);
  EXPECT_EQ(1, plainCalls);

  // Disconnecting an expression that is not connected changes nothing.
  library.behaviorAdded.disconnect(boost::bind(&Recorder::onBehaviorUpdated, &mine, _1));
  EXPECT_EQ(3u, library.behaviorAdded.num_slots());
}

TEST_F(LibraryTest, SlotsMayQueryAndChangeTheLibrary) {
  BehaviorLibraryProject library(root.path());
  std::vector<bool> seen;
  library.behaviorAdded.connect([&](const std::string& path) {
    seen.push_back(library.hasBehavior(path));
    seen.push_back(library.behaviorPaths("", true).count(path) == 1);
  });
  library.behaviorRemoved.connect([&](const std::string& path) {
    seen.push_back(library.hasBehavior(path));
    if (path == "new") {
      EXPECT_TRUE(library.importBehavior(source / "wave2", "again", false));
    }
  });
  EXPECT_TRUE(library.importBehavior(source / "wave2", "new", false));
  EXPECT_TRUE(library.removeBehavior("new"));
  EXPECT_EQ((std::vector<bool>{true, true, false, true, true}), seen);
  EXPECT_TRUE(library.hasBehavior("again"));
}

TEST_F(LibraryTest, CopyHasFreshSignalsAndTheSameLibrary) {
  BehaviorLibraryProject library(root.path());
  Recorder recorder;
  recorder.connect(library);
  BehaviorLibraryProject copy(library);
  EXPECT_EQ(0u, copy.behaviorAdded.num_slots());
  EXPECT_EQ(library.projectPath(), copy.projectPath());
  EXPECT_EQ(library.behaviorPaths("", true), copy.behaviorPaths("", true));
  EXPECT_TRUE(copy.importBehavior(source / "wave2", "viacopy", false));
  EXPECT_TRUE(recorder.events.empty());         // the copy's signals are its own
  EXPECT_TRUE(library.hasBehavior("viacopy"));  // but the disk is shared
}

TEST_F(LibraryTest, AssignmentTakesTheLibraryAndKeepsTheTargetSignals) {
  ScratchDir otherRoot;
  makeBehavior(otherRoot / "solo", {"one"});
  BehaviorLibraryProject library("");
  Recorder recorder;
  recorder.connect(library);
  int temporarySlotCalls = 0;
  {
    BehaviorLibraryProject temporary(otherRoot.path());
    temporary.behaviorAdded.connect([&](const std::string&) { ++temporarySlotCalls; });
    library = temporary;
  }
  EXPECT_EQ(1u, library.behaviorAdded.num_slots());
  EXPECT_TRUE(library.valid());
  EXPECT_EQ(otherRoot.path(), library.projectPath());
  EXPECT_EQ((Paths{"solo"}), library.behaviorPaths("", true));
  EXPECT_EQ((Paths{"one"}), library.tags("", true));
  EXPECT_TRUE(library.importBehavior(source / "wave2", "two", false));
  EXPECT_EQ((std::vector<std::string>{"added:two"}), recorder.events);
  EXPECT_EQ(0, temporarySlotCalls);

  library = BehaviorLibraryProject(root.path());
  EXPECT_EQ(root.path(), library.projectPath());
  EXPECT_TRUE(library.hasBehavior("dance"));
  EXPECT_FALSE(library.hasBehavior("solo"));
  library = BehaviorLibraryProject("");
  EXPECT_FALSE(library.valid());
  EXPECT_EQ(Paths{}, library.behaviorPaths("", true));
  EXPECT_EQ(3u, library.behaviorAdded.num_slots() + library.behaviorUpdated.num_slots() +
                    library.behaviorRemoved.num_slots());
}

TEST_F(LibraryTest, HiddenDirectoriesAreBehaviorsToo) {
  makeBehavior(root / ".default");
  BehaviorLibraryProject library(root.path());
  EXPECT_TRUE(library.hasBehavior(".default"));
}

TEST_F(LibraryTest, SymbolicLinksToBehaviorsAreListedAndLoopsDoNotHang) {
  makeBehavior(source / "linked", {"linked"});
  ASSERT_EQ(0, ::symlink((source / "linked").c_str(), (root / "shortcut").c_str()));
  ASSERT_EQ(0, ::symlink(root.path().c_str(), (root / "greetings/loop").c_str()));
  BehaviorLibraryProject library(root.path());
  EXPECT_TRUE(library.hasBehavior("shortcut"));
  EXPECT_EQ((Paths{"shortcut"}), library.findTag("linked"));
  EXPECT_FALSE(library.hasBehavior("greetings/loop/dance"));
}
