// The confinement layer's opens, directory making, listing and removal (vu/beneath.h):
// links, dangling links and ".." never lead out, and removals keep what must be kept.
// openBeneath and its fallback walk are held to the same cases.
#include <common/files.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/beneath.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "beneathfixture.h"

namespace fs = boost::filesystem;
using tuqvutest::readFile;
using vu::beneath::UniqueFd;

namespace {

using OpenFunction = int (*)(int, const std::string&, int, mode_t);

// Both ways to open beneath a directory.
class OpenBeneath : public BeneathTest, public ::testing::WithParamInterface<OpenFunction> {
protected:
  int open(const std::string& relative, int flags, mode_t mode = 0) {
    return GetParam()(rootFd(), relative, flags, mode);
  }
};

std::string contentOf(int fd) {
  std::string content;
  char buffer[256];
  ssize_t read;
  while ((read = ::read(fd, buffer, sizeof(buffer))) > 0) {
    content.append(buffer, static_cast<std::size_t>(read));
  }
  return content;
}

}  // namespace

TEST_P(OpenBeneath, OpensAFileBelowTheDirectory) {
  writeFile(root() / "a" / "b.txt", "inside");
  UniqueFd file(open("a/b.txt", O_RDONLY));
  ASSERT_TRUE(file) << std::strerror(errno);
  EXPECT_EQ(contentOf(file.get()), "inside");
}

TEST_P(OpenBeneath, AnEmptyPathOrDotIsTheDirectoryItself) {
  for (const char* relative : {"", ".", "./"}) {
    UniqueFd directory(open(relative, O_RDONLY | O_DIRECTORY));
    ASSERT_TRUE(directory) << relative;
    struct stat opened, expected;
    ASSERT_EQ(::fstat(directory.get(), &opened), 0);
    ASSERT_EQ(::stat(root().c_str(), &expected), 0);
    EXPECT_TRUE(vu::beneath::identityOf(opened) == vu::beneath::identityOf(expected)) << relative;
  }
}

TEST_P(OpenBeneath, ALinkAsTheLastComponentIsRefusedEvenWhenItStaysInside) {
  writeFile(root() / "real.txt", "real");
  fs::create_symlink("real.txt", root() / "alias.txt");
  writeFile(outside() / "secret.txt", "secret");
  fs::create_symlink(outside() / "secret.txt", root() / "out.txt");
  for (const char* relative : {"alias.txt", "out.txt"}) {
    errno = 0;
    EXPECT_EQ(open(relative, O_RDONLY), -1) << relative;
    EXPECT_EQ(errno, ELOOP) << relative;
  }
}

TEST_P(OpenBeneath, ALinkOnTheWayIsRefused) {
  writeFile(outside() / "d" / "secret.txt", "secret");
  fs::create_directory_symlink(outside() / "d", root() / "d");
  writeFile(root() / "real" / "x.txt", "x");
  fs::create_directory_symlink("real", root() / "inner");
  for (const char* relative : {"d/secret.txt", "inner/x.txt"}) {
    errno = 0;
    EXPECT_EQ(open(relative, O_RDONLY), -1) << relative;
    EXPECT_EQ(errno, ELOOP) << relative << ": " << std::strerror(errno);
  }
}

TEST_P(OpenBeneath, ParentComponentsAreRefused) {
  writeFile(outside() / "secret.txt", "secret");
  fs::create_directories(root() / "a");
  for (const char* relative : {"../outside/secret.txt", "a/../../outside/secret.txt", ".."}) {
    errno = 0;
    EXPECT_EQ(open(relative, O_RDONLY), -1) << relative;
    EXPECT_EQ(errno, EXDEV) << relative;
  }
}

