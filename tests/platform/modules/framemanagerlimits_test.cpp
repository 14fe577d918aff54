// ZRFrameManager keeps its instances within a count and a byte limit, counts the programs
// at what they hold, and runs nested programs from their compact form exactly as written.
#include <gtest/gtest.h>
#include <zr/modules/zrframemanager.h>
#include <zr/modules/zrmemory.h>
#include <zr/zrerror.h>

#include <boost/filesystem.hpp>
#include <fstream>

#include "testsupport.h"

using namespace ZR;
using modulestest::RecordingModule;
using modulestest::ScopedEnv;
using modulestest::TempDir;

namespace {

class FrameManagerLimitsTest : public ::testing::Test {
protected:
  TempDir dir;
  boost::shared_ptr<ZRBroker> broker = ZRBroker::create();
  int files = 0;

  std::string write(const std::string& steps) {
    const std::string folder = dir / ("b" + std::to_string(++files));
    boost::filesystem::create_directories(folder);
    const std::string path = folder + "/behavior.xar";
    std::ofstream(path) << "<behavior>\n" << steps << "\n</behavior>\n";
    return path;
  }

  static std::string manySteps(int count) {
    std::string steps;
    for (int i = 0; i < count; ++i) steps += "<log text=\"step " + std::to_string(i) + "\"/>\n";
    return steps;
  }

  static std::vector<std::string> ticks(const RecordingModule& target) {
    std::vector<std::string> values;
    for (const RecordingModule::Call& call : target.calls())
      values.push_back(call.value.toString());
    return values;
  }

