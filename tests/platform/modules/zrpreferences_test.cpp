// ZRPreferences: the three-string shape round-trips, bad shapes and names are refused,
// and a writer killed at any moment leaves the old or the new file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zr/modules/zrpreferences.h>
#include <zr/proxies/zrpreferencesproxy.h>
#include <zr/zrerror.h>

#include <fstream>
#include <random>
#include <sstream>

#include "testsupport.h"

using namespace ZR;
using modulestest::ScopedEnv;
using modulestest::TempDir;

namespace {

ZRValue entry(const std::string& key, const std::string& description, const std::string& value) {
  ZRValue e = ZRValue::array();
  e.arrayPush(key);
  e.arrayPush(description);
  e.arrayPush(value);
  return e;
}

ZRValue entries(std::initializer_list<ZRValue> list) {
  ZRValue all = ZRValue::array();
  for (const ZRValue& e : list) all.arrayPush(e);
  return all;
}

std::string fileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

class PreferencesTest : public ::testing::Test {
protected:
  TempDir home;
  ScopedEnv dataHome{"XDG_DATA_HOME", home.str()};
  boost::shared_ptr<ZRBroker> broker = ZRBroker::create();
  std::unique_ptr<ZRPreferences> prefs{new ZRPreferences(broker)};

  std::string pathOf(const std::string& module) {
    return home / ("tuqvu/preferences/" + module + ".xml");
  }
};

TEST_F(PreferencesTest, FilesLiveUnderTheUserDataPath) {
  EXPECT_EQ(prefs->prefFilePath("DefaultBehaviors"), pathOf("DefaultBehaviors"));
}

TEST_F(PreferencesTest, TheThreeStringShapeRoundTrips) {
  const ZRValue written = entries({
      entry("DefaultBehaviors", "List of default behaviors separated by endlines",
            "animations/wave\nstand\n"),
      entry("Empty", "", ""),
      entry("Blanks", "only blanks", "  \n\t "),
      entry("CarriageReturn", "kept as is", "a\r\nb\r\n"),
      entry("Markup", "quotes \"and\" <tags> & 'apostrophes'", "<x a=\"1\">&amp;</x> ]]>"),
      entry("Unicode", "d\xC3\xA9j\xC3\xA0 vu", "\xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\xA4\x96"),
      entry("Binary", "bytes no XML text can hold", std::string("\x00\x01\xFF\xFE z", 6)),
      entry("Multi\nline key", "tab\there", "v"),
  });
  prefs->writePrefFile("RoundTrip", written, true);
  EXPECT_EQ(prefs->readPrefFile("RoundTrip", false), written);
}

TEST_F(PreferencesTest, TheFileIsReadableXml) {
  prefs->writePrefFile(
      "DefaultBehaviors",
      entries(
          {entry("DefaultBehaviors", "List of default behaviors separated by endlines", "a\nb\n")}),
      true);
  const std::string text = fileText(pathOf("DefaultBehaviors"));
  EXPECT_NE(text.find("<preferences module=\"DefaultBehaviors\" version=\"1\">"), std::string::npos)
      << text;
  EXPECT_NE(text.find("<preference key=\"DefaultBehaviors\" description=\"List of default "
                      "behaviors separated by endlines\">a\nb\n</preference>"),
            std::string::npos)
      << text;
}

TEST_F(PreferencesTest, AnEmptyListIsAFileWithNoEntries) {
  prefs->writePrefFile("Nothing", ZRValue::array(), true);
  const ZRValue read = prefs->readPrefFile("Nothing", false);
  EXPECT_TRUE(read.isArray());
  EXPECT_EQ(read.size(), 0u);
}

TEST_F(PreferencesTest, BadShapesAreRefusedAndTheOldFileStays) {
  const ZRValue good = entries({entry("k", "d", "v")});
  prefs->writePrefFile("Shapes", good, true);
  const std::string before = fileText(pathOf("Shapes"));

  ZRValue twoStrings = ZRValue::array();
  twoStrings.arrayPush(std::string("k"));
  twoStrings.arrayPush(std::string("d"));
  ZRValue notString = entry("k", "d", "v");
  notString[2] = ZRValue(3);
  ZRValue fourStrings = entry("k", "d", "v");
  fourStrings.arrayPush(std::string("extra"));
  const std::vector<ZRValue> bad = {
      ZRValue(),                                            // invalid
      ZRValue(std::string("k")),                            // not an array
      entry("k", "d", "v"),                                 // one entry, not a list of entries
      entries({twoStrings}),                                // two strings
      entries({fourStrings}),                               // four strings
      entries({good[0], notString}),                        // second entry holds an int
      entries({entry(std::string("k\x01", 2), "d", "v")}),  // key with a control byte
      entries({entry("k", "\xC3", "v")}),                   // description not UTF-8
  };
  for (const ZRValue& value : bad) {
    try {
      prefs->writePrefFile("Shapes", value, true);
      ADD_FAILURE() << "accepted " << value.toDebugString();
    } catch (const ZRError& error) {
      EXPECT_EQ(error.module(), "ZRPreferences");
      EXPECT_EQ(error.method(), "writePrefFile");
    }
    EXPECT_EQ(fileText(pathOf("Shapes")), before);
  }
  EXPECT_EQ(prefs->readPrefFile("Shapes", false), good);
}

TEST_F(PreferencesTest, NamesThatAreNotPlainFileNamesAreRefused) {
  const ZRValue good = entries({entry("k", "d", "v")});
  for (const std::string& name :
       {std::string(""), std::string("."), std::string(".."), std::string("a/b"),
        std::string("../escape"), std::string("/abs"), std::string("a\\b"), std::string(".hidden"),
        std::string("line\nbreak"), std::string("nul\0x", 5), std::string(300, 'n')}) {
    EXPECT_THROW(prefs->writePrefFile(name, good, true), ZRError) << name;
    EXPECT_THROW(prefs->readPrefFile(name, false), ZRError) << name;
  }
  EXPECT_FALSE(boost::filesystem::exists(home / "tuqvu/escape.xml"));
  EXPECT_FALSE(boost::filesystem::exists(home / "tuqvu/preferences/a"));
}

TEST_F(PreferencesTest, AMissingFileIsAnErrorThatSaysSo) {
  try {
    prefs->readPrefFile("NeverWritten", false);
    FAIL() << "a missing file was read";
  } catch (const ZRError& error) {
    EXPECT_EQ(error.method(), "readPrefFile");
    EXPECT_NE(error.description().find("there is no preference file for NeverWritten"),
              std::string::npos)
        << error.description();
    // Where the robot keeps its files is none of a remote caller's business.
    EXPECT_EQ(error.description().find('/'), std::string::npos) << error.description();
  }
}

TEST_F(PreferencesTest, AMalformedFileIsAnErrorWithLineAndColumn) {
  boost::filesystem::create_directories(home / "tuqvu/preferences");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<preferences>\n  <preference key=\"a\">x</preference>\n  <preference key=\"b\">\n"
       "</preferences>\n",
       "line 4, column 3"},
      {"<preferences>\n  <entry key=\"a\"/>\n</preferences>\n", "line 2, column 3"},
      {"<preferences>\n  <preference description=\"no key\"/>\n</preferences>\n",
       "line 2, column 3"},
      {"<preferences>\n  <preference key=\"a\" encoding=\"base64\">not base64!</preference>\n"
       "</preferences>\n",
       "line 2, column 3"},
      {"<settings/>\n", "line 1, column 1"},
      {"", "line 1, column 1"},
  };
  for (const auto& c : cases) {
    std::ofstream(pathOf("Broken"), std::ios::binary | std::ios::trunc) << c.first;
    try {
      prefs->readPrefFile("Broken", false);
      ADD_FAILURE() << "read " << c.first;
    } catch (const ZRError& error) {
      EXPECT_NE(
          error.description().find("the preference file of Broken is malformed at " + c.second),
          std::string::npos)
          << error.description();
      // The robot's folders stay the robot's business.
      EXPECT_EQ(error.description().find('/'), std::string::npos) << error.description();
    }
  }
}

