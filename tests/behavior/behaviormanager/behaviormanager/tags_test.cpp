// Tags: of one behavior or a directory of behaviors, of both libraries together, and
// the behaviors that carry a tag.
#include "fixture.h"

namespace bmtest {
namespace {

using Strings = std::vector<std::string>;

class Tags : public ManagerTest {
protected:
  void start() {
    startPlatform();
    startManager();
    logs->clear();
  }
};

TEST_F(Tags, TagListIsTheSortedUnionOfBothLibraries) {
  makeBehavior(userRoot() / "dance", "<behavior/>", {"music", "fun"});
  makeBehavior(userRoot() / "dir" / "sit", "<behavior/>", {"rest"});
  makeBehavior(systemRoot() / "wave", "<behavior/>", {"greeting", "fun"});
  makeBehavior(systemRoot() / "Stand", "<behavior/>", {"Posture"});
  start();

  const Strings expected{"Posture", "fun", "greeting", "music", "rest"};
  EXPECT_EQ(manager->getTagList(), expected);
  EXPECT_EQ(manager->getBehaviorTags(""), expected);
  ZR::ZRValue none = ZR::ZRValue::array();
  EXPECT_EQ(broker->call("ZRBehaviorManager", "getTagList", none).toStringVector(), expected);
  EXPECT_TRUE(logs->messages().empty());
}

TEST_F(Tags, PrefixedNamesAskOnlyTheirLibrary) {
  makeBehavior(systemRoot() / "animations" / "wave", "<behavior/>", {"greeting", "arm"});
  makeBehavior(systemRoot() / "animations" / "nod", "<behavior/>", {"head", "greeting"});
  makeBehavior(systemRoot() / "stand", "<behavior/>", {"posture"});
  makeBehavior(userRoot() / "animations" / "spin", "<behavior/>", {"fun"});
  start();

  // A system directory: the tags of every system behavior below it.
  EXPECT_EQ(manager->getBehaviorTags("System/animations"), (Strings{"arm", "greeting", "head"}));
  EXPECT_EQ(manager->getBehaviorTags("System/animations/nod"), (Strings{"greeting", "head"}));
  EXPECT_EQ(manager->getBehaviorTags("User/animations"), Strings{"fun"});
  // Unknown prefixed names: whatever the library gives, and no line of the module's own.
  EXPECT_TRUE(manager->getBehaviorTags("System/missing").empty());
  EXPECT_TRUE(manager->getBehaviorTags("User/stand").empty());
  EXPECT_TRUE(logs->messages().empty());
}

TEST_F(Tags, BareNamesAskTheUserLibraryFirst) {
  makeBehavior(systemRoot() / "stand", "<behavior/>", {"posture"});
  makeBehavior(systemRoot() / "dance", "<behavior/>", {"system-dance"});
  makeBehavior(userRoot() / "dance", "<behavior/>", {"user-dance"});
  makeBehavior(userRoot() / "moves" / "a", "<behavior/>", {"one"});
  makeBehavior(userRoot() / "moves" / "b", "<behavior/>", {"two", "one"});
  start();

  EXPECT_EQ(manager->getBehaviorTags("stand"), Strings{"posture"});       // system only
  EXPECT_EQ(manager->getBehaviorTags("dance"), Strings{"user-dance"});    // both: user only
  EXPECT_EQ(manager->getBehaviorTags("moves"), (Strings{"one", "two"}));  // a directory
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue("dance"));
  EXPECT_EQ(broker->call("ZRBehaviorManager", "getBehaviorTags", args).toStringVector(),
            Strings{"user-dance"});
  EXPECT_TRUE(logs->messages().empty());
}

TEST_F(Tags, UnknownBareNameIsEmptyWithAVerboseNote) {
  makeBehavior(userRoot() / "dance", "<behavior/>", {"music"});
  start();

  EXPECT_TRUE(manager->getBehaviorTags("nothing/here").empty());
  EXPECT_EQ(
      logs->count(5, "behavior.manager", "getBehaviorTags", "No behavior found in nothing/here"),
      1);
  EXPECT_EQ(logs->messages().size(), 1u);
}

TEST_F(Tags, BehaviorsByTagAreSortedByByteValue) {
  makeBehavior(userRoot() / "zeta", "<behavior/>", {"shared"});
  makeBehavior(userRoot() / "Alpha", "<behavior/>", {"shared", "user"});
  makeBehavior(userRoot() / "beta", "<behavior/>", {"other"});
  makeBehavior(systemRoot() / "alpha", "<behavior/>", {"shared"});
  makeBehavior(systemRoot() / "moves" / "spin", "<behavior/>", {"shared", "system"});
  start();

  EXPECT_EQ(manager->getBehaviorsByTag("shared"),
            (Strings{"Alpha", "System/alpha", "System/moves/spin", "zeta"}));
  EXPECT_EQ(manager->getBehaviorsByTag("user"), Strings{"Alpha"});
  EXPECT_EQ(manager->getBehaviorsByTag("system"), Strings{"System/moves/spin"});
  EXPECT_TRUE(manager->getBehaviorsByTag("unknown").empty());
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue("shared"));
  EXPECT_EQ(broker->call("ZRBehaviorManager", "getBehaviorsByTag", args).toStringVector(),
            (Strings{"Alpha", "System/alpha", "System/moves/spin", "zeta"}));
  EXPECT_TRUE(logs->messages().empty());
}

TEST_F(Tags, SameNameInBothLibrariesIsListedOncePerLibrary) {
  makeBehavior(userRoot() / "dance", "<behavior/>", {"music"});
  makeBehavior(systemRoot() / "dance", "<behavior/>", {"music"});
  start();

  EXPECT_EQ(manager->getBehaviorsByTag("music"), (Strings{"System/dance", "dance"}));
  EXPECT_EQ(manager->getTagList(), Strings{"music"});
}

}  // namespace
}  // namespace bmtest
