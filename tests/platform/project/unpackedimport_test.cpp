// Importing the directory importProject unpacked a package into: moved into the library
// when it can be, copied otherwise, and never lost by a failed import.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project/behaviorlibraryproject.h>
#include <vu/project/package.h>

#include <boost/filesystem.hpp>

#include "support.h"

using namespace projecttest;
using vu::project::BehaviorLibraryProject;
namespace fs = boost::filesystem;

namespace {

const std::vector<ArchiveEntry>& kWave = wavePackage();

ino_t inodeOf(const std::string& path) {
  struct stat info;
  EXPECT_EQ(0, ::lstat(path.c_str(), &info)) << path;
  return info.st_ino;
}

dev_t deviceOf(const std::string& path) {
  struct stat info;
  EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
  return info.st_dev;
}

class UnpackedImportTest : public ::testing::Test {
protected:
  void SetUp() override { writeArchive(work / "wave.tgz", Container::TarGz, kWave); }

  void unpack(const std::string& dest) {
    vu::project::ArchiveFormat format = vu::project::ArchiveFormatDetect;
    vu::project::importProject(work / "wave.tgz", dest, format);
  }

  void expectWave(const std::string& dir) {
    EXPECT_EQ("<xar/>", readFile(dir + "/behavior.xar"));
    EXPECT_EQ("frames", readFile(dir + "/data/anim.bin"));
  }

  ScratchDir work;  // the package and the unpacked directories
  ScratchDir root;  // the library, on the same file system as work
};

}  // namespace

TEST_F(UnpackedImportTest, AFreshUnpackIsMovedIntoTheLibraryNotCopied) {
  BehaviorLibraryProject library(root.path());
  unpack(work / "tmp");
  const ino_t file = inodeOf(work / "tmp/data/anim.bin");

  ASSERT_TRUE(library.importBehavior(work / "tmp", "greetings/wave", false));
  expectWave(root / "greetings/wave");
  EXPECT_EQ(file, inodeOf(root / "greetings/wave/data/anim.bin"));  // the same file
  EXPECT_FALSE(exists(work / "tmp"));
  EXPECT_EQ((std::vector<std::string>{"wave"}), listDir(root / "greetings"));  // no staging left
  EXPECT_TRUE(library.hasBehavior("greetings/wave"));
}

TEST_F(UnpackedImportTest, AFreshUnpackReplacesAnExistingBehaviorWhenOverwriting) {
  makeBehavior(root / "wave", {}, "old");
  BehaviorLibraryProject library(root.path());
  unpack(work / "tmp");

  ASSERT_TRUE(library.importBehavior(work / "tmp", "wave", true));
  expectWave(root / "wave");
  EXPECT_FALSE(exists(work / "tmp"));
  EXPECT_EQ((std::vector<std::string>{"wave"}), listDir(root.path()));
}

TEST_F(UnpackedImportTest, AFailedImportLeavesTheUnpackWhereItWasAndALaterOneStillMovesIt) {
  makeBehavior(root / "wave", {}, "old");
  BehaviorLibraryProject library(root.path());
  unpack(work / "tmp");
  const ino_t file = inodeOf(work / "tmp/data/anim.bin");

  EXPECT_FALSE(library.importBehavior(work / "tmp", "wave", false));  // exists, no overwrite
  expectWave(work / "tmp");
  EXPECT_EQ("old", readFile(root / "wave/behavior.xar"));

  ASSERT_TRUE(library.importBehavior(work / "tmp", "other", false));
  EXPECT_EQ(file, inodeOf(root / "other/data/anim.bin"));
  EXPECT_FALSE(exists(work / "tmp"));
}

TEST_F(UnpackedImportTest, AnUnpackMergedIntoAnExistingDirectoryIsCopied) {
  BehaviorLibraryProject library(root.path());
  writeFile(work / "tmp/notes.txt", "mine");
  unpack(work / "tmp");  // the directory was there before: not the call's own

  ASSERT_TRUE(library.importBehavior(work / "tmp", "wave", false));
  expectWave(root / "wave");
  expectWave(work / "tmp");
  EXPECT_EQ("mine", readFile(work / "tmp/notes.txt"));
}

TEST_F(UnpackedImportTest, ADirectoryPutWhereAnUnpackWasIsCopied) {
  BehaviorLibraryProject library(root.path());
  unpack(work / "tmp");
  fs::remove_all(work / "tmp");
  makeBehavior(work / "tmp", {}, "other content");  // same path, another directory

  ASSERT_TRUE(library.importBehavior(work / "tmp", "wave", false));
  EXPECT_EQ("other content", readFile(root / "wave/behavior.xar"));
  EXPECT_EQ("other content", readFile(work / "tmp/behavior.xar"));
}

TEST_F(UnpackedImportTest, AnUnpackOnAnotherFileSystemIsCopied) {
  const std::string shm = "/dev/shm";
  if (!fs::is_directory(shm) || ::access(shm.c_str(), W_OK) != 0 ||
      deviceOf(shm) == deviceOf(root.path())) {
    GTEST_SKIP() << "no writable file system apart from the temporary directory's";
  }
  const fs::path elsewhere = fs::path(shm) / fs::unique_path("tuqvu-unpack-%%%%-%%%%");
  BehaviorLibraryProject library(root.path());
  unpack(elsewhere.string());

  const bool imported = library.importBehavior(elsewhere.string(), "wave", false);
  const bool sourceStays = exists(elsewhere.string());
  fs::remove_all(elsewhere);
  ASSERT_TRUE(imported);
  expectWave(root / "wave");
  EXPECT_TRUE(sourceStays);
  EXPECT_EQ((std::vector<std::string>{"wave"}), listDir(root.path()));
}

TEST_F(UnpackedImportTest, AnUnpackChangedSinceIsCopied) {
  BehaviorLibraryProject library(root.path());
  unpack(work / "tmp");
  writeFile(work / "tmp/added-later.txt", "by someone else");

  ASSERT_TRUE(library.importBehavior(work / "tmp", "wave", false));
  EXPECT_EQ("by someone else", readFile(root / "wave/added-later.txt"));
  EXPECT_EQ("by someone else", readFile(work / "tmp/added-later.txt"));
}
