// Where an install may read from: the libraries, the temporary folder and the data
// folders the file server serves. Anything else the broker could read (its home, the
// system's configuration) is refused, whether named directly, through "..", or through
// a link that lies in a permitted folder.
#include <boost/filesystem.hpp>
#include <cstdlib>

#include "fixture.h"

namespace bmtest {
namespace {

const char* const kRefusal =
    "it lies outside the folders a behavior may be installed from (the user library, the "
    "system library, the temporary folder and the served data folders)";

class InstallSource : public ManagerTest {
protected:
  void SetUp() override {
    ManagerTest::SetUp();
    startPlatform();
    startManager();
    logs->clear();
  }

  bool install(const fs::path& source, const std::string& local) {
    ZR::ZRValue args = ZR::ZRValue::array();
    args.arrayPush(ZR::ZRValue(source.string()));
    args.arrayPush(ZR::ZRValue(local));
    args.arrayPush(ZR::ZRValue(true));
    return broker->call("ZRBehaviorManager", "installBehavior", args).toBool();
  }

  int refusalsLoggedFor(const fs::path& source) {
    return logs->count(vu::log::error, "behavior.manager", "installBehavior",
                       "Error trying to import package " + source.string() + ": " + kRefusal);
  }

  bool installed(const std::string& local) { return fs::exists(userRoot() / local); }
};

TEST_F(InstallSource, AFolderOfTheHomeOutsideEveryServedFolderIsRefusedAndLogged) {
  const fs::path outside = home() / "private" / "wave";
  makeBehavior(outside);
  EXPECT_FALSE(install(outside, "loot"));
  EXPECT_EQ(1, refusalsLoggedFor(outside));
  EXPECT_FALSE(installed("loot"));
}

TEST_F(InstallSource, APackageOutsideEveryServedFolderIsRefusedBeforeItIsUnpacked) {
  const fs::path folder = uploads() / "wave";
  makeBehavior(folder);
  const fs::path package = home() / "wave.tar.gz";
  ASSERT_EQ(0, std::system(("bsdtar -czf '" + package.string() + "' -C '" + folder.string() +
                            "' behavior.xar project.xml")
                               .c_str()));
  EXPECT_FALSE(install(package, "loot"));
  EXPECT_EQ(1, refusalsLoggedFor(package));
  EXPECT_FALSE(installed("loot"));
  // Nothing was staged in the temporary folder either.
  EXPECT_TRUE(fs::is_empty(fs::temp_directory_path()));
}

TEST_F(InstallSource, TheSystemsConfigurationIsRefused) {
  for (const char* source : {"/etc", "/etc/passwd", "/"}) {
    EXPECT_FALSE(install(source, "loot")) << source;
    EXPECT_EQ(1, refusalsLoggedFor(source)) << source;
  }
  EXPECT_FALSE(installed("loot"));
}

TEST_F(InstallSource, ClimbingOutOfAServedFolderWithDotDotIsRefused) {
  makeBehavior(home() / "private" / "wave");
  const fs::path climbing = uploads() / ".." / ".." / ".." / "private" / "wave";
  EXPECT_FALSE(install(climbing, "loot"));
  EXPECT_EQ(1, refusalsLoggedFor(climbing));
  EXPECT_FALSE(installed("loot"));
}

TEST_F(InstallSource, ALinkInAServedFolderToAFolderOutsideIsRefused) {
  makeBehavior(home() / "private" / "wave");
  fs::create_directories(uploads());
  fs::create_directory_symlink(home() / "private" / "wave", uploads() / "wave");
  EXPECT_FALSE(install(uploads() / "wave", "loot"));
  EXPECT_EQ(1, refusalsLoggedFor(uploads() / "wave"));
  EXPECT_FALSE(installed("loot"));
}

TEST_F(InstallSource, EveryPermittedFolderIsAccepted) {
  const std::vector<fs::path> sources = {
      uploads() / "a",
      fs::temp_directory_path() / "b",
      home() / ".tuqvu" / "boxlibraries" / "c",
      userRoot() / "incoming" / "d",
      systemRoot() / "e",
  };
  int number = 0;
  for (const fs::path& source : sources) {
    makeBehavior(source);
    const std::string local = "copy" + std::to_string(++number);
    EXPECT_TRUE(install(source, local)) << source;
    EXPECT_TRUE(fs::exists(userRoot() / local / "behavior.xar")) << source;
  }
}

TEST_F(InstallSource, ALinkWithinAServedFolderIsFollowedToItsTarget) {
  makeBehavior(uploads() / "real");
  fs::create_directory_symlink(uploads() / "real", uploads() / "alias");
  EXPECT_TRUE(install(uploads() / "alias", "wave"));
  EXPECT_TRUE(fs::exists(userRoot() / "wave" / "behavior.xar"));
}

}  // namespace
}  // namespace bmtest
