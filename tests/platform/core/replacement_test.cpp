// A file replaced in one step: until commit() the folder holds only what it held before,
// after it the whole new content, with the old mode when asked for; a link at the name is
// replaced, never followed.
#include <common/files.h>
#include <unistd.h>
#include <vu/replacement.h>

#include <vector>

#include "beneathfixture.h"

namespace {

namespace fs = boost::filesystem;
using vu::beneath::Replacement;

std::vector<std::string> namesIn(const fs::path& directory) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(directory), end; it != end; ++it) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void write(const Replacement& file, const std::string& content) {
  ASSERT_EQ(static_cast<ssize_t>(content.size()),
            ::write(file.fd(), content.data(), content.size()));
}

using ReplacementTest = BeneathTest;

TEST_F(ReplacementTest, TheFolderShowsNothingNewUntilTheCommit) {
  writeFile(root() / "take.wav", "old");
  Replacement next(rootFd());
  ASSERT_TRUE(next.valid());
  write(next, "new content");
  EXPECT_EQ(namesIn(root()), std::vector<std::string>{"take.wav"});
  EXPECT_EQ("old", tuqvutest::readFile(root() / "take.wav"));

  ASSERT_TRUE(next.commit("take.wav"));
  EXPECT_EQ("new content", tuqvutest::readFile(root() / "take.wav"));
  EXPECT_EQ(namesIn(root()), std::vector<std::string>{"take.wav"});
}

TEST_F(ReplacementTest, OneDroppedWithoutCommitLeavesTheFolderAsItWas) {
  writeFile(root() / "take.wav", "old");
  {
    Replacement next(rootFd());
    ASSERT_TRUE(next.valid());
    write(next, "half of it");
  }
  EXPECT_EQ(namesIn(root()), std::vector<std::string>{"take.wav"});
  EXPECT_EQ("old", tuqvutest::readFile(root() / "take.wav"));
}

TEST_F(ReplacementTest, ANewNameIsCreated) {
  Replacement next(rootFd());
  write(next, "first");
  ASSERT_TRUE(next.commit("first.txt"));
  EXPECT_EQ("first", tuqvutest::readFile(root() / "first.txt"));
}

TEST_F(ReplacementTest, TheModeGivenIsTheModeOfTheNewFile) {
  Replacement next(rootFd());
  write(next, "#!/bin/sh\n");
  ASSERT_TRUE(next.commit("run.sh", 0751));
  EXPECT_EQ(fs::perms(0751), fs::status(root() / "run.sh").permissions());
}

TEST_F(ReplacementTest, ALinkAtTheNameIsReplacedAndItsTargetLeftAlone) {
  writeFile(outside() / "victim.txt", "outside");
  fs::create_symlink(outside() / "victim.txt", root() / "take.wav");
  Replacement next(rootFd());
  write(next, "new");
  ASSERT_TRUE(next.commit("take.wav"));
  EXPECT_FALSE(fs::is_symlink(root() / "take.wav"));
  EXPECT_EQ("new", tuqvutest::readFile(root() / "take.wav"));
  EXPECT_EQ("outside", tuqvutest::readFile(outside() / "victim.txt"));
}

TEST_F(ReplacementTest, ACommitOverAFolderFailsAndKeepsTheFolder) {
  writeFile(root() / "take.wav" / "inside.txt", "kept");
  Replacement next(rootFd());
  write(next, "new");
  EXPECT_FALSE(next.commit("take.wav"));
  EXPECT_EQ("kept", tuqvutest::readFile(root() / "take.wav" / "inside.txt"));
  EXPECT_EQ(namesIn(root()), std::vector<std::string>{"take.wav"});
}

TEST_F(ReplacementTest, ANameThatIsAPathIsRefusedAndNothingIsLeft) {
  writeFile(root() / "sub" / "take.wav", "old");
  for (const std::string name : {"sub/take.wav", "../take.wav", "..", ".", ""}) {
    Replacement next(rootFd());
    write(next, "new");
    errno = 0;
    EXPECT_FALSE(next.commit(name)) << name;
    EXPECT_EQ(EINVAL, errno) << name;
  }
  EXPECT_EQ("old", tuqvutest::readFile(root() / "sub" / "take.wav"));
  EXPECT_EQ(namesIn(root()), std::vector<std::string>{"sub"});
  EXPECT_EQ(namesIn(root() / "sub"), std::vector<std::string>{"take.wav"});
}

}  // namespace
