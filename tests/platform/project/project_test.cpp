// Project, isBehavior and makeBehaviorLibraryProject.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vu/project.h>

#include "support.h"

using namespace projecttest;
using vu::project::Project;

TEST(Project, DefaultIsInvalidWithEmptyPath) {
  Project project;
  EXPECT_FALSE(project.valid());
  EXPECT_EQ("", project.projectPath());
  EXPECT_EQ("", project.getMetadata("Type"));
  EXPECT_EQ("", Project("").projectPath());
  EXPECT_FALSE(Project("").valid());
}

TEST(Project, PathIsAbsoluteNormalisedWithoutTrailingSeparator) {
  ScratchDir dir;
  writeFile(dir / "a/b/keep", "");
  EXPECT_EQ(dir / "a/b", Project(dir.path() + "/a//b/").projectPath());
  EXPECT_EQ(dir / "a/b", Project(dir.path() + "/a/./c/../b/.").projectPath());
  EXPECT_EQ("/", Project("/").projectPath());
  EXPECT_TRUE(Project(dir / "a/b").valid());
}

TEST(Project, RelativePathIsTakenFromTheCurrentDirectory) {
  ScratchDir dir;
  writeFile(dir / "sub/keep", "");
  char previous[4096];
  ASSERT_NE(nullptr, ::getcwd(previous, sizeof previous));
  ASSERT_EQ(0, ::chdir(dir.path().c_str()));
  Project project("sub/");
  ASSERT_EQ(0, ::chdir(previous));
  EXPECT_EQ(dir / "sub", project.projectPath());
  EXPECT_TRUE(project.valid());
}

TEST(Project, ValidFollowsTheDisk) {
  ScratchDir dir;
  Project project(dir / "later");
  EXPECT_FALSE(project.valid());
  EXPECT_EQ(dir / "later", project.projectPath());
  writeFile(dir / "later/keep", "");
  EXPECT_TRUE(project.valid());
  writeFile(dir / "file", "x");
  EXPECT_FALSE(Project(dir / "file").valid());
}

TEST(Project, MetadataIsReadFromProjectXml) {
  ScratchDir dir;
  writeFile(dir / "wave/project.xml",
            "<project>\n"
            "  <metadata key=\"Type\" value=\"Behavior\"/>\n"
            "  <metadata key=\"Name\" value=\"Wave\"/>\n"
            "  <metadata key=\"Name\" value=\"Second\"/>\n"
            "  <tag>greeting</tag>\n"
            "</project>\n");
  Project project(dir / "wave");
  EXPECT_EQ("Behavior", project.getMetadata("Type"));
  EXPECT_EQ("Wave", project.getMetadata("Name"));  // the first entry of a key wins
  EXPECT_EQ("", project.getMetadata("Missing"));
}

TEST(Project, MetadataReflectsTheFileAtTheTimeOfTheCall) {
  ScratchDir dir;
  Project project(dir / "res");
  writeFile(dir / "res/keep", "");
  EXPECT_EQ("", project.getMetadata("Type"));
  writeFile(dir / "res/project.xml", projectXml("Resource", {}));
  EXPECT_EQ("Resource", project.getMetadata("Type"));
  writeFile(dir / "res/project.xml", projectXml("Resources", {}));
  EXPECT_EQ("Resources", project.getMetadata("Type"));
}

TEST(Project, MissingProjectFileMeansNoMetadataAndNoWarning) {
  ScratchDir dir;
  writeFile(dir / "plain/keep", "");
  LogCapture log;
  EXPECT_EQ("", Project(dir / "plain").getMetadata("Type"));
  EXPECT_TRUE(log.messages().empty());
}

TEST(Project, MalformedProjectFileIsAWarningAndNoMetadata) {
  ScratchDir dir;
  writeFile(dir / "broken/project.xml", "<project><metadata key=\"Type\" value=\"Behavior\"/>");
  LogCapture log;
  EXPECT_EQ("", Project(dir / "broken").getMetadata("Type"));
  const auto warnings = log.texts(vu::log::warning, "vu.project");
  ASSERT_EQ(1u, warnings.size());
  EXPECT_NE(std::string::npos, warnings[0].find(dir / "broken/project.xml")) << warnings[0];
}

TEST(Project, WrongRootElementIsAWarning) {
  ScratchDir dir;
  writeFile(dir / "other/project.xml", "<behavior><metadata key=\"Type\" value=\"X\"/></behavior>");
  LogCapture log;
  EXPECT_EQ("", Project(dir / "other").getMetadata("Type"));
  ASSERT_EQ(1u, log.texts(vu::log::warning, "vu.project").size());
  EXPECT_NE(std::string::npos, log.texts(vu::log::warning, "vu.project")[0].find("<behavior>"));
}