TEST_F(PreferencesTest, TheSystemFileIsReadOnlyWhenAskedAndTheUserFileIsMissing) {
  TempDir prefix;
  boost::filesystem::create_directories(prefix / "share/tuqvu/preferences");
  std::ofstream(prefix / "share/tuqvu/preferences/Shipped.xml")
      << "<preferences><preference key=\"k\" description=\"d\">system</preference>"
         "</preferences>";
  ScopedEnv sdk("TUQVU_SDK_PREFIX", prefix.str());
  EXPECT_THROW(prefs->readPrefFile("Shipped", false), ZRError);
  EXPECT_EQ(prefs->readPrefFile("Shipped", true), entries({entry("k", "d", "system")}));
  prefs->writePrefFile("Shipped", entries({entry("k", "d", "user")}), true);
  EXPECT_EQ(prefs->readPrefFile("Shipped", true), entries({entry("k", "d", "user")}));
}

TEST_F(PreferencesTest, ReplaceFalseNeverOverwrites) {
  prefs->writePrefFile("Once", entries({entry("k", "d", "first")}), false);
  EXPECT_THROW(prefs->writePrefFile("Once", entries({entry("k", "d", "second")}), false), ZRError);
  EXPECT_EQ(prefs->readPrefFile("Once", false), entries({entry("k", "d", "first")}));
  prefs->writePrefFile("Once", entries({entry("k", "d", "third")}), true);
  EXPECT_EQ(prefs->readPrefFile("Once", false), entries({entry("k", "d", "third")}));
}

