// What a start removes of the staging copies that imports cut short by a crash left.
#include <common/process.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vu/project/staging.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <string>

#include "support.h"

using namespace projecttest;

using tuqvutest::endedProcess;

namespace {

std::string staging(pid_t pid, const std::string& rest) {
  return ".tuqvu-import-" + std::to_string(pid) + "-" + rest;
}

}  // namespace

TEST(StagingLeftovers, ThoseOfEndedProcessesAndOfOldVersionsGoAndTheRestStays) {
  ScratchDir dir;
  const pid_t ended = endedProcess();
  writeFile(dir / (staging(ended, "0a1b2c3d4e5f.unpack") + "/dance/behavior.xar"), "<xar/>");
  writeFile(dir / (staging(ended, "0a1b2c3d4e5f.xml")), "<xml/>");
  writeFile(dir / ".tuqvu-import-0a1b2c3d4e5f/behavior.xar", "<xar/>");  // no process id
  writeFile(dir / (staging(::getpid(), "aaaaaaaaaaaa") + "/behavior.xar"), "<xar/>");
  writeFile(dir / "dance/behavior.xar", "<xar/>");
  writeFile(dir / "tuqvu-import-lookalike/behavior.xar", "<xar/>");

  LogCapture log;
  std::vector<std::string> removed = vu::project::removeStagingLeftovers(dir.path(), 1);
  std::sort(removed.begin(), removed.end());
  EXPECT_EQ(removed, (std::vector<std::string>{dir / ".tuqvu-import-0a1b2c3d4e5f",
                                               dir / staging(ended, "0a1b2c3d4e5f.unpack"),
                                               dir / staging(ended, "0a1b2c3d4e5f.xml")}));
  EXPECT_EQ(listDir(dir.path()), (std::vector<std::string>{staging(::getpid(), "aaaaaaaaaaaa"),
                                                           "dance", "tuqvu-import-lookalike"}));
  const std::vector<std::string> lines = log.texts(vu::log::warning, "vu.project");
  EXPECT_EQ(3, std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
              return line.find("left by an import that did not finish") != std::string::npos;
            }));
}

TEST(StagingLeftovers, AreLookedForDownToTheGivenDepthWithoutFollowingLinks) {
  ScratchDir dir;
  ScratchDir outside;
  const pid_t ended = endedProcess();
  writeFile(dir / ("a/" + staging(ended, "111111111111") + "/x"), "x");
  writeFile(dir / ("a/b/" + staging(ended, "222222222222") + "/x"), "x");
  writeFile(outside / (staging(ended, "333333333333") + "/x"), "x");
  boost::filesystem::create_directory_symlink(outside.path(), dir / "link");

  const std::vector<std::string> removed = vu::project::removeStagingLeftovers(dir.path(), 2);
  EXPECT_EQ(removed, (std::vector<std::string>{dir / ("a/" + staging(ended, "111111111111"))}));
  EXPECT_TRUE(exists(dir / ("a/b/" + staging(ended, "222222222222") + "/x")));
  EXPECT_TRUE(exists(outside / (staging(ended, "333333333333") + "/x")));
}

TEST(StagingLeftovers, ThoseOfAProcessThatEndedButWasNotCollectedGo) {
  ScratchDir dir;
  // A child that exits and is not waited for stays a zombie: its id still answers kill(0).
  const pid_t zombie = ::fork();
  ASSERT_GE(zombie, 0);
  if (zombie == 0) ::_exit(0);
  ASSERT_TRUE(tuqvutest::waitUntilZombie(zombie));
  writeFile(dir / (staging(zombie, "444444444444") + "/behavior.xar"), "<xar/>");

  const std::vector<std::string> removed = vu::project::removeStagingLeftovers(dir.path(), 1);
  EXPECT_EQ(removed, (std::vector<std::string>{dir / staging(zombie, "444444444444")}));
  int status = 0;
  ::waitpid(zombie, &status, 0);
}

TEST(StagingLeftovers, AMissingFolderIsNothingToDo) {
  EXPECT_TRUE(vu::project::removeStagingLeftovers("/nonexistent/tuqvu", 3).empty());
  EXPECT_TRUE(vu::project::removeStagingLeftovers("", 3).empty());
}

TEST(StagingLeftovers, PartFilesOfWritesThatDidNotFinishGoAndThoseBeingWrittenStay) {
  ScratchDir dir;
  const pid_t ended = endedProcess();
  const std::string mine = ".tuqvu-part-" + std::to_string(::getpid()) + "-00112233aabbccdd";
  const std::string left = ".tuqvu-part-" + std::to_string(ended) + "-00112233aabbccdd";
  writeFile(dir / ("behaviors/wave/" + left), "half a file");
  writeFile(dir / ("behaviors/wave/" + mine), "being written");
  writeFile(dir / "behaviors/wave/take.wav", "the old file");

  LogCapture log;
  const std::vector<std::string> removed = vu::project::removeStagingLeftovers(dir.path(), 3);
  EXPECT_EQ(removed, (std::vector<std::string>{dir / ("behaviors/wave/" + left)}));
  EXPECT_EQ(listDir(dir / "behaviors/wave"), (std::vector<std::string>{mine, "take.wav"}));
  const std::vector<std::string> lines = log.texts(vu::log::warning, "vu.project");
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("left by a file write that did not finish"))
      << lines[0];
}
