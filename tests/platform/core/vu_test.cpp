#include <common/environment.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <vu/base64.h>
#include <vu/containment.h>
#include <vu/html.h>
#include <vu/log.h>
#include <vu/os.h>
#include <vu/path.h>
#include <vu/settings.h>
#include <vu/text.h>
#include <vu/unicode.h>

#include <boost/filesystem.hpp>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <regex>

namespace fs = boost::filesystem;

using ScopedEnv = tuqvutest::ScopedEnvironment;

TEST(VuOs, HomeFollowsTheEnvironment) {
  ScopedEnv home("HOME", "/some/home");
  EXPECT_EQ(vu::os::home(), "/some/home");
}

TEST(VuOs, TmpUsesTmpdirOrSlashTmp) {
  {
    ScopedEnv tmp("TMPDIR", "/var/tmp/x");
    EXPECT_EQ(vu::os::tmp(), "/var/tmp/x");
  }
  ScopedEnv none("TMPDIR", nullptr);
  EXPECT_EQ(vu::os::tmp(), "/tmp");
}

TEST(VuOs, FopenOpensUtf8Paths) {
  const fs::path dir = fs::temp_directory_path() / fs::unique_path();
  fs::create_directories(dir);
  const std::string name = (dir / "caf\xc3\xa9.txt").string();
  std::FILE* file = vu::os::fopen(name.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  std::fputs("x", file);
  std::fclose(file);
  EXPECT_TRUE(fs::exists(fs::path(name, vu::unicodeFacet())));
  fs::remove_all(dir);
}

TEST(VuPath, SdkPrefixComesFromTheEnvironmentAndFindDataLooksUnderShare) {
  const fs::path prefix = fs::temp_directory_path() / fs::unique_path();
  fs::create_directories(prefix / "share" / "tuqvu" / "behaviors");
  ScopedEnv env("TUQVU_SDK_PREFIX", prefix.string().c_str());
  EXPECT_EQ(vu::path::sdkPrefix(), prefix.string());
  EXPECT_EQ(vu::path::findData("tuqvu", "behaviors"), (prefix / "share/tuqvu/behaviors").string());
  EXPECT_EQ(vu::path::findData("tuqvu", "missing"), "");
  fs::remove_all(prefix);
}

TEST(VuPath, UserWritableDataPathIsUnderTheDataHome) {
  {
    ScopedEnv xdg("XDG_DATA_HOME", "/data/home");
    EXPECT_EQ(vu::path::userWritableDataPath("tuqvu", "prefs.xml"), "/data/home/tuqvu/prefs.xml");
  }
  ScopedEnv xdg("XDG_DATA_HOME", nullptr);
  ScopedEnv home("HOME", "/h");
  EXPECT_EQ(vu::path::userWritableDataPath("tuqvu", "prefs.xml"),
            "/h/.local/share/tuqvu/prefs.xml");
}

TEST(VuPath, IsWithinComparesWholeComponentsAndSkipsDots) {
  using vu::path::isWithin;
  EXPECT_TRUE(isWithin("/a/b/c", "/a/b"));
  EXPECT_TRUE(isWithin("/a/b", "/a/b"));
  EXPECT_TRUE(isWithin("/a/b/", "/a/b"));
  EXPECT_TRUE(isWithin("/a/b", "/a/b/"));
  EXPECT_TRUE(isWithin("/a/./b/c", "/a/b"));
  EXPECT_TRUE(isWithin("/anything", "/"));
  EXPECT_FALSE(isWithin("/a/bc", "/a/b"));
  EXPECT_FALSE(isWithin("/a", "/a/b"));
  EXPECT_FALSE(isWithin("/x/b", "/a/b"));
  // ".." is taken as it stands: resolving is the caller's part.
  EXPECT_TRUE(isWithin("/a/b/../c", "/a/b"));
}

TEST(VuPath, TheInstallationIsThePrefixAndAllBelowItWithLinksResolved) {
  const fs::path scratch = fs::canonical(fs::temp_directory_path()) / fs::unique_path();
  fs::create_directories(scratch / "prefix" / "lib");
  fs::create_directory_symlink(scratch / "prefix", scratch / "link");
  ScopedEnv env("TUQVU_SDK_PREFIX", (scratch / "link").string().c_str());
  EXPECT_EQ(vu::path::resolvedSdkPrefix(), scratch / "prefix");
  EXPECT_TRUE(vu::path::liesInInstallation(scratch / "prefix"));
  EXPECT_TRUE(vu::path::liesInInstallation(scratch / "prefix" / "lib" / "not-yet-there.so"));
  EXPECT_FALSE(vu::path::liesInInstallation(scratch));
  EXPECT_FALSE(vu::path::liesInInstallation(scratch / "prefix-sibling"));
  fs::remove_all(scratch);
}

TEST(VuPath, AResolvedPathTakesDotDotAfterTheLinkBeforeIt) {
  const fs::path scratch = fs::canonical(fs::temp_directory_path()) / fs::unique_path();
  fs::create_directories(scratch / "real" / "inner");
  fs::create_directories(scratch / "other");
  fs::create_directory_symlink(scratch / "real" / "inner", scratch / "other" / "jump");
  using vu::path::resolvedPath;
  // other/jump is real/inner, so other/jump/.. is real, never other.
  EXPECT_EQ(resolvedPath((scratch / "other/jump/..").string()), scratch / "real");
  EXPECT_EQ(resolvedPath((scratch / "other/jump/../x/y").string()), scratch / "real/x/y");
  EXPECT_EQ(resolvedPath((scratch / "other/./jump//").string()), scratch / "real/inner");
  EXPECT_EQ(resolvedPath((scratch / "missing/../other").string()), scratch / "other");
  fs::remove_all(scratch);
}

TEST(VuPath, EverySpellingOfTheRootResolvesToTheRoot) {
  using vu::path::resolvedPath;
  for (const char* root : {"/", "//", "///", "/./", "/tmp/../..", "//.."}) {
    EXPECT_EQ(resolvedPath(root), fs::path("/")) << root;
  }
  // A leading double slash is the root here, not a network name.
  EXPECT_EQ(resolvedPath("//tmp"), resolvedPath("/tmp"));
  EXPECT_TRUE(resolvedPath("").empty());
}

TEST(VuPath, ARelativePathIsResolvedFromTheWorkingDirectory) {
  EXPECT_EQ(vu::path::resolvedPath("."), fs::canonical(fs::current_path()));
  EXPECT_EQ(vu::path::resolvedPath("no-such-entry"),
            fs::canonical(fs::current_path()) / "no-such-entry");
}

TEST(VuLog, DefaultLineFormatIsTimestampLevelCategoryFunctionText) {
  vu::log::Message message{std::chrono::system_clock::now(), 3, "behavior.manager",
                           "getBehaviorNames", "getBehaviorNames is deprecated."};
  const std::string line = vu::log::format(message);
  EXPECT_TRUE(std::regex_match(
      line, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 3 behavior\.manager )"
                       R"(getBehaviorNames: getBehaviorNames is deprecated\.)")))
      << line;
}

