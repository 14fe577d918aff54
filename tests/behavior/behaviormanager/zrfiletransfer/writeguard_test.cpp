// The rules of what PUT and DELETE may change (zrwriteguard.h), called directly: never a
// served folder itself, nothing of the installation, no folder the robot depends on.
#include <gtest/gtest.h>
#include <zrfiletransfer/zrwriteguard.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/testenvironment.h"

namespace fs = boost::filesystem;
using ZR::detail::WriteKind;
using ZR::detail::writeRefusal;
using zrft_test::paths;

namespace {

bool holds(const std::vector<fs::path>& list, const fs::path& path) {
  return std::find(list.begin(), list.end(), fs::canonical(path)) != list.end();
}

}  // namespace

TEST(WriteRefusal, AServedFolderItselfIsNeitherReplacedNorRemoved) {
  EXPECT_NE(writeRefusal(paths().tmp, {}, WriteKind::Create, {}), "");
  EXPECT_NE(writeRefusal(paths().tmp, {}, WriteKind::Remove, {}), "");
}

TEST(WriteRefusal, NothingInsideTheInstallationIsWrittenOrRemoved) {
  fs::create_directories(paths().prefix / "lib");
  for (const WriteKind kind : {WriteKind::Create, WriteKind::Remove}) {
    EXPECT_NE(writeRefusal(paths().prefix, {"lib", "libzrbehaviormanager.so"}, kind, {}), "");
    EXPECT_NE(writeRefusal(paths().prefix, {"img.png"}, kind, {}), "");
    EXPECT_NE(writeRefusal(paths().prefix / "lib", {"x.so"}, kind, {}), "");
  }
}

TEST(WriteRefusal, ARootThatALinkTakesIntoTheInstallationIsNotWritten) {
  fs::create_directories(paths().prefix / "share" / "data");
  const fs::path alias = paths().scratch / "alias-of-the-installation";
  fs::remove(alias);
  fs::create_directory_symlink(paths().prefix / "share" / "data", alias);
  EXPECT_NE(writeRefusal(alias, {"x.txt"}, WriteKind::Create, {}), "");
  EXPECT_NE(writeRefusal(alias, {"x.txt"}, WriteKind::Remove, {}), "");
}

TEST(WriteRefusal, FilesBelowAServedFolderMayBeWrittenAndRemoved) {
  EXPECT_EQ(writeRefusal(paths().tmp, {"upload", "a.txt"}, WriteKind::Create, {}), "");
  EXPECT_EQ(
      writeRefusal(paths().tmp, {"upload"}, WriteKind::Remove, ZR::detail::protectedDirectories()),
      "");
}

TEST(WriteRefusal, AFolderThatIsOrHoldsAProtectedOneIsNotRemoved) {
  const std::vector<fs::path> keep = {fs::canonical(paths().home)};
  // The test's tree holds the home directory: as seen from a root above it.
  EXPECT_NE(writeRefusal(paths().root, {"home"}, WriteKind::Remove, keep), "");
  EXPECT_NE(writeRefusal(paths().root.parent_path(), {paths().root.filename().string()},
                         WriteKind::Remove, keep),
            "");
  EXPECT_EQ(writeRefusal(paths().root, {"home", "notes.txt"}, WriteKind::Remove, keep), "");
  EXPECT_EQ(writeRefusal(paths().root, {"scratch"}, WriteKind::Remove, keep), "");
}

TEST(ProtectedDirectories, AreTheInstallationHomeLibrariesTemporaryAndDataFolders) {
  fs::create_directories(paths().home / ".tuqvu" / "behaviors");
  fs::create_directories(paths().home / ".tuqvu" / "boxlibraries");
  fs::create_directories(paths().dataHome / "tuqvu");
  const std::vector<fs::path> kept = ZR::detail::protectedDirectories();
  for (const fs::path& expected :
       {paths().prefix, paths().home, paths().home / ".tuqvu",
        paths().home / ".tuqvu" / "behaviors", paths().home / ".tuqvu" / "boxlibraries",
        paths().tmp, paths().dataHome, paths().dataHome / "tuqvu"}) {
    EXPECT_TRUE(holds(kept, expected)) << expected;
  }
  EXPECT_EQ(ZR::detail::identitiesOf(kept).size(), kept.size());
}
