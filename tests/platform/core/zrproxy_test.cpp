#include <gtest/gtest.h>
#include <zr/zrerror.h>
#include <zr/zrproxy.h>

#include <atomic>
#include <thread>

#include "testmodule.h"

using ZR::ZRError;
using ZR::ZRValue;
using zrtest::TestModule;

TEST(ZRProxy, TypedCallConvertsArgumentsAndResult) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.add("concat", {ZR::TypeCodeString, ZR::TypeCodeInt}, ZR::TypeCodeString,
             [](const ZRValue& a, ZRValue& r) {
               r = ZRValue(a[0].toString() + std::to_string(a[1].toInt()));
             });
  ZR::ZRProxy proxy(broker, "M", 0, 0);
  EXPECT_EQ(proxy.call<std::string>("concat", std::string("x"), 4), "x4");
}

TEST(ZRProxy, PCallPostsWithoutWaitingAndReturnsTheTaskId) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  std::atomic<bool> release{false};
  std::string received;  // written by the task before it sets done
  std::atomic<bool> done{false};
  module.add("run", {ZR::TypeCodeString}, ZR::TypeCodeVoid, [&](const ZRValue& a, ZRValue&) {
    while (!release) std::this_thread::yield();
    received = a[0].toString();
    done = true;
  });
  ZR::ZRProxy proxy(broker, "M", 0, 0);
  const int task = proxy.pCall<std::string>("run", "dance");
  EXPECT_GT(task, 0);
  EXPECT_TRUE(broker->isTaskRunning(task));  // returned while the call still blocks
  release = true;
  EXPECT_TRUE(broker->waitTask(task, 10000));
  EXPECT_TRUE(done.load());
  EXPECT_EQ(received, "dance");
}

TEST(ZRProxy, PCallRefusesAMethodWhoseParameterIsNotAString) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  module.add("count", {ZR::TypeCodeInt}, ZR::TypeCodeVoid, [](const ZRValue&, ZRValue&) {});
  ZR::ZRProxy proxy(broker, "M", 0, 0);
  try {
    proxy.pCall<std::string>("count", "3");
    FAIL();
  } catch (const ZRError& error) {
    EXPECT_EQ(error.module(), "ZRProxy");
    EXPECT_EQ(error.method(), "call/pCall");
    EXPECT_EQ(error.description(),
              "When trying to call module 'M' function 'count' parameter #1 is of type "
              "std::string instead of type int");
    EXPECT_EQ(error.file(), "zrcommon/zrproxy");
    EXPECT_EQ(error.line(), 657);
  }
}

TEST(ZRProxy, PCallFindsTheOneParameterOverload) {
  auto broker = ZR::ZRBroker::create();
  TestModule module(broker, "M");
  std::atomic<int> which{0};
  module.add(
      "go", {ZR::TypeCodeString, ZR::TypeCodeString}, ZR::TypeCodeVoid,
      [&](const ZRValue&, ZRValue&) { which = 2; }, true);
  module.add(
      "go", {ZR::TypeCodeString}, ZR::TypeCodeVoid, [&](const ZRValue&, ZRValue&) { which = 1; },
      true);
  ZR::ZRProxy proxy(broker, "M", 0, 0);
  EXPECT_TRUE(broker->waitTask(proxy.pCall<std::string>("go", "x"), 10000));
  EXPECT_EQ(which.load(), 1);
}

TEST(ZRProxy, ModulesOfOtherProcessesAreNotSupported) {
  auto broker = ZR::ZRBroker::create();
  ZR::ZRProxy proxy(broker, "Elsewhere", 0, 0);
  try {
    proxy.genericCall("f", ZRValue::array());
    FAIL();
  } catch (const ZRError& error) {
    EXPECT_NE(error.description().find("not supported"), std::string::npos);
    EXPECT_NE(error.description().find("Elsewhere"), std::string::npos);
  }
  EXPECT_THROW(proxy.pCall<std::string>("f", "x"), ZRError);
}

TEST(ZRProxy, NonZeroOptionsAreRefused) {
  auto broker = ZR::ZRBroker::create();
  EXPECT_THROW(ZR::ZRProxy(broker, "M", 1, 0), ZRError);
}