TEST(Project, UnreadableProjectFileIsAWarning) {
  ScratchDir dir;
  ASSERT_EQ(0, ::mkdir((dir.path() + "/odd").c_str(), 0755));
  ASSERT_EQ(0, ::mkdir((dir.path() + "/odd/project.xml").c_str(), 0755));  // not a file
  LogCapture log;
  EXPECT_EQ("", Project(dir / "odd").getMetadata("Type"));
  EXPECT_EQ(1u, log.texts(vu::log::warning, "vu.project").size());
}

TEST(Project, CopyAndAssignmentTakeThePath) {
  ScratchDir dir;
  writeFile(dir / "one/project.xml", projectXml("Behavior", {}));
  writeFile(dir / "two/project.xml", projectXml("Resource", {}));
  Project one(dir / "one");
  Project copy(one);
  EXPECT_EQ(one.projectPath(), copy.projectPath());
  Project two(dir / "two");
  copy = two;
  EXPECT_EQ(dir / "two", copy.projectPath());
  EXPECT_EQ("Resource", copy.getMetadata("Type"));
  EXPECT_EQ(dir / "one", one.projectPath());
  copy = copy;
  EXPECT_EQ(dir / "two", copy.projectPath());
}

TEST(IsBehavior, NeedsARegularBehaviorXar) {
  ScratchDir dir;
  makeBehavior(dir / "wave");
  writeFile(dir / "plain/keep", "");
  ASSERT_EQ(0, ::mkdir((dir.path() + "/fake").c_str(), 0755));
  ASSERT_EQ(0, ::mkdir((dir.path() + "/fake/behavior.xar").c_str(), 0755));
  EXPECT_TRUE(vu::project::isBehavior(dir / "wave"));
  EXPECT_TRUE(vu::project::isBehavior(dir.path() + "/wave/"));
  EXPECT_TRUE(vu::project::isBehavior(Project(dir / "wave")));
  EXPECT_FALSE(vu::project::isBehavior(dir / "plain"));
  EXPECT_FALSE(vu::project::isBehavior(dir / "fake"));
  EXPECT_FALSE(vu::project::isBehavior(dir / "missing"));
  EXPECT_FALSE(vu::project::isBehavior(""));
  EXPECT_FALSE(vu::project::isBehavior(Project()));
}

TEST(MakeBehaviorLibraryProject, WritesTheLibraryMetadata) {
  ScratchDir dir;
  writeFile(dir / "lib/keep", "");
  EXPECT_TRUE(vu::project::makeBehaviorLibraryProject(dir / "lib", ""));
  Project library(dir / "lib");
  EXPECT_EQ("BehaviorLibrary", library.getMetadata("Type"));
  EXPECT_EQ("", library.getMetadata("Name"));
  EXPECT_TRUE(vu::project::makeBehaviorLibraryProject(dir / "lib", "Mine"));
  EXPECT_EQ("Mine", library.getMetadata("Name"));
  EXPECT_EQ("BehaviorLibrary", library.getMetadata("Type"));
  EXPECT_EQ((std::vector<std::string>{"keep", "project.xml"}), listDir(dir / "lib"));
}

TEST(MakeBehaviorLibraryProject, KeepsOtherEntriesOfAnExistingFile) {
  ScratchDir dir;
  writeFile(dir / "lib/project.xml",
            "<project><metadata key=\"Type\" value=\"Other\"/>"
            "<metadata key=\"Owner\" value=\"operator\"/><tag>kept</tag></project>");
  EXPECT_TRUE(vu::project::makeBehaviorLibraryProject(dir / "lib", "Lib"));
  Project library(dir / "lib");
  EXPECT_EQ("BehaviorLibrary", library.getMetadata("Type"));
  EXPECT_EQ("operator", library.getMetadata("Owner"));
  EXPECT_EQ("Lib", library.getMetadata("Name"));
  EXPECT_NE(std::string::npos, readFile(dir / "lib/project.xml").find("<tag>kept</tag>"));
}

TEST(MakeBehaviorLibraryProject, FailsOnAMissingDirectoryWithALogLine) {
  ScratchDir dir;
  LogCapture log;
  EXPECT_FALSE(vu::project::makeBehaviorLibraryProject(dir / "missing", ""));
  EXPECT_FALSE(exists(dir / "missing"));
  EXPECT_FALSE(vu::project::makeBehaviorLibraryProject("", ""));
  EXPECT_EQ(2u, log.texts(vu::log::error, "vu.project").size());
}

TEST(MakeBehaviorLibraryProject, RefusesToOverwriteAMalformedFile) {
  ScratchDir dir;
  writeFile(dir / "lib/project.xml", "<project>");
  LogCapture log;
  EXPECT_FALSE(vu::project::makeBehaviorLibraryProject(dir / "lib", ""));
  EXPECT_EQ("<project>", readFile(dir / "lib/project.xml"));
  EXPECT_EQ(1u, log.texts(vu::log::error, "vu.project").size());
}
