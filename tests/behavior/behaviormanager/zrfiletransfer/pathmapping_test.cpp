// translateHttp, behaviorsPath, replaceSpecialChar and the content-type table, called
// directly (no server). HOME, TMPDIR, XDG_DATA_HOME and TUQVU_SDK_PREFIX point into a
// temporary directory (support/testenvironment.h).
#include <gtest/gtest.h>
#include <zrfiletransfer/zrhttphandlers.h>

#include <boost/filesystem/operations.hpp>
#include <cstdlib>
#include <string>

#include "support/files.h"
#include "support/logcapture.h"
#include "support/testenvironment.h"

namespace fs = boost::filesystem;
using zrft_test::LogCapture;
using zrft_test::paths;
using zrft_test::writeFile;

namespace {

fs::path userBehaviors() {
  return paths().home / ".tuqvu" / "behaviors";
}

// The refusal log lines about `requestPath`, checked for level and category.
std::size_t refusalsLogged(const LogCapture& log, const std::string& requestPath) {
  std::size_t count = 0;
  for (const vu::log::Message& message :
       log.find("translateHttp", "Refused request path: " + requestPath + " (")) {
    EXPECT_EQ(message.level, 3);
    EXPECT_EQ(message.category, "core.common.network");
    ++count;
  }
  return count;
}

}  // namespace

// Runs first in its process: nothing has filled the table yet.
TEST(ContentTypeTable, IsEmptyUntilFilledAndThenHoldsTheNineRows) {
  EXPECT_TRUE(ZR::contentTypeTable().empty());
  EXPECT_EQ(ZR::contentTypeFor(".png"), "application/octet-stream");

  ZR::fillContentTypeTable();
  const std::map<std::string, std::string> expected = {
      {".jpg", "image/jpeg"}, {".png", "image/png"},   {".gif", "image/gif"},
      {".mp3", "audio/mp3"},  {".wav", "audio/x-wav"}, {".xar", "text/plain"},
      {".xml", "text/plain"}, {".txt", "text/plain"},  {".vkp", "application/octet-stream"}};
  EXPECT_EQ(ZR::contentTypeTable(), expected);

  ZR::fillContentTypeTable();  // a second server overwrites the same rows
  EXPECT_EQ(ZR::contentTypeTable(), expected);
}

TEST(ContentTypeTable, LooksUpTheLowerCasedExtensionWithOctetStreamAsDefault) {
  ZR::fillContentTypeTable();
  EXPECT_EQ(ZR::contentTypeFor(".PNG"), "image/png");
  EXPECT_EQ(ZR::contentTypeFor(".Jpg"), "image/jpeg");
  EXPECT_EQ(ZR::contentTypeFor(".wav"), "audio/x-wav");
  EXPECT_EQ(ZR::contentTypeFor(".xar"), "text/plain");
  EXPECT_EQ(ZR::contentTypeFor(".zip"), "application/octet-stream");
  EXPECT_EQ(ZR::contentTypeFor(""), "application/octet-stream");
}

TEST(ReplaceSpecialChar, DecodesOnlyTheUpperCaseEscape) {
  EXPECT_EQ(ZR::replaceSpecialChar("/tmp/a%2Etxt", "%2E", "."), "/tmp/a.txt");
  EXPECT_EQ(ZR::replaceSpecialChar("/tmp/%2E%2E/x", "%2E", "."), "/tmp/../x");
  EXPECT_EQ(ZR::replaceSpecialChar("/tmp/a%2etxt", "%2E", "."), "/tmp/a%2etxt");
  EXPECT_EQ(ZR::replaceSpecialChar("/tmp/a%2", "%2E", "."), "/tmp/a%2");
  EXPECT_EQ(ZR::replaceSpecialChar("", "%2E", "."), "");
}

