// Imports and removals against symbolic links: a link of a behavior is kept only while
// it resolves inside that behavior's own folder wherever the folder lands, and no link
// in the library leads an import or a removal outside it.
#include <common/files.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vu/project/behaviorlibraryproject.h>

#include "support.h"

using namespace projecttest;
using tuqvutest::repeated;
using vu::project::BehaviorLibraryProject;

namespace {

bool isLink(const std::string& path) {
  char target[16];
  return ::readlink(path.c_str(), target, sizeof target) >= 0;
}

void makeLink(const std::string& target, const std::string& link) {
  ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0) << link;
}

}  // namespace

TEST(ImportLinks, ALinkStayingInsideTheBehaviorIsKept) {
  ScratchDir root, source;
  makeBehavior(source / "wave", {}, "xar");
  writeFile(source / "wave/data/anim.bin", "frames");
  makeLink("anim.bin", source / "wave/data/link");
  makeLink("../behavior.xar", source / "wave/data/up");
  BehaviorLibraryProject library(root.path());
  ASSERT_TRUE(library.importBehavior(source / "wave", "wave", false));
  EXPECT_TRUE(isLink(root / "wave/data/link"));
  EXPECT_EQ("frames", readFile(root / "wave/data/link"));
  EXPECT_EQ("xar", readFile(root / "wave/data/up"));
}

// The folder 24 levels down a package holds a link that climbs 24 levels: in bounds of
// the package, out of bounds once that folder is installed at the top of the library.
TEST(ImportLinks, AFolderWhoseLinkWouldLeaveItWhereItLandsIsRefused) {
  ScratchDir root, source, outside;
  writeFile(outside / "secret", "secret");
  const std::string deep = repeated("a", 24);
  makeBehavior(source / ("pkg/" + deep));
  makeLink(repeated("..", 24) + outside.path() + "/secret", source / ("pkg/" + deep + "/leak"));
  BehaviorLibraryProject library(root.path());
  LogCapture log;
  EXPECT_FALSE(library.importBehavior(source / ("pkg/" + deep), "ra", true));
  EXPECT_FALSE(exists(root / "ra"));
  EXPECT_FALSE(library.hasBehavior("ra"));
  EXPECT_EQ(std::vector<std::string>{}, listDir(root.path()));
  const auto refusals = log.find("BehaviorLibraryProject::importBehavior", "\"leak\"");
  ASSERT_EQ(1u, refusals.size());
  EXPECT_EQ(std::string::npos, refusals[0].text.find(outside.path()));
  EXPECT_NE(std::string::npos, refusals[0].text.find("leads outside"));
}

TEST(ImportLinks, AnAbsoluteLinkIsRefused) {
  ScratchDir root, source;
  makeBehavior(source / "wave");
  makeLink("/", source / "wave/root");
  BehaviorLibraryProject library(root.path());
  EXPECT_FALSE(library.importBehavior(source / "wave", "wave", true));
  EXPECT_FALSE(exists(root / "wave"));
}

TEST(ImportLinks, NothingIsCreatedThroughALinkInTheLibrary) {
  ScratchDir root, source, outside;
  makeBehavior(source / "wave");
  ::mkdir((root / "rb").c_str(), 0777);
  makeLink(outside.path(), root / "rb/root");
  BehaviorLibraryProject library(root.path());
  EXPECT_FALSE(library.importBehavior(source / "wave", "rb/root/lib", true));
  EXPECT_FALSE(library.importBehavior(source / "wave", "rb/root/new/lib", true));
  EXPECT_EQ(std::vector<std::string>{}, listDir(outside.path()));
}

TEST(ImportLinks, ALinkAtTheDestinationIsReplacedAndItsTargetLeftAlone) {
  ScratchDir root, source, outside;
  makeBehavior(source / "wave", {}, "new");
  makeBehavior(outside / "old", {}, "old");
  makeLink(outside / "old", root / "wave");
  BehaviorLibraryProject library(root.path());
  EXPECT_TRUE(library.importBehavior(source / "wave", "wave", true));
  EXPECT_FALSE(isLink(root / "wave"));
  EXPECT_EQ("new", readFile(root / "wave/behavior.xar"));
  EXPECT_EQ("old", readFile(outside / "old/behavior.xar"));
}

TEST(ImportLinks, RemovalNeverFollowsALinkInTheLibrary) {
  ScratchDir root, outside;
  makeBehavior(outside / "x", {}, "outside");
  makeLink(outside.path(), root / "rb");
  BehaviorLibraryProject library(root.path());
  EXPECT_FALSE(library.removeBehavior("rb/x"));
  EXPECT_EQ("outside", readFile(outside / "x/behavior.xar"));
}
