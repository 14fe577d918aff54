// Listing the installed behaviors and resolving the names callers give: search order,
// prefixes, the deprecated forms and their warnings, sub-behaviors and resources.
#include "fixture.h"

namespace bmtest {
namespace {

const char* const kAbsoluteWarning =
    "Passing absolute paths to ZRBehaviorManager is deprecated. Please only use local paths.";
const char* const kSubBehaviorWarning = "Access to sub-behaviors is deprecated.";

class Discovery : public ManagerTest {
protected:
  // Starts the module with the disk prepared, and forgets the start-up log.
  void start() {
    startPlatform();
    startManager();
    logs->clear();
  }
  int warnings(const std::string& function, const std::string& text) {
    return logs->count(3, "behavior.manager", function, text);
  }
};

// ---- listings

TEST_F(Discovery, ListingsAreSortedAndPrefixedByLibrary) {
  makeBehavior(userRoot() / "b");
  makeBehavior(userRoot() / "a");
  makeBehavior(userRoot() / "dir" / "c");
  makeBehavior(systemRoot() / "c");
  makeBehavior(systemRoot() / "animations" / "wave");
  start();

  EXPECT_EQ(manager->getInstalledBehaviors(), (std::vector<std::string>{"a", "b", "dir/c"}));
  EXPECT_EQ(manager->getSystemBehaviorNames(),
            (std::vector<std::string>{"System/animations/wave", "System/c"}));
  EXPECT_TRUE(logs->messages().empty());

  EXPECT_EQ(manager->getUserBehaviorNames(),
            (std::vector<std::string>{"User/a", "User/b", "User/dir/c"}));
  EXPECT_EQ(warnings("getUserBehaviorNames", "getUserBehaviorNames is deprecated."), 1);
  EXPECT_EQ(logs->messages().size(), 1u);
}

TEST_F(Discovery, GetBehaviorNamesListsUserThenSystemAndLogsTwoWarnings) {
  makeBehavior(userRoot() / "b");
  makeBehavior(userRoot() / "a");
  makeBehavior(systemRoot() / "c");
  start();

  ZR::ZRValue none = ZR::ZRValue::array();
  EXPECT_EQ(broker->call("ZRBehaviorManager", "getBehaviorNames", none).toStringVector(),
            (std::vector<std::string>{"User/a", "User/b", "System/c"}));

  const std::vector<vu::log::Message> messages = logs->messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].level, 3);
  EXPECT_EQ(messages[0].category, "behavior.manager");
  EXPECT_EQ(messages[0].function, "getBehaviorNames");
  EXPECT_EQ(messages[0].text, "getBehaviorNames is deprecated.");
  EXPECT_EQ(messages[1].level, 3);
  EXPECT_EQ(messages[1].category, "behavior.manager");
  EXPECT_EQ(messages[1].function, "getUserBehaviorNames");
  EXPECT_EQ(messages[1].text, "getUserBehaviorNames is deprecated.");
}

// ---- lookup order and prefixes

TEST_F(Discovery, BareNameInBothLibrariesIsTheSystemCopyAndUserPrefixTheUserCopy) {
  makeBehavior(userRoot() / "dance");
  makeBehavior(systemRoot() / "dance");
  makeBehavior(userRoot() / "mine");
  makeBehavior(systemRoot() / "stand");
  start();

  EXPECT_EQ(manager->xFindBehavior("dance"), systemRoot() / "dance");
  EXPECT_EQ(manager->xFindBehavior("User/dance"), userRoot() / "dance");
  EXPECT_EQ(manager->xFindBehavior("System/dance"), systemRoot() / "dance");
  EXPECT_EQ(manager->xFindBehavior("mine"), userRoot() / "mine");
  EXPECT_EQ(manager->xFindBehavior("stand"), systemRoot() / "stand");
  EXPECT_EQ(manager->xFindBehavior("User/stand"), fs::path());
  EXPECT_EQ(manager->xFindBehavior("nothing"), fs::path());
  EXPECT_TRUE(logs->messages().empty());
}

TEST_F(Discovery, SystemPrefixFallsBackToTheUserRootOnlyForASubBehaviorOrAResource) {
  // "outer" holds "outer/inner", itself a behavior the library does not list.
  makeBehavior(userRoot() / "outer");
  makeBehavior(userRoot() / "outer" / "inner");
  makeResource(userRoot() / "sounds");
  makeResource(userRoot() / "images", "Resource");
  start();

  EXPECT_EQ(manager->xFindBehavior("System/outer/inner"), userRoot() / "outer" / "inner");
  EXPECT_EQ(warnings("xFindBehavior", kSubBehaviorWarning), 1);
  logs->clear();

  EXPECT_EQ(manager->xFindBehavior("System/sounds"), userRoot() / "sounds");
  EXPECT_EQ(manager->xFindBehavior("System/images"), userRoot() / "images");
  EXPECT_TRUE(logs->messages().empty());

  // "outer" is a listed user behavior, not a sub-behavior; and a missing directory is nothing.
  EXPECT_EQ(manager->xFindBehavior("System/outer"), userRoot() / "outer");
  EXPECT_EQ(warnings("xFindBehavior", kSubBehaviorWarning), 1);
  logs->clear();
  EXPECT_EQ(manager->xFindBehavior("System/missing"), fs::path());
  EXPECT_TRUE(logs->messages().empty());
}