TEST(ReplaceSpecialChar, DoesNotRescanInsertedTextAndHandlesLongerReplacements) {
  EXPECT_EQ(ZR::replaceSpecialChar("aab", "ab", "b"), "ab");
  EXPECT_EQ(ZR::replaceSpecialChar("a-b-c", "-", "--"), "a--b--c");
  EXPECT_EQ(ZR::replaceSpecialChar("xyz", "xyz", ""), "");
  EXPECT_EQ(ZR::replaceSpecialChar("abc", "", "x"), "abc");
}

TEST(BehaviorsPath, CreatesTheDirectoryUnderHome) {
  const fs::path expected = paths().home / ".tuqvu" / "boxlibraries";
  fs::remove_all(expected);
  EXPECT_EQ(ZR::behaviorsPath("boxlibraries"), expected.string());
  EXPECT_TRUE(fs::is_directory(expected));

  writeFile(expected / "keep.txt", "kept");
  EXPECT_EQ(ZR::behaviorsPath("boxlibraries"), expected.string());
  EXPECT_TRUE(fs::exists(expected / "keep.txt"));
}

TEST(BehaviorsPath, LogsACreationFailureAndStillReturnsThePath) {
  // A home below a regular file cannot get its .tuqvu directory.
  const fs::path blocker = paths().scratch / "blocker";
  writeFile(blocker, "not a directory");
  const std::string home = (blocker / "home").string();
  setenv("HOME", home.c_str(), 1);
  LogCapture log;
  const std::string result = ZR::behaviorsPath("behaviors");
  setenv("HOME", paths().home.c_str(), 1);

  EXPECT_EQ(result, (fs::path(home) / ".tuqvu" / "behaviors").string());
  const auto lines = log.find("behaviorsPath", "Behavior path error: ");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[0].category, "core.common.network");
  EXPECT_EQ(lines[0].text.find("Behavior path error: "), 0u);
}

TEST(TranslateHttp, MapsTheUserBehaviorsTree) {
  EXPECT_EQ(ZR::translateHttp("behaviors/User/x/behavior.xar"),
            userBehaviors() / "x" / "behavior.xar");
  EXPECT_EQ(ZR::translateHttp("behaviors/walk/behavior.xar"),
            userBehaviors() / "walk" / "behavior.xar");
  // Components are compared exactly: "user" is not the "User" library.
  EXPECT_EQ(ZR::translateHttp("behaviors/user/x"), userBehaviors() / "user" / "x");
  EXPECT_TRUE(fs::is_directory(userBehaviors()));
}

TEST(TranslateHttp, MapsSystemBehaviorsOnlyWhenTheyExist) {
  const fs::path installed = paths().prefix / "share" / "behaviors" / "sys" / "behavior.xar";
  writeFile(installed, "<xar/>");
  EXPECT_EQ(ZR::translateHttp("behaviors/System/sys/behavior.xar"), installed);
  EXPECT_TRUE(ZR::translateHttp("behaviors/System/missing/behavior.xar").empty());
}

TEST(TranslateHttp, MapsBoxLibrariesTmpAndShare) {
  EXPECT_EQ(ZR::translateHttp("boxlibraries/a/b.txt"),
            paths().home / ".tuqvu" / "boxlibraries" / "a" / "b.txt");
  EXPECT_EQ(ZR::translateHttp("tmp/upload/a.txt"), paths().tmp / "upload" / "a.txt");
  EXPECT_EQ(ZR::translateHttp("share/tuqvu/f.txt"), paths().dataHome / "tuqvu" / "f.txt");
}

TEST(TranslateHttp, TheDataOfOtherApplicationsIsNotMapped) {
  EXPECT_TRUE(ZR::translateHttp("share/app/f.txt").empty());
  EXPECT_TRUE(ZR::translateHttp("share/systemd/user/x.conf").empty());
  ZR::MappedPath mapped;
  ASSERT_TRUE(ZR::mapRequestPath("share/app/f.txt", &mapped));
  EXPECT_FALSE(mapped.refusal.empty());
  EXPECT_TRUE(ZR::isServedApplication("tuqvu"));
  EXPECT_FALSE(ZR::isServedApplication(""));
  EXPECT_FALSE(ZR::isServedApplication("Tuqvu"));
}