TEST_F(PreferencesTest, TheProxyReachesTheModuleThroughTheBroker) {
  ZRPreferencesProxy proxy(broker);
  const ZRValue value = entries({entry("DefaultBehaviors", "d", "x\n")});
  proxy.writePrefFile("ViaProxy", value, true);
  EXPECT_EQ(proxy.readPrefFile("ViaProxy", false), value);
  EXPECT_THROW(proxy.readPrefFile("../ViaProxy", false), ZRError);
}

// The content the writer child alternates between: large enough that a write takes a
// while, distinct so that a mix of two would not parse as either.
ZRValue generation(int n) {
  std::string value;
  for (int line = 0; line < 20000; ++line) {
    value += "generation " + std::to_string(n) + " line " + std::to_string(line) + "\n";
  }
  return entries({entry("Generation", std::to_string(n), value)});
}

TEST_F(PreferencesTest, AWriterKilledAtAnyMomentLeavesTheOldOrTheNewFile) {
  const int rounds = 25;
  // Shared with the children: 1 while a write is in progress.
  auto* inWrite = static_cast<volatile int*>(
      mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(inWrite, MAP_FAILED);
  const ZRValue first = generation(0);
  const ZRValue second = generation(1);
  prefs->writePrefFile("Killed", first, true);

  std::mt19937 random(12345);
  int killedDuringWrite = 0;
  for (int round = 0; round < rounds; ++round) {
    *inWrite = 0;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // The child: write the two contents in turn until killed.
      for (int i = 0;; ++i) {
        *inWrite = 1;
        prefs->writePrefFile("Killed", i % 2 ? first : second, true);
        *inWrite = 0;
      }
    }
    usleep(2000 + random() % 20000);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    if (*inWrite) ++killedDuringWrite;
    const ZRValue read = prefs->readPrefFile("Killed", false);
    EXPECT_TRUE(read == first || read == second) << "round " << round;
  }
  munmap(const_cast<int*>(inWrite), sizeof(int));
  EXPECT_GT(killedDuringWrite, 0) << "no kill landed inside a write";

  // Killed writers left temporary files; the next write removes them.
  prefs->writePrefFile("Killed", first, true);
  int leftovers = 0;
  for (const auto& file : boost::filesystem::directory_iterator(home / "tuqvu/preferences")) {
    if (file.path().filename().string().find(".tmp.") != std::string::npos) ++leftovers;
  }
  EXPECT_EQ(leftovers, 0);
  EXPECT_EQ(prefs->readPrefFile("Killed", false), first);
}

}  // namespace