  static std::string errorOf(ZRFrameManager& frames, const std::string& path) {
    try {
      frames.newBehaviorFromFile(path, "big");
    } catch (const ZRError& error) {
      EXPECT_EQ(error.method(), "newBehaviorFromFile");
      return error.description();
    }
    ADD_FAILURE() << "loaded " << path;
    return "";
  }
};

TEST_F(FrameManagerLimitsTest, InstancesBeyondTheCountAreRefusedUntilOneIsDeleted) {
  ScopedEnv limit("TUQVU_BEHAVIOR_MAX_INSTANCES", "3");
  ZRFrameManager frames(broker);
  const std::string path = write("<log text=\"x\"/>");
  const std::string first = frames.newBehaviorFromFile(path, "a");
  frames.newBehaviorFromFile(path, "b");
  frames.newBehaviorFromFile(path, "c");
  EXPECT_EQ(errorOf(frames, path),
            "there are already 3 behavior instances, the most this robot keeps "
            "(TUQVU_BEHAVIOR_MAX_INSTANCES); delete instances that are no longer needed");
  EXPECT_EQ(frames.getBehaviorInstances().size(), 3u);
  frames.deleteBehavior(first);
  EXPECT_NO_THROW(frames.newBehaviorFromFile(path, "d"));
}

TEST_F(FrameManagerLimitsTest, ProgramsBeyondTheByteLimitAreRefusedAndDeletingReturnsTheirBytes) {
  ScopedEnv limit("TUQVU_BEHAVIOR_MAX_BYTES", "200000");
  ZRFrameManager frames(broker);
  EXPECT_EQ(frames.maxHeldBytes(), 200000u);
  const std::string small = write(manySteps(1000));  // about 70 KB once read
  const std::string first = frames.newBehaviorFromFile(small, "one");
  const std::size_t one = frames.heldBytes();
  EXPECT_GT(one, 50000u);
  EXPECT_LT(one, 100000u);
  const std::string second = frames.newBehaviorFromFile(small, "two");
  EXPECT_EQ(frames.heldBytes(), 2 * one);

  const std::string description = errorOf(frames, small);
  EXPECT_NE(description.find("behavior file big/behavior.xar takes " + std::to_string(one) +
                             " bytes once read; with the " + std::to_string(2 * one) +
                             " bytes of the other instances that is over the limit of 200000 "
                             "bytes (TUQVU_BEHAVIOR_MAX_BYTES)"),
            std::string::npos)
      << description;
  EXPECT_EQ(frames.getBehaviorInstances().size(), 2u);

  frames.deleteBehavior(first);
  EXPECT_EQ(frames.heldBytes(), one);
  EXPECT_NO_THROW(frames.newBehaviorFromFile(small, "three"));
  frames.cleanBehaviors();  // none has run: all stay
  EXPECT_EQ(frames.heldBytes(), 2 * one);
  frames.exitBehavior(second);  // an exit request makes it leftover for the clean-up
  frames.cleanBehaviors();
  EXPECT_EQ(frames.heldBytes(), one);
}

TEST_F(FrameManagerLimitsTest, AFileLargerThanTheWholeLimitIsRefusedEvenWhenNothingElseIsHeld) {
  ScopedEnv limit("TUQVU_BEHAVIOR_MAX_BYTES", "10000");
  ZRFrameManager frames(broker);
  EXPECT_NE(errorOf(frames, write(manySteps(1000))).find("over the limit of 10000 bytes"),
            std::string::npos);
  EXPECT_EQ(frames.heldBytes(), 0u);
  EXPECT_TRUE(frames.getBehaviorInstances().empty());
}

TEST_F(FrameManagerLimitsTest, AStepOfEveryKindHoldsAtMost150Bytes) {
  // The mix of the documented example, each step with texts of its own.
  std::string steps;
  const int blocks = 2000;
  for (int i = 0; i < blocks; ++i) {
    const std::string n = std::to_string(i);
    steps +=
        "<repeat count=\"2\">\n"
        "  <log text=\"Hello number " +
        n +
        "\" level=\"4\"/>\n"
        "  <wait ms=\"15\"/>\n"
        "  <set key=\"Demo/Count" +
        n + "\" type=\"int\" value=\"" + n +
        "\"/>\n"
        "  <raise key=\"Demo/Waved" +
        n + "\" type=\"string\" value=\"yes " + n +
        "\"/>\n"
        "  <call module=\"ZRMemory\" method=\"insertData\">\n"
        "    <arg type=\"string\" value=\"Demo/Last" +
        n +
        "\"/><arg type=\"int\" value=\"1\"/>\n"
        "  </call>\n"
        "</repeat>\n";
  }
  ZRFrameManager frames(broker);
  frames.newBehaviorFromFile(write(steps), "mix");
  const std::size_t stepCount = std::size_t(blocks) * 6;
  EXPECT_LE(frames.heldBytes() / stepCount, 150u);
  EXPECT_GE(frames.heldBytes() / stepCount, 40u);  // the steps themselves are counted
}

TEST_F(FrameManagerLimitsTest, NestedRepeatsRunTheirBodiesAndGoOnAfterThem) {
  ZRMemory memory(broker);
  RecordingModule target(broker, "Target");
  ZRFrameManager frames(broker);
  const std::string id = frames.newBehaviorFromFile(write(R"(
    <call module="Target" method="tick"><arg type="string" value="begin"/></call>
    <repeat count="2">
      <call module="Target" method="tick"><arg type="string" value="outer"/></call>
      <repeat count="3">
        <call module="Target" method="tick"><arg type="string" value="inner"/></call>
      </repeat>
      <repeat count="0"><wait ms="0"/><fail message="an endless repeat is never left"/></repeat>
    </repeat>
    <call module="Target" method="tick"><arg type="string" value="end"/></call>)"),
                                                    "nested");
  // The endless repeat would fail at once: the first pass of the outer one must fail.
  EXPECT_THROW(frames.completeBehavior(id), ZRError);
  EXPECT_EQ(ticks(target), (std::vector<std::string>{"begin", "outer", "inner", "inner", "inner"}));

  const std::string counted = frames.newBehaviorFromFile(write(R"(
    <repeat count="2">
      <call module="Target" method="tick"><arg type="string" value="outer"/></call>
      <repeat count="2">
        <call module="Target" method="tick"><arg type="string" value="inner"/></call>
      </repeat>
    </repeat>
    <call module="Target" method="tick"><arg type="string" value="end"/></call>)"),
                                                         "counted");
  frames.completeBehavior(counted);
  const std::vector<std::string> all = ticks(target);
  EXPECT_EQ(
      std::vector<std::string>(all.begin() + 5, all.end()),
      (std::vector<std::string>{"outer", "inner", "inner", "outer", "inner", "inner", "end"}));
}

}  // namespace