TEST(VuLog, CapturingSinkReceivesMessagesUpToTheMaximumLevel) {
  std::vector<vu::log::Message> captured;
  vu::log::setSink([&](const vu::log::Message& m) { captured.push_back(m); });
  const int previous = vu::log::maxLevel();
  vu::log::setMaxLevel(3);
  vu::log::write(2, "cat", "fn", "kept");
  vu::log::write(5, "cat", "fn", "dropped");
  vu::log::setMaxLevel(previous);
  vu::log::setSink(nullptr);
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0].level, 2);
  EXPECT_EQ(captured[0].category, "cat");
  EXPECT_EQ(captured[0].function, "fn");
  EXPECT_EQ(captured[0].text, "kept");
}

TEST(VuHtml, TheFiveCharactersWithAMeaningInHtmlAreEscapedAndOthersKept) {
  EXPECT_EQ("&lt;img src=&quot;x&quot; onerror=&#39;a&#39;&gt; &amp;amp; é/b_c",
            vu::html::escape("<img src=\"x\" onerror='a'> &amp; é/b_c"));
  EXPECT_EQ("", vu::html::escape(""));
}

TEST(Settings, APositiveNumberComesFromTheEnvironmentOrTheDefault) {
  ::unsetenv("TUQVU_TEST_SETTING");
  EXPECT_EQ(7u, vu::settings::positiveNumber("TUQVU_TEST_SETTING", 7));
  ::setenv("TUQVU_TEST_SETTING", "", 1);
  EXPECT_EQ(7u, vu::settings::positiveNumber("TUQVU_TEST_SETTING", 7));
  ::setenv("TUQVU_TEST_SETTING", "12345678901", 1);
  EXPECT_EQ(12345678901u, vu::settings::positiveNumber("TUQVU_TEST_SETTING", 7));
  ::unsetenv("TUQVU_TEST_SETTING");
}

TEST(Settings, AnUnusableValueIsLoggedByNameAndTheDefaultStays) {
  std::vector<vu::log::Message> captured;
  vu::log::setSink([&](const vu::log::Message& m) { captured.push_back(m); });
  for (const char* value : {"abc", "0", "-1", "12x", " 12", "99999999999999999999999", "101"}) {
    ::setenv("TUQVU_TEST_SETTING", value, 1);
    EXPECT_EQ(7u, vu::settings::positiveNumber("TUQVU_TEST_SETTING", 7, 100)) << value;
  }
  vu::log::setSink(nullptr);
  ::unsetenv("TUQVU_TEST_SETTING");
  ASSERT_EQ(7u, captured.size());
  EXPECT_EQ("vu.settings", captured[0].category);
  EXPECT_EQ("TUQVU_TEST_SETTING is not a whole number from 1 to 100: \"abc\"; it stays 7",
            captured[0].text);
}

