#include <gtest/gtest.h>
#include <zr/zrbroker.h>
#include <zr/zrcallrefused.h>
#include <zr/zrerror.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "testmodule.h"

using ZR::ZRError;
using ZR::ZRValue;
using zrtest::TestModule;

namespace {

ZRValue args(std::initializer_list<ZRValue> values) {
  ZRValue array = ZRValue::array();
  for (const ZRValue& value : values) array.arrayPush(value);
  return array;
}

std::string descriptionOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const ZRError& error) {
    return error.description();
  }
  return "<no error>";
}

}  // namespace

TEST(ZRBroker, DispatchesByArityBetweenOverloads) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.add(
      "install", {ZR::TypeCodeString}, ZR::TypeCodeString,
      [](const ZRValue&, ZRValue& r) { r = ZRValue("one"); }, true);
  module.add(
      "install", {ZR::TypeCodeString, ZR::TypeCodeString, ZR::TypeCodeBool}, ZR::TypeCodeString,
      [](const ZRValue&, ZRValue& r) { r = ZRValue("three"); }, true);
  EXPECT_EQ(broker->call("M", "install", args({"a"})).toString(), "one");
  EXPECT_EQ(broker->call("M", "install", args({"a", "b", true})).toString(), "three");
}

TEST(ZRBroker, BadCallsFailWithErrorsNamingWhatWasAsked) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.add("f", {ZR::TypeCodeString}, ZR::TypeCodeVoid, [](const ZRValue&, ZRValue&) {});
  EXPECT_EQ(descriptionOf([&] { broker->call("Nope", "f", args({"a"})); }),
            "module Nope is not registered");
  EXPECT_EQ(descriptionOf([&] { broker->call("M", "g", args({"a"})); }),
            "module M has no method g");
  EXPECT_EQ(descriptionOf([&] { broker->call("M", "f", args({})); }),
            "method M.f takes no 0 arguments");
  EXPECT_NE(descriptionOf([&] { broker->call("M", "f", ZRValue("a")); }).find("must be an array"),
            std::string::npos);
}

// The reason and the target of the call the broker refused, or "made" when it made it.
std::string refusalOf(const std::function<void()>& action) {
  using Reason = ZR::ZRCallRefused::Reason;
  try {
    action();
  } catch (const ZR::ZRCallRefused& refused) {
    const char* reason = refused.reason() == Reason::NoSuchModule   ? "no such module"
                         : refused.reason() == Reason::NoSuchMethod ? "no such method"
                                                                    : "wrong arguments";
    return std::string(reason) + " " + refused.targetModule() + "." + refused.targetMethod() +
           " by " + refused.module() + "::" + refused.method();
  } catch (const ZRError&) {
    return "another error";
  }
  return "made";
}

TEST(ZRBroker, CallsItDidNotMakeAreRefusedByKindNamingTheirTarget) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.add("f", {ZR::TypeCodeString}, ZR::TypeCodeVoid, [](const ZRValue&, ZRValue&) {});
  module.add("fail", {}, ZR::TypeCodeVoid,
             [](const ZRValue&, ZRValue&) { throw ZRError("M", "fail", "it failed", "file", 12); });
  const std::string by = " by " + broker->getName() + "::call";
  EXPECT_EQ(refusalOf([&] { broker->call("Nope", "f", args({"a"})); }),
            "no such module Nope.f" + by);
  EXPECT_EQ(refusalOf([&] { broker->call("M", "g", args({"a"})); }), "no such method M.g" + by);
  EXPECT_EQ(refusalOf([&] { broker->call("M", "f", args({})); }), "wrong arguments M.f" + by);
  EXPECT_EQ(refusalOf([&] { broker->call("M", "f", ZRValue("a")); }), "wrong arguments M.f" + by);
  EXPECT_EQ(refusalOf([&] { broker->call("M", "fail", args({})); }), "another error");
  EXPECT_EQ(refusalOf([&] { broker->call("M", "f", args({"a"})); }), "made");
}

TEST(ZRBroker, MethodExceptionsPassThroughUnchanged) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.add("fail", {}, ZR::TypeCodeVoid,
             [](const ZRValue&, ZRValue&) { throw ZRError("M", "fail", "it failed", "file", 12); });
  try {
    broker->call("M", "fail", args({}));
    FAIL();
  } catch (const ZRError& error) {
    EXPECT_EQ(error.description(), "it failed");
    EXPECT_EQ(error.line(), 12);
  }
}

TEST(ZRBroker, FiveHundredBlockingCallsAreAllInProgressAtOnce) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  std::mutex mutex;  // guards inside and release
  std::condition_variable changed;
  int inside = 0;
  bool release = false;
  module.add("block", {}, ZR::TypeCodeVoid, [&](const ZRValue&, ZRValue&) {
    std::unique_lock<std::mutex> lock(mutex);
    ++inside;
    changed.notify_all();
    changed.wait(lock, [&] { return release; });
  });
  constexpr int kCalls = 500;
  std::vector<std::thread> callers;
  for (int i = 0; i < kCalls; ++i) {
    callers.emplace_back([&] { broker->call("M", "block", args({})); });
  }
  bool allInside = false;
  {
    std::unique_lock<std::mutex> lock(mutex);
    allInside = changed.wait_for(lock, std::chrono::seconds(60), [&] { return inside == kCalls; });
    release = true;
    changed.notify_all();
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_TRUE(allInside) << inside << " of " << kCalls << " calls were in progress";
}

