// Copies, renames and the link rule of the confinement layer (vu/beneath.h): a copy
// never follows a link, keeps a link only while it resolves inside the folder being
// copied, and stops when a directory is swapped for a link under it.
#include <common/files.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/beneath.h>

#include <atomic>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "beneathfixture.h"

namespace fs = boost::filesystem;
using tuqvutest::readFile;
using tuqvutest::repeated;
using vu::beneath::CopyProblem;
using vu::beneath::linkStaysWithin;
using vu::beneath::UniqueFd;

TEST(LinkRule, ALinkStaysWithinItsFolderWhenItsParentsDoNotClimbAboveTheTop) {
  EXPECT_TRUE(linkStaysWithin("link", "file"));
  EXPECT_TRUE(linkStaysWithin("link", "./sub/file"));
  EXPECT_TRUE(linkStaysWithin("a/b/link", "../../file"));
  EXPECT_TRUE(linkStaysWithin("a/b/link", "../c/d"));
  EXPECT_TRUE(linkStaysWithin("a/link", ".."));
}

TEST(LinkRule, AbsoluteTargetsAndTargetsLeavingTheFolderAreRefused) {
  EXPECT_FALSE(linkStaysWithin("link", "/"));
  EXPECT_FALSE(linkStaysWithin("link", "/etc/passwd"));
  EXPECT_FALSE(linkStaysWithin("link", ".."));
  EXPECT_FALSE(linkStaysWithin("a/b/link", "../../../file"));
  EXPECT_FALSE(linkStaysWithin("link", ""));
  // The relocated link of a package: in bounds 24 levels down, out of bounds at the top.
  const std::string target = repeated("..", 24) + "/etc/passwd";
  EXPECT_TRUE(linkStaysWithin(repeated("a", 24) + "/leak", target));
  EXPECT_FALSE(linkStaysWithin("leak", target));
}

TEST(LinkRule, ATargetThatClimbsAfterDescendingIsRefused) {
  // "d" may itself be a link to a shallower folder, so "d/.." is not where it looks.
  EXPECT_FALSE(linkStaysWithin("a/link", "d/../file"));
  EXPECT_FALSE(linkStaysWithin("link", "d/.."));
}

TEST_F(BeneathTest, CopyReproducesFilesFoldersPermissionsAndInsideLinks) {
  writeFile(root() / "from" / "behavior.xar", "xar");
  writeFile(root() / "from" / "sub" / "script.sh", "run");
  fs::permissions(root() / "from" / "sub" / "script.sh", fs::perms(0750));
  fs::create_symlink("../behavior.xar", root() / "from" / "sub" / "alias");
  fs::create_symlink("sub", root() / "from" / "shortcut");
  const CopyProblem problem = vu::beneath::copyTree(rootFd(), "from", rootFd(), "to");
  ASSERT_FALSE(problem) << problem.entry << ": " << std::strerror(problem.error);
  EXPECT_EQ(readFile(root() / "to" / "behavior.xar"), "xar");
  EXPECT_EQ(readFile(root() / "to" / "sub" / "script.sh"), "run");
  EXPECT_EQ(fs::status(root() / "to" / "sub" / "script.sh").permissions() & 0777, 0750);
  EXPECT_EQ(fs::read_symlink(root() / "to" / "sub" / "alias"), "../behavior.xar");
  EXPECT_EQ(fs::read_symlink(root() / "to" / "shortcut"), "sub");
  EXPECT_EQ(readFile(root() / "to" / "sub" / "alias"), "xar");
}

TEST_F(BeneathTest, CopyOfTheDirectoryItselfByDot) {
  writeFile(root() / "from" / "file", "f");
  UniqueFd from(vu::beneath::openDirectory((root() / "from").string()));
  ASSERT_TRUE(from);
  const CopyProblem problem = vu::beneath::copyTree(from.get(), ".", rootFd(), "to");
  ASSERT_FALSE(problem) << std::strerror(problem.error);
  EXPECT_EQ(readFile(root() / "to" / "file"), "f");
}

TEST_F(BeneathTest, CopyRefusesALinkLeavingTheFolderItCopies) {
  writeFile(outside() / "secret", "secret");
  // In bounds of the whole tree, out of bounds of the folder "from/sub" that is copied.
  writeFile(root() / "from" / "sub" / "file", "f");
  fs::create_symlink("../../outside-of-sub", root() / "from" / "sub" / "up");
  fs::create_directories(root() / "outside-of-sub");
  UniqueFd from(vu::beneath::openDirectory((root() / "from").string()));
  CopyProblem problem = vu::beneath::copyTree(from.get(), "sub", rootFd(), "to");
  EXPECT_EQ(problem.error, EXDEV);
  EXPECT_TRUE(problem.linkLeavesFolder);
  EXPECT_EQ(problem.entry, "up");
  EXPECT_FALSE(fs::exists(fs::symlink_status(root() / "to" / "up")));
}

