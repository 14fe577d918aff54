// ZRFrameManager: instances run their steps, time their waits, stop promptly when
// exited or deleted, fail with ZRError, and run by the hundred at once.
#include <common/eventually.h>
#include <gtest/gtest.h>
#include <vu/path.h>
#include <zr/modules/zrframemanager.h>
#include <zr/modules/zrmemory.h>
#include <zr/proxies/zrframemanagerproxy.h>
#include <zr/zrerror.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <thread>

#include "testsupport.h"

using namespace ZR;
using modulestest::LogCapture;
using modulestest::RecordingModule;
using modulestest::TempDir;
using Clock = std::chrono::steady_clock;

namespace {

long long millisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class FrameManagerTest : public ::testing::Test {
protected:
  TempDir dir;
  boost::shared_ptr<ZRBroker> broker = ZRBroker::create();
  std::unique_ptr<ZRMemory> memory{new ZRMemory(broker)};
  std::unique_ptr<ZRFrameManager> frames{new ZRFrameManager(broker)};
  int files = 0;

  std::string load(const std::string& steps, const std::string& name = "test") {
    const std::string folder = dir / ("b" + std::to_string(++files));
    boost::filesystem::create_directories(folder);
    const std::string path = folder + "/behavior.xar";
    std::ofstream(path) << "<behavior>\n" << steps << "\n</behavior>\n";
    return frames->newBehaviorFromFile(path, name);
  }

  // Runs id on a thread of its own and waits until it is running.
  std::future<void> start(const std::string& id) {
    auto run = std::async(std::launch::async, [this, id] { frames->completeBehavior(id); });
    while (!frames->isBehaviorRunning(id)) {
      if (run.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready) break;
    }
    return run;
  }
};

TEST_F(FrameManagerTest, RunsItsStepsInOrder) {
  LogCapture log;
  RecordingModule target(broker, "Target");
  RecordingModule subscriber(broker, "Subscriber");
  memory->subscribeToMicroEvent("Demo/Waved", "Subscriber", "", "onEvent");
  const std::string id = load(R"(
    <log text="Hello" level="3"/>
    <set key="Demo/Count" type="int" value="3"/>
    <set key="Demo/Ratio" type="float" value="0.5"/>
    <set key="Demo/On" type="bool" value="true"/>
    <set key="Demo/Text" value="plain"/>
    <raise key="Demo/Waved" type="string" value="yes"/>
    <call module="ZRMemory" method="insertData">
      <arg type="string" value="Demo/Last"/><arg type="int" value="1"/>
    </call>
    <repeat count="3"><call module="Target" method="tick"><arg type="int" value="7"/></call></repeat>
    <log text="Bye" level="5"/>)",
                              "demo");
  frames->completeBehavior(id);
  EXPECT_EQ(memory->getData("Demo/Count"), ZRValue(3));
  EXPECT_EQ(memory->getData("Demo/Ratio"), ZRValue(0.5f));
  EXPECT_EQ(memory->getData("Demo/On"), ZRValue(true));
  EXPECT_EQ(memory->getData("Demo/Text"), ZRValue("plain"));
  EXPECT_EQ(memory->getData("Demo/Waved"), ZRValue("yes"));
  EXPECT_EQ(memory->getData("Demo/Last"), ZRValue(1));
  EXPECT_EQ(target.size(), 3u);
  ASSERT_TRUE(subscriber.waitFor(1));
  EXPECT_EQ(subscriber.calls()[0].value, ZRValue("yes"));

  std::vector<vu::log::Message> lines;
  for (const auto& message : log.messages()) {
    if (message.category == "behavior.run" && message.function == "demo" &&
        (message.text == "Hello" || message.text == "Bye")) {
      lines.push_back(message);
    }
  }
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "Hello");
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[1].level, 5);
}

TEST_F(FrameManagerTest, AnInstanceCanRunAgain) {
  RecordingModule target(broker, "Target");
  const std::string id = load(R"(<call module="Target" method="tick"><arg value="x"/></call>)");
  frames->completeBehavior(id);
  frames->completeBehavior(id);
  EXPECT_EQ(target.size(), 2u);
}