TEST_F(Discovery, SubBehaviorResolvesWithTheDeprecationWarning) {
  makeBehavior(userRoot() / "outer");
  makeBehavior(userRoot() / "outer" / "inner");
  start();
  ASSERT_EQ(manager->getInstalledBehaviors(), std::vector<std::string>{"outer"});

  EXPECT_EQ(manager->xFindBehavior("outer/inner"), userRoot() / "outer" / "inner");
  EXPECT_EQ(manager->xFindBehavior("User/outer/inner"), userRoot() / "outer" / "inner");
  EXPECT_EQ(warnings("xFindBehavior", kSubBehaviorWarning), 2);
  const std::vector<vu::log::Message> messages = logs->messages();
  EXPECT_EQ(messages.size(), 2u);
  // Named by its path, like any directory under the user root that is a behavior.
  EXPECT_EQ(manager->xNormalizeLocalPath("outer/inner"), "outer/inner");
  EXPECT_EQ(warnings("xFindBehavior", kSubBehaviorWarning), 3);
}

TEST_F(Discovery, ResourceResolvesWithoutWarningThoughTheLibraryDeniesIt) {
  makeResource(userRoot() / "sounds");  // Type "Resources"
  makeResource(userRoot() / "images", "Resource");
  makeResource(userRoot() / "other", "resources");  // the type is compared exactly
  start();
  ASSERT_FALSE(manager->xUserLibrary().hasBehavior("sounds"));

  EXPECT_EQ(manager->xFindBehavior("sounds"), userRoot() / "sounds");
  EXPECT_EQ(manager->xFindBehavior("User/sounds"), userRoot() / "sounds");
  EXPECT_EQ(manager->xFindBehavior("images"), userRoot() / "images");
  EXPECT_EQ(manager->xFindBehavior("other"), fs::path());
  EXPECT_TRUE(manager->isBehaviorInstalled("sounds"));
  EXPECT_FALSE(manager->isBehaviorInstalled("other"));
  EXPECT_TRUE(logs->messages().empty());
  EXPECT_EQ(manager->xNormalizeLocalPath("sounds"), "");  // found, but not a behavior
}

TEST_F(Discovery, AbsolutePathsAreAcceptedWithTheDeprecationWarning) {
  makeBehavior(userRoot() / "dance");
  makeBehavior(systemRoot() / "dance");
  makeBehavior(systemRoot() / "stand");
  start();

  EXPECT_EQ(manager->xFindBehavior(userRoot().string() + "/dance"), userRoot() / "dance");
  EXPECT_EQ(warnings("xFindBehavior", kAbsoluteWarning), 1);
  EXPECT_EQ(manager->xNormalizeLocalPath(userRoot().string() + "/dance"), "dance");
  EXPECT_EQ(warnings("xFindBehavior", kAbsoluteWarning), 2);
  EXPECT_EQ(manager->xFindBehavior(systemRoot().string() + "/dance"), systemRoot() / "dance");
  EXPECT_EQ(manager->xFindBehavior(systemRoot().string() + "/stand"), systemRoot() / "stand");
  EXPECT_EQ(warnings("xFindBehavior", kAbsoluteWarning), 4);
  EXPECT_EQ(logs->messages().size(), 4u);
  // An absolute path into the system library is only looked up there.
  EXPECT_EQ(manager->xFindBehavior(systemRoot().string() + "/missing"), fs::path());
}

// ---- existence

TEST_F(Discovery, IsBehaviorInstalledOfAnUnknownNameIsFalseAndLogsNothing) {
  makeBehavior(userRoot() / "dance");
  makeBehavior(systemRoot() / "stand");
  start();

  EXPECT_FALSE(manager->isBehaviorInstalled("unknown"));
  EXPECT_FALSE(manager->isBehaviorInstalled("User/unknown"));
  EXPECT_FALSE(manager->isBehaviorInstalled("System/unknown"));
  EXPECT_FALSE(manager->isBehaviorInstalled(""));
  EXPECT_TRUE(logs->messages().empty());

  EXPECT_TRUE(manager->isBehaviorInstalled("dance"));
  EXPECT_TRUE(manager->isBehaviorInstalled("User/dance"));
  EXPECT_TRUE(manager->isBehaviorInstalled("System/stand"));
  EXPECT_TRUE(manager->isBehaviorInstalled("stand"));
  EXPECT_FALSE(manager->isBehaviorInstalled("User/stand"));
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue("dance"));
  EXPECT_TRUE(broker->call("ZRBehaviorManager", "isBehaviorInstalled", args).toBool());
  EXPECT_TRUE(logs->messages().empty());
}

TEST_F(Discovery, IsBehaviorPresentAnswersLikeIsBehaviorInstalledWithAWarning) {
  makeBehavior(userRoot() / "dance");
  start();

  EXPECT_TRUE(manager->isBehaviorPresent("dance"));
  EXPECT_FALSE(manager->isBehaviorPresent("unknown"));
  EXPECT_EQ(warnings("isBehaviorPresent", "isBehaviorPresent is deprecated."), 2);
  EXPECT_EQ(logs->messages().size(), 2u);
}

}  // namespace
}  // namespace bmtest
