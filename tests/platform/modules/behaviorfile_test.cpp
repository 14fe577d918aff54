// Reading behavior files: every problem is a ZRError of ZRFrameManager.newBehaviorFromFile
// naming the file, and the line and column of a problem inside it.
#include <gtest/gtest.h>
#include <zr/modules/zrframemanager.h>
#include <zr/zrerror.h>

#include <fstream>

#include "testsupport.h"

using namespace ZR;
using modulestest::TempDir;

namespace {

class BehaviorFileTest : public ::testing::Test {
protected:
  TempDir dir;
  boost::shared_ptr<ZRBroker> broker = ZRBroker::create();
  std::unique_ptr<ZRFrameManager> frames{new ZRFrameManager(broker)};

  std::string write(const std::string& text, const std::string& name = "behavior.xar") {
    const std::string path = dir / name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return path;
  }

  // The description of the error that loading the file gives; without a behavior name,
  // the file is named by the path the caller gave.
  std::string errorOf(const std::string& path, const std::string& behaviorName = "") {
    try {
      frames->newBehaviorFromFile(path, behaviorName);
    } catch (const ZRError& error) {
      EXPECT_EQ(error.module(), "ZRFrameManager");
      EXPECT_EQ(error.method(), "newBehaviorFromFile");
      EXPECT_FALSE(error.file().empty());
      EXPECT_GT(error.line(), 0);
      return error.description();
    }
    ADD_FAILURE() << "loaded " << path;
    return "";
  }
};

TEST_F(BehaviorFileTest, AMissingFileIsNamed) {
  const std::string path = dir / "nowhere/behavior.xar";
  EXPECT_EQ(errorOf(path), "behavior file " + path + " does not exist");
}

TEST_F(BehaviorFileTest, AFolderStandsForItsBehaviorFile) {
  write("<behavior><log text=\"x\"/></behavior>");
  EXPECT_FALSE(frames->newBehaviorFromFile(dir.str(), "folder").empty());
  TempDir empty;
  EXPECT_EQ(errorOf(empty.str()), "behavior file " + (empty / "behavior.xar") + " does not exist");
}

TEST_F(BehaviorFileTest, AFileNotNamedBehaviorXarIsRefusedWithoutReadingIt) {
  const std::string other = write("root:x:0:0:root:/root:/bin/bash\nline two\n", "passwd");
  const std::string description = errorOf(other);
  EXPECT_EQ(description, "refused to read " + other + ": a behavior file is named behavior.xar");
  EXPECT_EQ(errorOf("/etc/passwd"),
            "refused to read /etc/passwd: a behavior file is named behavior.xar");
  // A folder holding no behavior.xar but other files is not read either.
  EXPECT_EQ(errorOf(dir.str()), "behavior file " + (dir / "behavior.xar") + " does not exist");
}

TEST_F(BehaviorFileTest, AnUnreadableFileIsNamed) {
  // A folder where the file should be cannot be read as a file, whoever runs the test.
  boost::filesystem::create_directories(dir / "odd/behavior.xar");
  const std::string description = errorOf(dir / "odd");
  EXPECT_EQ(description.rfind("behavior file " + (dir / "odd/behavior.xar") + " cannot be read", 0),
            0u)
      << description;
}

TEST_F(BehaviorFileTest, MalformedXmlGivesLineAndColumn) {
  const std::string path = write("<behavior>\n  <log text=\"a\">\n</behavior>\n");
  EXPECT_EQ(errorOf(path),
            "behavior file " + path + " is malformed at line 3, column 3: Start-end tags mismatch");
  const std::string attribute =
      write("<behavior>\n  <log text=\"a\"/>\n  <wait ms=5/>\n</behavior>\n");
  EXPECT_EQ(errorOf(attribute).rfind(
                "behavior file " + attribute + " is malformed at line 3, column 12: ", 0),
            0u);
  const std::string empty = write("");
  EXPECT_EQ(errorOf(empty).rfind("behavior file " + empty + " is malformed at line 1, column 1", 0),
            0u);
}

TEST_F(BehaviorFileTest, AnUnknownStepGivesItsLineAndColumn) {
  const std::string path = write("<behavior>\n  <wait ms=\"1\"/>\n    <dance/>\n</behavior>\n");
  EXPECT_EQ(errorOf(path), "behavior file " + path +
                               ", line 3, column 5: unknown step <dance> (known: log, wait, set, "
                               "raise, call, repeat, fail)");
}

TEST_F(BehaviorFileTest, AStepFarAlongOneLongLineGetsItsColumnInCharacters) {
  // 400 two-byte characters cross several blocks of the position index before the step.
  std::string steps;
  for (int i = 0; i < 200; ++i) steps += "<log text=\"\xc3\xa9\xc3\xa9\"/>";  // 16 characters
  const std::string path = write("<behavior>\n " + steps + "<dance/></behavior>\n");
  const std::string description = errorOf(path);
  EXPECT_EQ(description.rfind("behavior file " + path + ", line 2, column " +
                                  std::to_string(2 + 200 * 16) + ": unknown step <dance>",
                              0),
            0u)
      << description;
}

TEST_F(BehaviorFileTest, TheLastOf200000StepsOnOneLineIsPlacedByItsColumn) {
  std::string text = "<behavior>";
  for (int i = 0; i < 200000; ++i) text += "<log text=\"x\" level=\"5\"/>";
  text += "<dance/></behavior>";
  const std::string path = write(text);
  const std::string description = errorOf(path);
  EXPECT_EQ(description.rfind("behavior file " + path + ", line 1, column " +
                                  std::to_string(11 + 200000 * 25) + ": unknown step <dance>",
                              0),
            0u)
      << description;
}

TEST_F(BehaviorFileTest, InvalidStepsAreRefusedWithTheirPlace) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<wait/>", "<wait> needs the attribute \"ms\""},
      {"<wait ms=\"soon\"/>", "<wait> ms=\"soon\" is not a whole number from 0 to 2147483647"},
      {"<wait ms=\"-1\"/>", "<wait> ms=\"-1\" is not a whole number"},
      {"<wait ms=\"5\" seconds=\"1\"/>", "<wait> has an unknown attribute \"seconds\""},
      {"<log level=\"3\"/>", "<log> needs the attribute \"text\""},
      {"<log text=\"x\" level=\"9\"/>", "<log> level=\"9\" is not a whole number from 1 to 6"},
      {"<set key=\"K\" type=\"double\" value=\"1\"/>",
       "<set> has the unknown type \"double\" (int, float, string or bool)"},
      {"<set key=\"K\" type=\"int\" value=\"1.5\"/>", "<set> value=\"1.5\" is not a whole number"},
      {"<set key=\"K\" type=\"int\" value=\"99999999999\"/>", "is not a whole number"},
      {"<raise key=\"K\" type=\"float\" value=\"x\"/>", "<raise> value=\"x\" is not a float"},
      {"<raise key=\"K\" type=\"bool\" value=\"yes\"/>", "is not a bool (true or false)"},
      {"<set key=\"\" value=\"1\"/>", "<set> has an empty key"},
      {"<set key=\"K\"/>", "<set> needs the attribute \"value\""},
      {"<call module=\"M\"/>", "<call> needs the attribute \"method\""},
      {"<call module=\"M\" method=\"m\"><log text=\"x\"/></call>",
       "<call> holds <log>, only <arg> is allowed"},
      {"<call module=\"M\" method=\"m\"><arg type=\"int\" value=\"z\"/></call>",
       "<arg> value=\"z\" is not a whole number"},
      {"<repeat count=\"two\"><wait ms=\"1\"/></repeat>", "<repeat> count=\"two\""},
      {"<repeat/>", "<repeat> until stopped needs at least one step"},
      {"<fail/>", "<fail> needs the attribute \"message\""},
      {"<log text=\"x\">inside</log>", "<log> takes no content"},
      {"loose text", "unexpected text inside <behavior>"},
  };
  for (const auto& c : cases) {
    const std::string path = write("<behavior>\n  " + c.first + "\n</behavior>\n");
    const std::string description = errorOf(path);
    EXPECT_EQ(description.rfind("behavior file " + path + ", line 2, column ", 0), 0u)
        << c.first << ": " << description;
    EXPECT_NE(description.find(c.second), std::string::npos) << c.first << ": " << description;
  }
}

