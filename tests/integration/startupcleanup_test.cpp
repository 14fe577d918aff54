// A tuqvu starting after a crash in the middle of an install: the staging copies the
// dead process left in the temporary folder and in the user library are removed (and
// logged); those of a process still running are not.
#include <common/process.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <string>

#include "support/tuqvuprocess.h"

using namespace brokertest;
namespace fs = boost::filesystem;

using tuqvutest::endedProcess;

namespace {

void plant(const fs::path& file) {
  fs::create_directories(file.parent_path());
  std::ofstream(file.string()) << "<behavior/>";
}

}  // namespace

TEST(StartUp, RemovesTheStagingCopiesThatACrashedInstallLeft) {
  TempDir home;
  TempDir tmp;
  const std::string dead = std::to_string(endedProcess());
  const std::string alive = std::to_string(::getpid());
  const fs::path unpack = fs::path(tmp.path()) / (".tuqvu-import-" + dead + "-0123456789ab.unpack");
  const fs::path copy =
      fs::path(home.path()) / ".tuqvu/behaviors" / (".tuqvu-import-" + dead + "-ba9876543210");
  const fs::path working =
      fs::path(tmp.path()) / (".tuqvu-import-" + alive + "-aaaaaaaaaaaa.unpack");
  plant(unpack / "dance/behavior.xar");
  plant(copy / "behavior.xar");
  plant(working / "behavior.xar");
  plant(fs::path(home.path()) / ".tuqvu/behaviors/dance/behavior.xar");

  TuqvuProcess::Setup setup;
  setup.env["HOME"] = home.path();
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);

  EXPECT_FALSE(fs::exists(unpack));
  EXPECT_FALSE(fs::exists(copy));
  EXPECT_TRUE(fs::exists(working / "behavior.xar"));
  EXPECT_TRUE(fs::exists(fs::path(home.path()) / ".tuqvu/behaviors/dance/behavior.xar"));
  EXPECT_EQ(0, broker.terminate(SIGTERM));
  const std::string log = broker.stderrText();
  EXPECT_NE(std::string::npos, log.find("removed " + unpack.string() + ", left by an import"))
      << log;
  EXPECT_NE(std::string::npos, log.find("removed " + copy.string() + ", left by an import")) << log;
}