TEST_F(BeneathTest, CopyRefusesAbsoluteLinks) {
  writeFile(outside() / "secret", "secret");
  writeFile(root() / "from" / "file", "f");
  fs::create_symlink(outside() / "secret", root() / "from" / "abs");
  const CopyProblem problem = vu::beneath::copyTree(rootFd(), "from", rootFd(), "to");
  EXPECT_TRUE(problem.linkLeavesFolder);
  EXPECT_EQ(problem.entry, "abs");
  EXPECT_FALSE(fs::exists(root() / "to" / "abs"));
}

TEST_F(BeneathTest, CopyOfARelocatedPackageFolderRefusesTheLinkThatWouldNowLeave) {
  const std::string deep = repeated("a", 24);
  writeFile(root() / "pkg" / deep / "behavior.xar", "xar");
  fs::create_symlink(repeated("..", 24) + "/etc/passwd", root() / "pkg" / deep / "leak");
  UniqueFd from(vu::beneath::openDirectory((root() / "pkg" / deep).string()));
  ASSERT_TRUE(from);
  const CopyProblem problem = vu::beneath::copyTree(from.get(), ".", rootFd(), "ra");
  EXPECT_TRUE(problem.linkLeavesFolder);
  EXPECT_EQ(problem.entry, "leak");
  EXPECT_FALSE(fs::exists(fs::symlink_status(root() / "ra" / "leak")));
}

TEST_F(BeneathTest, CopyNeverFollowsALinkAsTheFolderItCopies) {
  writeFile(outside() / "secret", "secret");
  fs::create_directory_symlink(outside(), root() / "from");
  const CopyProblem problem = vu::beneath::copyTree(rootFd(), "from", rootFd(), "to");
  EXPECT_TRUE(problem);
  EXPECT_FALSE(fs::exists(root() / "to" / "secret"));
}

TEST_F(BeneathTest, CopyWritesNothingThroughALinkAtTheDestination) {
  writeFile(root() / "from" / "file", "f");
  fs::create_symlink(outside() / "planted", root() / "to");
  const CopyProblem problem = vu::beneath::copyTree(rootFd(), "from", rootFd(), "to");
  EXPECT_EQ(problem.error, EEXIST);
  EXPECT_FALSE(fs::exists(outside() / "planted"));
}

// A folder of the source is swapped with a link to the outside again and again while
// copies run: each copy either fails or holds what was inside, never the outside file.
TEST_F(BeneathTest, CopyRacingAFolderSwappedForALinkNeverCopiesTheOutside) {
  writeFile(outside() / "file", "outside");
  writeFile(root() / "from" / "sub" / "file", "inside");
  fs::create_directory_symlink(outside(), root() / "swap");
  const std::string sub = (root() / "from" / "sub").string();
  const std::string swap = (root() / "swap").string();
  std::atomic<bool> stop{false};
  std::thread swapper([&]() {
    while (!stop.load()) {
      ::renameat2(AT_FDCWD, sub.c_str(), AT_FDCWD, swap.c_str(), RENAME_EXCHANGE);
    }
  });
  for (int i = 0; i < 300; ++i) {
    const std::string name = "to" + std::to_string(i);
    vu::beneath::copyTree(rootFd(), "from", rootFd(), name);
    const fs::path copy = root() / name / "sub" / "file";
    if (fs::exists(fs::symlink_status(copy))) {
      ASSERT_FALSE(fs::is_symlink(root() / name / "sub"));
      ASSERT_EQ(readFile(copy), "inside") << name;
    }
    vu::beneath::removeTree(rootFd(), name);
  }
  stop = true;
  swapper.join();
  EXPECT_EQ(readFile(outside() / "file"), "outside");
}

TEST_F(BeneathTest, RenameReplacesNothing) {
  writeFile(root() / "a" / "file", "a");
  writeFile(root() / "b" / "file", "b");
  EXPECT_EQ(vu::beneath::renameBeneath(rootFd(), "a", rootFd(), "b"), EEXIST);
  EXPECT_EQ(readFile(root() / "b" / "file"), "b");
  EXPECT_EQ(vu::beneath::renameBeneath(rootFd(), "a", rootFd(), "c"), 0);
  EXPECT_EQ(readFile(root() / "c" / "file"), "a");
  EXPECT_EQ(vu::beneath::renameBeneath(rootFd(), "c", rootFd(), "../c"), EINVAL);
}

TEST_F(BeneathTest, ExchangeSwapsTwoEntries) {
  writeFile(root() / "a" / "file", "a");
  writeFile(root() / "b" / "file", "b");
  EXPECT_EQ(vu::beneath::exchangeBeneath(rootFd(), "a", "b", ".aside"), 0);
  EXPECT_EQ(readFile(root() / "a" / "file"), "b");
  EXPECT_EQ(readFile(root() / "b" / "file"), "a");
}