TEST(ZRBroker, PostedTasksAreNumberedAndRunOnTheirOwnThreads) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  std::atomic<int> runs{0};
  std::thread::id callerThread = std::this_thread::get_id();
  std::atomic<bool> ranElsewhere{true};
  module.add("work", {ZR::TypeCodeString}, ZR::TypeCodeVoid, [&](const ZRValue&, ZRValue&) {
    if (std::this_thread::get_id() == callerThread) ranElsewhere = false;
    ++runs;
  });
  const int first = broker->post("M", "work", args({"a"}));
  const int second = broker->post("M", "work", args({"b"}));
  EXPECT_EQ(second, first + 1);
  EXPECT_TRUE(broker->waitTask(first, 10000));
  EXPECT_TRUE(broker->waitTask(second, 10000));
  EXPECT_FALSE(broker->isTaskRunning(first));
  EXPECT_EQ(runs.load(), 2);
  EXPECT_TRUE(ranElsewhere.load());
}

TEST(ZRBroker, PostingAnUnknownMethodFailsBeforeAnythingRuns) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  EXPECT_THROW(broker->post("M", "missing", args({})), ZRError);
  EXPECT_THROW(broker->post("Other", "missing", args({})), ZRError);
}

TEST(ZRBroker, ShutdownRefusesNewCallsAndWaitsForCallsInProgress) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  std::atomic<bool> entered{false};
  std::atomic<bool> finished{false};
  module.add("slow", {}, ZR::TypeCodeVoid, [&](const ZRValue&, ZRValue&) {
    entered = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    finished = true;
  });
  std::thread caller([&] { broker->call("M", "slow", args({})); });
  while (!entered) std::this_thread::yield();
  EXPECT_TRUE(broker->shutdown(10000));
  EXPECT_TRUE(finished.load());
  EXPECT_THROW(broker->call("M", "slow", args({})), ZRError);
  caller.join();
}

// A module whose "outer" method calls "inner" of another module and waits there until the
// test lets it go, as a behavior run waits in the frame manager.
struct NestedCalls {
  NestedCalls() {
    inner.add("inner", {}, ZR::TypeCodeVoid, [this](const ZRValue&, ZRValue&) {
      std::unique_lock<std::mutex> lock(mutex);
      waiting = true;
      changed.notify_all();
      changed.wait(lock, [&] { return released; });
    });
    outer.add("outer", {}, ZR::TypeCodeVoid,
              [this](const ZRValue&, ZRValue&) { broker->call("Inner", "inner", args({})); });
  }
  void waitUntilWaiting() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return waiting; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
    changed.notify_all();
  }

  boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::create();
  TestModule outer{broker, "Outer"};
  TestModule inner{broker, "Inner"};
  std::mutex mutex;  // guards waiting and released
  std::condition_variable changed;
  bool waiting = false;
  bool released = false;
};

TEST(ZRBroker, EachModuleCountsTheCallsRunningInIt) {
  NestedCalls modules;
  EXPECT_EQ(0, modules.outer.callsInProgress());
  std::thread caller([&] { modules.broker->call("Outer", "outer", args({})); });
  modules.waitUntilWaiting();
  EXPECT_EQ(1, modules.outer.callsInProgress());
  EXPECT_EQ(1, modules.inner.callsInProgress());
  EXPECT_FALSE(modules.outer.waitForCallsToReturn(0));
  modules.release();
  EXPECT_TRUE(modules.outer.waitForCallsToReturn(60000));
  EXPECT_TRUE(modules.inner.waitForCallsToReturn(60000));
  caller.join();
  EXPECT_EQ(0, modules.outer.callsInProgress());
}

TEST(ZRBroker, ACallIntoAnotherModuleCountsAsEndedByTheModuleOfTheOutermostCall) {
  NestedCalls modules;
  modules.outer.setEndsItsCallsWhenDestroyed(true);
  std::thread caller([&] { modules.broker->call("Outer", "outer", args({})); });
  modules.waitUntilWaiting();
  const ZR::ZRBroker::CallCounts counts = modules.broker->callsInProgress();
  EXPECT_EQ(2, counts.all);
  EXPECT_EQ(2, counts.endedByTheirModules);
  modules.release();
  caller.join();
  EXPECT_EQ(0, modules.broker->callsInProgress().all);
  EXPECT_EQ(0, modules.broker->callsInProgress().endedByTheirModules);
}

TEST(ZRBroker, CallsOfOrdinaryModulesAreNotEndedByTheirModules) {
  NestedCalls modules;
  modules.inner.setEndsItsCallsWhenDestroyed(true);  // only the outermost module counts
  std::thread caller([&] { modules.broker->call("Outer", "outer", args({})); });
  modules.waitUntilWaiting();
  const ZR::ZRBroker::CallCounts counts = modules.broker->callsInProgress();
  EXPECT_EQ(2, counts.all);
  EXPECT_EQ(0, counts.endedByTheirModules);
  modules.release();
  caller.join();
}
