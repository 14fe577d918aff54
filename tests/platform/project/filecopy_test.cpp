// Copying one regular file: content and permission bits, and what is refused.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vu/project/filecopy.h>

#include <string>

#include "support.h"

using namespace projecttest;

TEST(FileCopy, TheCopyHasTheContentAndPermissionBitsOfTheOriginal) {
  ScratchDir dir;
  const std::string content(200000, 'x');  // larger than one buffer of the fallback loop
  writeFile(dir / "from.sh", content);
  ASSERT_EQ(::chmod((dir / "from.sh").c_str(), 0750), 0);

  boost::system::error_code code;
  vu::project::copyFile(dir / "from.sh", dir / "to.sh", code);
  ASSERT_FALSE(code) << code.message();
  EXPECT_EQ(readFile(dir / "to.sh"), content);
  struct stat info {};
  ASSERT_EQ(::stat((dir / "to.sh").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0750u);
}

TEST(FileCopy, AnExistingDestinationIsLeftAsItIsAndReported) {
  ScratchDir dir;
  writeFile(dir / "from", "new");
  writeFile(dir / "to", "old");
  boost::system::error_code code;
  vu::project::copyFile(dir / "from", dir / "to", code);
  EXPECT_EQ(code.value(), EEXIST);
  EXPECT_EQ(readFile(dir / "to"), "old");
}

TEST(FileCopy, AMissingOriginalIsReportedAndNothingIsMade) {
  ScratchDir dir;
  boost::system::error_code code;
  vu::project::copyFile(dir / "missing", dir / "to", code);
  EXPECT_EQ(code.value(), ENOENT);
  EXPECT_FALSE(exists(dir / "to"));
}