TEST_F(BehaviorFileTest, TheRootMustBeBehavior) {
  const std::string path = write("<?xml version=\"1.0\"?>\n<sequence/>\n");
  EXPECT_EQ(errorOf(path), "behavior file " + path +
                               ", line 2, column 1: the root element is <sequence>, <behavior> "
                               "was expected");
}

TEST_F(BehaviorFileTest, NestingIsBounded) {
  std::string text = "<behavior>";
  for (int i = 0; i < 100; ++i) text += "<repeat count=\"1\">";
  text += "<log text=\"deep\"/>";
  for (int i = 0; i < 100; ++i) text += "</repeat>";
  text += "</behavior>";
  EXPECT_NE(errorOf(write(text)).find("steps are nested more than 64 deep"), std::string::npos);
}

TEST_F(BehaviorFileTest, EveryDocumentedStepIsAccepted) {
  const std::string path = write(R"(<?xml version="1.0" encoding="UTF-8"?>
<behavior>
  <!-- a comment is fine -->
  <log text="Hello" level="4"/>
  <wait ms="1500"/>
  <set key="Demo/Count" type="int" value="3"/>
  <raise key="Demo/Waved" type="string" value="yes"/>
  <call module="ZRMemory" method="insertData">
    <arg type="string" value="Demo/Last"/><arg type="int" value="1"/>
  </call>
  <repeat count="2"> <wait ms="1"/> </repeat>
  <repeat> <wait ms="1"/> </repeat>
  <fail message="out of battery"/>
</behavior>
)");
  const std::string id = frames->newBehaviorFromFile(path, "all steps");
  EXPECT_FALSE(id.empty());
}

}  // namespace

// The behavior manager loads a behavior by its name; its errors reach remote callers, who
// learn the name they gave and nothing of the robot's folders.
TEST_F(BehaviorFileTest, ANamedBehaviorsFileIsNamedAfterTheBehaviorNotItsPath) {
  const std::string missing = dir / "nowhere/behavior.xar";
  EXPECT_EQ(errorOf(missing, "dance"), "behavior file dance/behavior.xar does not exist");
  const std::string broken = write("<behavior>\n  <log text='a'>\n</behavior>\n");
  const std::string description = errorOf(broken, "greetings/hello");
  EXPECT_EQ(
      description.rfind("behavior file greetings/hello/behavior.xar is malformed at line ", 0), 0u)
      << description;
  EXPECT_EQ(description.find(dir.str()), std::string::npos) << description;
}
