// A preferences module whose writes fail (a full or read-only disk): the error of
// writePrefFile reaches the remote caller of addDefaultBehavior, removeDefaultBehavior
// and removeBehavior unchanged, the stored list stays as it was, and the module keeps
// answering and works again once writes succeed.
#include "faults.h"

namespace faulttest {
namespace {

using ZR::ZRValue;

class PreferencesFaults : public bmtest::ManagerTest {
protected:
  void SetUp() override {
    ManagerTest::SetUp();
    startPlatform(true, false, true);
    prefs = std::make_unique<FailingPreferences>(broker);
    bmtest::makeBehavior(userRoot() / "a", "<behavior/>\n");
    bmtest::makeBehavior(userRoot() / "b", "<behavior/>\n");
    bmtest::makeBehavior(userRoot() / "group" / "c", "<behavior/>\n");
    startManager();
  }
  void TearDown() override {
    manager.reset();
    prefs.reset();
    ManagerTest::TearDown();
  }

  Outcome call(const std::string& method, const std::vector<ZRValue>& args = {}) {
    return callRemote(*broker, "ZRBehaviorManager", method, args);
  }
  std::vector<std::string> defaults() {
    const Outcome listed = call("getDefaultBehaviors");
    EXPECT_FALSE(listed.threw) << listed.description;
    return listed.value.toStringVector();
  }
  void expectWriteError(const Outcome& outcome) {
    EXPECT_TRUE(outcome.threw);
    EXPECT_EQ("ZRPreferences", outcome.module);
    EXPECT_EQ("writePrefFile", outcome.method);
    EXPECT_EQ(FaultPlan::description("writePrefFile"), outcome.description);
  }

  std::unique_ptr<FailingPreferences> prefs;
};

TEST_F(PreferencesFaults, AddDefaultBehaviorReportsTheWriteErrorAndKeepsTheList) {
  ASSERT_FALSE(call("addDefaultBehavior", {ZRValue("a")}).threw);
  prefs->plan().fail("writePrefFile");

  expectWriteError(call("addDefaultBehavior", {ZRValue("b")}));
  EXPECT_EQ(std::vector<std::string>{"a"}, defaults());
  expectWriteError(call("removeDefaultBehavior", {ZRValue("a")}));
  EXPECT_EQ(std::vector<std::string>{"a"}, defaults());

  // An unknown behavior is still refused before anything is written.
  const Outcome unknown = call("addDefaultBehavior", {ZRValue("nobody")});
  EXPECT_TRUE(unknown.threw);
  EXPECT_EQ("ZRBehaviorManager", unknown.module);
  EXPECT_EQ("behavior nobody is not installed", unknown.description);

  prefs->plan().heal("writePrefFile");
  EXPECT_FALSE(call("addDefaultBehavior", {ZRValue("b")}).threw);
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), defaults());
}

TEST_F(PreferencesFaults, RemoveBehaviorStopsAtTheWriteErrorBeforeDeletingAnything) {
  ASSERT_FALSE(call("addDefaultBehavior", {ZRValue("group/c")}).threw);
  prefs->plan().fail("writePrefFile");

  expectWriteError(call("removeBehavior", {ZRValue("group")}));
  EXPECT_TRUE(manager->isBehaviorInstalled("group/c"));
  EXPECT_TRUE(fs::exists(userRoot() / "group" / "c" / "behavior.xar"));
  EXPECT_EQ(std::vector<std::string>{"group/c"}, defaults());

  const Outcome installed = call("getInstalledBehaviors");
  ASSERT_FALSE(installed.threw) << installed.description;
  EXPECT_EQ((std::vector<std::string>{"a", "b", "group/c"}), installed.value.toStringVector());

  prefs->plan().heal("writePrefFile");
  const Outcome removed = call("removeBehavior", {ZRValue("group")});
  ASSERT_FALSE(removed.threw) << removed.description;
  EXPECT_TRUE(removed.value.toBool());
  EXPECT_FALSE(manager->isBehaviorInstalled("group/c"));
  EXPECT_TRUE(defaults().empty());
}

}  // namespace
}  // namespace faulttest
