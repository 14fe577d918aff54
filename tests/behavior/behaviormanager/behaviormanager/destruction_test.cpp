// Destroying the module: every running behavior is stopped first, the frame manager is
// cleaned, then every loaded behavior is unloaded, in name order.
#include <algorithm>

#include "lifecycle.h"

namespace bmtest {
namespace {

using Names = std::vector<std::string>;

class Destruction : public LifecycleTest {
protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    for (const char* name : {"b", "a", "r"}) userBehavior(name, untilStoppedXar());
    for (const char* name : {"c", "s"}) systemBehavior(name, untilStoppedXar());
  }
};

TEST_F(Destruction, StopsAllFirstThenUnloadsEachLoadedBehaviorInNameOrder) {
  startFake();
  for (const char* name : {"b", "a", "System/c"}) ASSERT_TRUE(manager->loadBehavior(name));
  std::vector<std::future<CallResult>> runs;
  for (const char* name : {"r", "System/s"}) {
    runs.push_back(callAsync("runBehavior", {name}));
    ASSERT_TRUE(fake->waitRunning(name, 20000)) << name;
  }
  const std::string a = fake->idOf("a"), b = fake->idOf("b"), c = fake->idOf("System/c");
  const std::string r = fake->idOf("r"), s = fake->idOf("System/s");
  fake->clearCalls();

  stopManager();
  for (auto& run : runs) {
    const CallResult result = run.get();
    EXPECT_FALSE(result.threw) << result.description;
  }

  const Names calls = fake->calls();
  const auto clean = std::find(calls.begin(), calls.end(), "cleanBehaviors()");
  ASSERT_NE(clean, calls.end());
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "cleanBehaviors()"), 1);

  // Before the clean-up: the two stops, in name order ("System/s" before "r"). Each
  // exits and deletes the instance, and so does the run's own clean-up (the two threads'
  // calls may interleave); the system behavior is then loaded again, which its stop
  // waits for before the next one starts.
  const auto sorted = [](Names names) {
    std::sort(names.begin(), names.end());
    return names;
  };
  const Names stops(calls.begin(), clean);
  ASSERT_EQ(stops.size(), 9u) << ::testing::PrintToString(stops);
  const std::string reload =
      "newBehaviorFromFile(" + (systemRoot() / "s").string() + "/behavior.xar, System/s)";
  EXPECT_EQ(stops[0], "exitBehavior(" + s + ")");
  EXPECT_EQ(sorted(Names(stops.begin(), stops.begin() + 5)),
            sorted({"exitBehavior(" + s + ")", "deleteBehavior(" + s + ")",
                    "exitBehavior(" + s + ")", "deleteBehavior(" + s + ")", reload}));
  EXPECT_EQ(stops[5], "exitBehavior(" + r + ")");
  EXPECT_EQ(sorted(Names(stops.begin() + 5, stops.end())),
            sorted({"exitBehavior(" + r + ")", "deleteBehavior(" + r + ")",
                    "exitBehavior(" + r + ")", "deleteBehavior(" + r + ")"}));

  // After it: one unload per loaded behavior, in byte-wise name order ("System/..."
  // first), the reloaded system behavior with its new instance.
  const std::string s2 = fake->idOf("System/s");
  EXPECT_NE(s2, s);
  const Names unloads(clean + 1, calls.end());
  EXPECT_EQ(unloads, (Names{"exitBehavior(" + c + ")", "deleteBehavior(" + c + ")",
                            "exitBehavior(" + s2 + ")", "deleteBehavior(" + s2 + ")",
                            "exitBehavior(" + a + ")", "deleteBehavior(" + a + ")",
                            "exitBehavior(" + b + ")", "deleteBehavior(" + b + ")"}));
}

TEST_F(Destruction, WithNothingLoadedOnlyTheFrameManagerIsCleaned) {
  startFake();
  fake->clearCalls();
  stopManager();
  EXPECT_EQ(fake->calls(), Names{"cleanBehaviors()"});
}

TEST_F(Destruction, RealRunsEndAndNoInstanceIsLeft) {
  startReal();
  events->clear();
  ASSERT_TRUE(manager->loadBehavior("a"));
  std::future<CallResult> user = callAsync("runBehavior", {"r"});
  ASSERT_TRUE(publishedWith("r"));
  std::future<CallResult> system = callAsync("runBehavior", {"System/s"});
  ASSERT_TRUE(publishedWith("System/s"));
  ASSERT_TRUE(runStarted("r"));
  ASSERT_TRUE(runStarted("System/s"));
  EXPECT_EQ(frameManager->getBehaviorInstances().size(), 3u);

  stopManager();
  EXPECT_FALSE(user.get().threw);
  EXPECT_FALSE(system.get().threw);
  EXPECT_TRUE(frameManager->getBehaviorInstances().empty());
  EXPECT_EQ(published(), (std::vector<Names>{{"r"}, {"System/s", "r"}, {"r"}, {}}));
  EXPECT_TRUE(memory->getData("BehaviorsRun").toStringVector().empty());
}

}  // namespace
}  // namespace bmtest