TEST_P(OpenBeneath, CreatingThroughADanglingLinkCreatesNothingOutside) {
  fs::create_symlink(outside() / "planted.txt", root() / "dangling");
  EXPECT_EQ(open("dangling", O_WRONLY | O_CREAT, 0644), -1);
  EXPECT_EQ(open("dangling", O_WRONLY | O_CREAT | O_EXCL, 0644), -1);
  EXPECT_FALSE(fs::exists(outside() / "planted.txt"));
  EXPECT_TRUE(fs::is_symlink(root() / "dangling"));
}

TEST_P(OpenBeneath, CreatesANewFileBelowTheDirectory) {
  fs::create_directories(root() / "sub");
  UniqueFd file(open("sub/new.txt", O_WRONLY | O_CREAT | O_EXCL, 0600));
  ASSERT_TRUE(file) << std::strerror(errno);
  ASSERT_EQ(::write(file.get(), "new", 3), 3);
  file.reset();
  EXPECT_EQ(readFile(root() / "sub" / "new.txt"), "new");
  EXPECT_EQ(fs::status(root() / "sub" / "new.txt").permissions() & 0777, 0600);
}

INSTANTIATE_TEST_SUITE_P(Openat2AndWalk, OpenBeneath,
                         ::testing::Values(&vu::beneath::openBeneath,
                                           &vu::beneath::openBeneathByWalk),
                         [](const ::testing::TestParamInfo<OpenFunction>& info) {
                           return info.index == 0 ? std::string("Openat2") : std::string("Walk");
                         });

TEST_F(BeneathTest, MakeDirectoriesCreatesWhatIsMissingAndReturnsTheLast) {
  fs::create_directories(root() / "a");
  UniqueFd last(vu::beneath::makeDirectoriesBeneath(rootFd(), {"a", "b", ".", "c"}));
  ASSERT_TRUE(last) << std::strerror(errno);
  EXPECT_TRUE(fs::is_directory(root() / "a" / "b" / "c"));
  UniqueFd file(vu::beneath::openBeneath(last.get(), "f.txt", O_WRONLY | O_CREAT, 0644));
  ASSERT_TRUE(file);
  file.reset();
  EXPECT_TRUE(fs::exists(root() / "a" / "b" / "c" / "f.txt"));
}