TEST(TranslateHttp, MapsOtherFilesToThePrefixExceptRefusedExtensions) {
  EXPECT_EQ(ZR::translateHttp("img.PNG"), paths().prefix / "img.PNG");
  EXPECT_EQ(ZR::translateHttp("lib/data.bin"), paths().prefix / "lib" / "data.bin");
  EXPECT_EQ(ZR::translateHttp("Behaviors/x.txt"), paths().prefix / "Behaviors" / "x.txt");
  for (const char* refused :
       {"x.html", "x.css", "x.js", "x.xml", "x.xsl", "noextension", "dir/page.html"}) {
    EXPECT_TRUE(ZR::translateHttp(refused).empty()) << refused;
  }
  // Extensions are compared exactly, so upper case is served.
  EXPECT_EQ(ZR::translateHttp("x.HTML"), paths().prefix / "x.HTML");
}

TEST(TranslateHttp, RefusesEmptyAndEvalPathsWithoutLogging) {
  LogCapture log;
  EXPECT_TRUE(ZR::translateHttp("").empty());
  EXPECT_TRUE(ZR::translateHttp("behaviors/User/x?eval=1").empty());
  EXPECT_TRUE(ZR::translateHttp("tmp/a.txt?evaluate").empty());
  EXPECT_TRUE(ZR::translateHttp("?eval=ZRBehaviorManager.stopBehavior('a')").empty());
  EXPECT_TRUE(log.messages().empty());
}

TEST(TranslateHttp, RefusesAndLogsParentComponents) {
  LogCapture log;
  for (const char* path : {"behaviors/User/../x.txt", "behaviors/../../x.png", "tmp/../x.txt",
                           "boxlibraries/a/../../b.txt", "share/../x.txt", "share/app/../../x.txt",
                           "../x.png", "lib/../../etc/x.png"}) {
    EXPECT_TRUE(ZR::translateHttp(path).empty()) << path;
    EXPECT_EQ(refusalsLogged(log, path), 1u) << path;
  }
}

TEST(TranslateHttp, RefusesAndLogsATargetThatALinkTakesOutOfItsRoot) {
  const fs::path outside = paths().scratch / "secret";
  writeFile(outside / "secret.txt", "secret");
  fs::create_directories(userBehaviors());
  fs::remove(userBehaviors() / "escape");
  fs::create_directory_symlink(outside, userBehaviors() / "escape");

  LogCapture log;
  EXPECT_TRUE(ZR::translateHttp("behaviors/User/escape/secret.txt").empty());
  EXPECT_TRUE(ZR::translateHttp("behaviors/User/escape").empty());
  const auto lines = log.find("translateHttp", "outside");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text.find("Refused request path: behaviors/User/escape/secret.txt"), 0u);
  EXPECT_EQ(lines[1].text.find("Refused request path: behaviors/User/escape ("), 0u);
  EXPECT_EQ(refusalsLogged(log, "behaviors/User/escape"), 1u);
}

TEST(TranslateHttp, ServesALinkThatStaysInsideItsRoot) {
  writeFile(userBehaviors() / "real" / "behavior.xar", "<xar/>");
  fs::remove(userBehaviors() / "alias");
  fs::create_directory_symlink(userBehaviors() / "real", userBehaviors() / "alias");
  LogCapture log;
  EXPECT_EQ(ZR::translateHttp("behaviors/User/alias/behavior.xar"),
            userBehaviors() / "alias" / "behavior.xar");
  EXPECT_TRUE(log.messages().empty());
}

TEST(TranslateHttp, KeepsATrailingSeparatorAsTheDirectoryItself) {
  const fs::path mapped = ZR::translateHttp("behaviors/User/");
  ASSERT_FALSE(mapped.empty());
  EXPECT_TRUE(fs::equivalent(mapped, userBehaviors()));
}