TEST_F(FrameManagerTest, WaitsLastAtLeastTheirTime) {
  const std::string id = load(R"(<wait ms="150"/><repeat count="2"><wait ms="100"/></repeat>)");
  const auto begin = Clock::now();
  frames->completeBehavior(id);
  EXPECT_GE(millisecondsSince(begin), 350);
}

TEST_F(FrameManagerTest, ExitEndsALongWaitAndSkipsTheRest) {
  const std::string id = load(R"(<set key="Before" value="1"/>
    <wait ms="600000"/>
    <set key="After" value="1"/>)");
  auto run = start(id);
  ASSERT_TRUE(frames->isBehaviorRunning(id));
  // The exit is meant for the wait: it comes once the step before it has run.
  ASSERT_TRUE(tuqvutest::eventually([&] {
    try {
      return memory->getData("Before") == ZRValue("1");
    } catch (const ZRError&) {
      return false;
    }
  }));
  const auto begin = Clock::now();
  frames->exitBehavior(id);
  ASSERT_EQ(run.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  run.get();  // an exited run is no error
  EXPECT_LT(millisecondsSince(begin), 600000);
  EXPECT_FALSE(frames->isBehaviorRunning(id));
  EXPECT_EQ(memory->getData("Before"), ZRValue("1"));
  EXPECT_THROW(memory->getData("After"), ZRError);
}

TEST_F(FrameManagerTest, ExitEndsARepeatUntilStopped) {
  RecordingModule target(broker, "Target");
  const std::string id = load(
      R"(<repeat><call module="Target" method="tick"><arg value="x"/></call><wait ms="1"/></repeat>)");
  auto run = start(id);
  ASSERT_TRUE(target.waitFor(5));
  frames->exitBehavior(id);
  ASSERT_EQ(run.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  run.get();
  EXPECT_FALSE(frames->isBehaviorRunning(id));
}

TEST_F(FrameManagerTest, AnExitBeforeTheRunEndsTheNextRunOnly) {
  RecordingModule target(broker, "Target");
  const std::string id = load(R"(<call module="Target" method="tick"><arg value="x"/></call>)");
  frames->exitBehavior(id);
  frames->completeBehavior(id);  // ends before its first step
  EXPECT_EQ(target.size(), 0u);
  frames->completeBehavior(id);
  EXPECT_EQ(target.size(), 1u);
}

TEST_F(FrameManagerTest, DeletingARunningInstanceEndsItsRun) {
  const std::string id = load(R"(<wait ms="600000"/>)");
  auto run = start(id);
  frames->deleteBehavior(id);
  ASSERT_EQ(run.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  run.get();
  EXPECT_TRUE(frames->getBehaviorInstances().empty());
  EXPECT_THROW(frames->completeBehavior(id), ZRError);
}

TEST_F(FrameManagerTest, ARunAskedForJustAfterAStopDeletedItsInstanceEndsAsExited) {
  // A stop exits and deletes an instance whose run has not begun yet; the run, asked
  // for a moment later, ends as one asked for a moment earlier does: without a step.
  RecordingModule target(broker, "Target");
  const std::string id = load(R"(<call module="Target" method="tick"><arg value="x"/></call>)");
  frames->exitBehavior(id);
  frames->deleteBehavior(id);
  EXPECT_NO_THROW(frames->completeBehavior(id));
  EXPECT_EQ(target.size(), 0u);
  EXPECT_TRUE(frames->getBehaviorInstances().empty());
}

TEST_F(FrameManagerTest, OnlyTheLatestInstancesDeletedBeforeTheirRunAreRemembered) {
  const std::string first = load(R"(<wait ms="0"/>)");
  frames->deleteBehavior(first);
  for (std::size_t i = 0; i < ZRFrameManager::kRememberedDeletions; ++i) {
    frames->deleteBehavior(load(R"(<wait ms="0"/>)"));
  }
  EXPECT_THROW(frames->completeBehavior(first), ZRError);
  const std::string last = load(R"(<wait ms="0"/>)");
  frames->deleteBehavior(last);
  EXPECT_NO_THROW(frames->completeBehavior(last));
}

TEST_F(FrameManagerTest, CleaningDropsWhatRanAndKeepsInstancesWaitingForTheirFirstRun) {
  const std::string ran = load(R"(<wait ms="0"/>)");
  frames->completeBehavior(ran);
  const std::string running = load(R"(<wait ms="600000"/>)");
  auto run = start(running);
  const std::string exited = load(R"(<wait ms="0"/>)");
  frames->exitBehavior(exited);
  const std::string preloaded = load(R"(<wait ms="0"/>)");

  frames->cleanBehaviors();
  ASSERT_EQ(run.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  run.get();
  EXPECT_EQ(frames->getBehaviorInstances(), std::vector<std::string>{preloaded});
  frames->completeBehavior(preloaded);  // still there, and it runs
  EXPECT_THROW(frames->completeBehavior(ran), ZRError);
  EXPECT_THROW(frames->completeBehavior(exited), ZRError);
}

TEST_F(FrameManagerTest, UnknownIdsAreHarmlessExceptForARun) {
  frames->exitBehavior("no-such-id");
  frames->deleteBehavior("no-such-id");
  try {
    frames->completeBehavior("no-such-id");
    FAIL() << "completed an unknown id";
  } catch (const ZRError& error) {
    EXPECT_EQ(error.module(), "ZRFrameManager");
    EXPECT_EQ(error.method(), "completeBehavior");
    EXPECT_NE(error.description().find("no-such-id"), std::string::npos);
  }
  const std::string id = load(R"(<log text="x"/>)");
  frames->completeBehavior(id);
  frames->exitBehavior(id);  // ended already: nothing happens
  frames->deleteBehavior(id);
  frames->deleteBehavior(id);
  frames->exitBehavior(id);
}

TEST_F(FrameManagerTest, AFailStepThrowsItsMessageAndStopsTheRun) {
  const std::string id = load(R"(<set key="Before" value="1"/>
    <fail message="out of battery"/>
    <set key="After" value="1"/>)");
  try {
    frames->completeBehavior(id);
    FAIL() << "the run did not fail";
  } catch (const ZRError& error) {
    EXPECT_EQ(error.module(), "ZRFrameManager");
    EXPECT_EQ(error.method(), "completeBehavior");
    EXPECT_EQ(error.description(), "out of battery");
  }
  EXPECT_EQ(memory->getData("Before"), ZRValue("1"));
  EXPECT_THROW(memory->getData("After"), ZRError);
  EXPECT_FALSE(frames->isBehaviorRunning(id));
}

TEST_F(FrameManagerTest, AFailingCallNamesTheStepAndTheCause) {
  const std::string id = load(R"(<log text="x"/>
    <call module="Nobody" method="m"/>)",
                              "caller");
  try {
    frames->completeBehavior(id);
    FAIL() << "the run did not fail";
  } catch (const ZRError& error) {
    EXPECT_NE(error.description().find("behavior caller ("), std::string::npos);
    EXPECT_NE(error.description().find("line 3, <call> failed: module Nobody is not registered"),
              std::string::npos)
        << error.description();
  }
}

TEST_F(FrameManagerTest, SetWithoutAMemoryModuleFails) {
  memory.reset();
  const std::string id = load(R"(<set key="K" value="1"/>)");
  EXPECT_THROW(frames->completeBehavior(id), ZRError);
}

TEST_F(FrameManagerTest, OneInstanceRunsOnceAtATime) {
  const std::string id = load(R"(<wait ms="600000"/>)");
  auto run = start(id);
  try {
    frames->completeBehavior(id);
    ADD_FAILURE() << "a second run of a running instance started";
  } catch (const ZRError& error) {
    EXPECT_NE(error.description().find("is already running"), std::string::npos);
  }
  frames->exitBehavior(id);
  run.get();
}

TEST_F(FrameManagerTest, IdsAreUniqueAcrossFrameManagers) {
  auto other = ZRBroker::create();
  ZRFrameManager second(other);
  std::set<std::string> ids;
  for (int i = 0; i < 20; ++i) {
    ids.insert(load(R"(<log text="x"/>)"));
    boost::filesystem::create_directories(dir / "o");
    std::ofstream(dir / "o/behavior.xar") << "<behavior/>";
    ids.insert(second.newBehaviorFromFile(dir / "o/behavior.xar", "o"));
  }
  EXPECT_EQ(ids.size(), 40u);
}

TEST_F(FrameManagerTest, TwoHundredInstancesRunAtOnceAndAllStopOnClean) {
  const int count = 200;
  std::vector<std::string> ids;
  for (int i = 0; i < count; ++i) {
    ids.push_back(load(R"(<repeat><wait ms="600000"/></repeat>)", "many" + std::to_string(i)));
  }
  std::atomic<int> ended{0};
  std::atomic<int> failed{0};
  std::vector<std::thread> threads;
  for (const std::string& id : ids) {
    threads.emplace_back([&, id] {
      try {
        frames->completeBehavior(id);
      } catch (...) {
        ++failed;
      }
      ++ended;
    });
  }
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  int running = 0;
  while (Clock::now() < deadline) {
    running = 0;
    for (const std::string& id : ids) running += frames->isBehaviorRunning(id) ? 1 : 0;
    if (running == count) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(running, count);
  EXPECT_EQ(ended.load(), 0);
  frames->cleanBehaviors();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(ended.load(), count);
  EXPECT_EQ(failed.load(), 0);
  EXPECT_TRUE(frames->getBehaviorInstances().empty());
}

TEST_F(FrameManagerTest, TheProxyReachesTheModuleThroughTheBroker) {
  ZRFrameManagerProxy proxy(broker);
  boost::filesystem::create_directories(dir / "p");
  std::ofstream(dir / "p/behavior.xar") << R"(<behavior><set key="ViaProxy" type="int" value="2"/>
    <wait ms="600000"/></behavior>)";
  const std::string id = proxy.newBehaviorFromFile(dir / "p/behavior.xar", "proxied");
  auto run = std::async(std::launch::async, [&] { proxy.completeBehavior(id); });
  while (!proxy.isBehaviorRunning(id)) std::this_thread::yield();
  EXPECT_EQ(proxy.getBehaviorInstances(), std::vector<std::string>{id});
  proxy.exitBehavior(id);
  run.get();
  EXPECT_EQ(memory->getData("ViaProxy"), ZRValue(2));
  proxy.deleteBehavior(id);
  proxy.cleanBehaviors();
  EXPECT_THROW(proxy.newBehaviorFromFile(dir / "none/behavior.xar", "x"), ZRError);
}

TEST_F(FrameManagerTest, TheSampleBehaviorsLoadAndRun) {
  const std::string library = vu::path::findData("tuqvu", "behaviors");
  ASSERT_FALSE(library.empty());
  for (const char* name : {"animations/wave", "animations/nod", "stand"}) {
    const std::string id =
        frames->newBehaviorFromFile(library + "/" + name + "/behavior.xar", name);
    frames->completeBehavior(id);
    frames->deleteBehavior(id);
  }
  EXPECT_EQ(memory->getData("Behaviors/Waved"), ZRValue(true));
  EXPECT_EQ(memory->getData("Behaviors/Nodded"), ZRValue(3));
  EXPECT_EQ(memory->getData("Motion/Posture"), ZRValue("Stand"));

  const std::string idle = frames->newBehaviorFromFile(library + "/idle", "idle");
  auto run = start(idle);
  ASSERT_TRUE(frames->isBehaviorRunning(idle));
  frames->exitBehavior(idle);
  run.get();
}

TEST_F(FrameManagerTest, ItsMethodsAreDescribedForIntrospection) {
  std::map<std::string, ZRMethodInfo> methods;
  for (const ZRMethodInfo& info : broker->getMethods("ZRFrameManager")) methods[info.name] = info;
  for (const char* name : {"newBehaviorFromFile", "completeBehavior", "exitBehavior",
                           "deleteBehavior", "cleanBehaviors"}) {
    ASSERT_EQ(methods.count(name), 1u) << name;
    EXPECT_FALSE(methods[name].description.empty());
  }
  const ZRMethodInfo& create = methods["newBehaviorFromFile"];
  ASSERT_EQ(create.arity(), 2);
  EXPECT_EQ(create.parameters[0].name, "xarPath");
  EXPECT_EQ(create.parameters[0].type, "std::string");
  EXPECT_EQ(create.returnType, "std::string");
  EXPECT_EQ(methods["cleanBehaviors"].arity(), 0);
  EXPECT_EQ(methods["cleanBehaviors"].returnType, "void");
}

}  // namespace