TEST_F(BeneathTest, MakeDirectoriesStopsAtALinkAndCreatesNothingOutside) {
  fs::create_directory_symlink(outside() / "missing", root() / "dangling");
  fs::create_directory_symlink(outside(), root() / "existing");
  errno = 0;
  EXPECT_EQ(vu::beneath::makeDirectoriesBeneath(rootFd(), {"dangling", "x"}), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(vu::beneath::makeDirectoriesBeneath(rootFd(), {"existing", "x"}), -1);
  EXPECT_FALSE(fs::exists(outside() / "missing"));
  EXPECT_FALSE(fs::exists(outside() / "x"));
  EXPECT_EQ(vu::beneath::makeDirectoriesBeneath(rootFd(), {"..", "x"}), -1);
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(BeneathTest, MakeDirectoriesFailsOnAFileInTheWay) {
  writeFile(root() / "file", "a file where a directory is needed");
  errno = 0;
  EXPECT_EQ(vu::beneath::makeDirectoriesBeneath(rootFd(), {"file", "x"}), -1);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(BeneathTest, ListingMarksDirectoriesButNotLinksToThem) {
  writeFile(root() / "file", "f");
  fs::create_directories(root() / "dir");
  fs::create_directory_symlink(root() / "dir", root() / "link");
  std::vector<vu::beneath::DirectoryEntry> entries;
  ASSERT_TRUE(vu::beneath::listDirectory(rootFd(), &entries));
  std::vector<std::string> listed;
  for (const auto& entry : entries) {
    listed.push_back(entry.name + (entry.isDirectory ? "/" : ""));
  }
  std::sort(listed.begin(), listed.end());
  EXPECT_EQ(listed, (std::vector<std::string>{"dir/", "file", "link"}));
}

TEST_F(BeneathTest, RemoveTreeRemovesEverythingBelowWithoutFollowingLinks) {
  writeFile(outside() / "kept" / "file.txt", "outside");
  writeFile(root() / "tree" / "a" / "b.txt", "b");
  writeFile(root() / "tree" / "c.txt", "c");
  fs::create_directory_symlink(outside() / "kept", root() / "tree" / "a" / "out");
  fs::create_symlink(outside() / "kept" / "file.txt", root() / "tree" / "file-link");
  EXPECT_EQ(vu::beneath::removeTree(rootFd(), "tree", {}), 0);
  EXPECT_FALSE(fs::exists(fs::symlink_status(root() / "tree")));
  EXPECT_EQ(readFile(outside() / "kept" / "file.txt"), "outside");
}

TEST_F(BeneathTest, RemoveTreeRemovesALinkItselfAndNotItsTarget) {
  fs::create_directory_symlink(outside(), root() / "link");
  writeFile(outside() / "file.txt", "outside");
  EXPECT_EQ(vu::beneath::removeTree(rootFd(), "link", {}), 0);
  EXPECT_FALSE(fs::exists(fs::symlink_status(root() / "link")));
  EXPECT_EQ(readFile(outside() / "file.txt"), "outside");
}

TEST_F(BeneathTest, RemoveTreeOfNothingSucceeds) {
  EXPECT_EQ(vu::beneath::removeTree(rootFd(), "never-there", {}), 0);
}

TEST_F(BeneathTest, RemoveTreeLeavesAKeptDirectoryAndWhatLeadsToIt) {
  writeFile(root() / "tree" / "kept" / "inner.txt", "kept");
  writeFile(root() / "tree" / "other" / "x.txt", "x");
  struct stat kept;
  ASSERT_EQ(::stat((root() / "tree" / "kept").c_str(), &kept), 0);
  EXPECT_EQ(vu::beneath::removeTree(rootFd(), "tree", {vu::beneath::identityOf(kept)}), EBUSY);
  EXPECT_EQ(readFile(root() / "tree" / "kept" / "inner.txt"), "kept");
  EXPECT_FALSE(fs::exists(root() / "tree" / "other"));
}

TEST_F(BeneathTest, RemoveTreeRefusesNamesThatAreNotOneEntry) {
  writeFile(root() / "a" / "b.txt", "b");
  for (const char* name : {"", ".", "..", "a/b.txt"}) {
    EXPECT_EQ(vu::beneath::removeTree(rootFd(), name, {}), EINVAL) << name;
  }
  EXPECT_TRUE(fs::exists(root() / "a" / "b.txt"));
}

TEST_F(BeneathTest, ReadingAFileBeneathGivesItWholeAndRefusesLinksFifosAndTheOversized) {
  writeFile(root() / "a" / "page.html", "<p>hello</p>");
  writeFile(outside() / "secret.txt", "secret");
  fs::create_symlink(outside() / "secret.txt", root() / "out.txt");
  ASSERT_EQ(0, ::mkfifo((root() / "pipe").c_str(), 0600));
  std::string content = "left over";
  EXPECT_EQ(0, vu::beneath::readFileBeneath(rootFd(), "a/page.html", 100, &content));
  EXPECT_EQ("<p>hello</p>", content);
  EXPECT_EQ(EFBIG, vu::beneath::readFileBeneath(rootFd(), "a/page.html", 5, &content));
  EXPECT_EQ(ELOOP, vu::beneath::readFileBeneath(rootFd(), "out.txt", 100, &content));
  EXPECT_EQ(ENOENT, vu::beneath::readFileBeneath(rootFd(), "missing", 100, &content));
  EXPECT_EQ(EXDEV, vu::beneath::readFileBeneath(rootFd(), "../outside/secret.txt", 100, &content));
  // A FIFO nobody writes to is refused at once instead of waiting for a writer.
  EXPECT_EQ(EINVAL, vu::beneath::readFileBeneath(rootFd(), "pipe", 100, &content));
  EXPECT_EQ(EINVAL, vu::beneath::readFileBeneath(rootFd(), "a", 100, &content));
}