TEST(Base64, EncodesWithPaddingAndDecodesBack) {
  EXPECT_EQ("", vu::base64::encode(""));
  EXPECT_EQ("Zg==", vu::base64::encode("f"));
  EXPECT_EQ("Zm8=", vu::base64::encode("fo"));
  EXPECT_EQ("Zm9v", vu::base64::encode("foo"));
  const std::string bytes("\x00\xff\x10 binary\n", 11);
  std::string back;
  ASSERT_TRUE(vu::base64::decode(vu::base64::encode(bytes), back));
  EXPECT_EQ(bytes, back);
  ASSERT_TRUE(vu::base64::decode("Zm9v\n YmFy", back));  // blanks and line ends ignored
  EXPECT_EQ("foobar", back);
}

TEST(Base64, RefusesWhatIsNotBase64) {
  std::string bytes;
  for (const char* text : {"Zm9", "Zm9v!", "Z===", "Zg==Zg==", "Zm=v", "Zm9v\x80"}) {
    EXPECT_FALSE(vu::base64::decode(text, bytes)) << text;
  }
}

TEST(VuText, ControlCharactersAreTheBytesBelowSpaceAndDelete) {
  EXPECT_TRUE(vu::text::holdsControlCharacter("a\nb"));
  EXPECT_TRUE(vu::text::holdsControlCharacter("tab\there"));
  EXPECT_TRUE(vu::text::holdsControlCharacter(std::string("nul\0", 4)));
  EXPECT_TRUE(vu::text::holdsControlCharacter("del\x7f"));
  EXPECT_TRUE(vu::text::holdsControlCharacter("\x1b[31m"));
  EXPECT_FALSE(vu::text::holdsControlCharacter("behaviors/User/walk forward/behavior.xar"));
  EXPECT_FALSE(vu::text::holdsControlCharacter("caf\xc3\xa9~!%0A"));
  EXPECT_FALSE(vu::text::holdsControlCharacter(""));
}

TEST(VuText, AllDigitsMeansAtLeastOneAndOnlyAsciiDigits) {
  EXPECT_TRUE(vu::text::isAllDigits("0"));
  EXPECT_TRUE(vu::text::isAllDigits("31415"));
  EXPECT_FALSE(vu::text::isAllDigits(""));
  EXPECT_FALSE(vu::text::isAllDigits("12a"));
  EXPECT_FALSE(vu::text::isAllDigits("-1"));
  EXPECT_FALSE(vu::text::isAllDigits(" 1"));
  EXPECT_FALSE(vu::text::isAllDigits("\xd9\xa3"));  // an Arabic-Indic digit is not ASCII
}

TEST(VuText, AWholeNumberIsReadUpToItsLargestAndNothingElseIs) {
  EXPECT_EQ(std::optional<std::uint64_t>(0), vu::text::wholeNumber("0", 10));
  EXPECT_EQ(std::optional<std::uint64_t>(65535), vu::text::wholeNumber("65535", 65535));
  EXPECT_EQ(std::optional<std::uint64_t>(8), vu::text::wholeNumber("008", 65535));
  EXPECT_EQ(std::nullopt, vu::text::wholeNumber("65536", 65535));
  EXPECT_EQ(std::optional<std::uint64_t>(18446744073709551615u),
            vu::text::wholeNumber("18446744073709551615", UINT64_MAX));
  EXPECT_EQ(std::nullopt, vu::text::wholeNumber("18446744073709551616", UINT64_MAX));
  EXPECT_EQ(std::nullopt, vu::text::wholeNumber("99999999999999999999999", UINT64_MAX));
  for (const char* notANumber : {"", "-1", "+1", " 1", "1 ", "1e3", "0x10", "\xd9\xa1"}) {
    EXPECT_EQ(std::nullopt, vu::text::wholeNumber(notANumber, UINT64_MAX)) << notANumber;
  }
}

TEST(VuText, LowerCaseChangesOnlyTheAsciiCapitals) {
  EXPECT_EQ("robot.local:9600", vu::text::asciiLowerCase("Robot.LOCAL:9600"));
  EXPECT_EQ("[fd00::ab]", vu::text::asciiLowerCase("[FD00::AB]"));
  EXPECT_EQ("", vu::text::asciiLowerCase(""));
  // Bytes of other characters stay as they are, whatever the locale says.
  EXPECT_EQ("\xc3\x89t\xc3\xa9", vu::text::asciiLowerCase("\xc3\x89T\xc3\xa9"));
}
