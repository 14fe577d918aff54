// The counts of remote calls: the table of methods on its own, then what the dispatcher
// counts for each outcome of a call.
#include <gtest/gtest.h>
#include <tuqvu/broker/callmetrics.h>
#include <tuqvu/broker/rpcdispatcher.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>

#include <optional>
#include <set>
#include <thread>

#include "support/inprocessmodule.h"

using tuqvu::broker::CallMetrics;
using tuqvu::broker::RpcDispatcher;

namespace {

// The series of `name` with exactly these labels in a snapshot; none when there is none.
std::optional<ZR::ZRMetrics::SeriesValues> seriesIn(const ZR::ZRMetrics& metrics,
                                                    const std::string& name,
                                                    const ZR::ZRMetricLabels& labels) {
  for (const auto& family : metrics.snapshot()) {
    if (family.name != name) continue;
    for (const auto& series : family.series) {
      if (series.labels == labels) return series;
    }
  }
  return std::nullopt;
}

std::uint64_t calls(const ZR::ZRMetrics& metrics, const std::string& method,
                    const std::string& outcome) {
  const auto series =
      seriesIn(metrics, "tuqvu_rpc_calls_total", {{"method", method}, {"outcome", outcome}});
  return series ? series->counter : 0;
}

std::uint64_t rejected(const ZR::ZRMetrics& metrics, const std::string& reason) {
  const auto series = seriesIn(metrics, "tuqvu_rpc_rejected_total", {{"reason", reason}});
  return series ? series->counter : 0;
}

// Every method label the call counters hold.
std::set<std::string> countedMethods(const ZR::ZRMetrics& metrics) {
  std::set<std::string> methods;
  for (const auto& family : metrics.snapshot()) {
    if (family.name != "tuqvu_rpc_calls_total") continue;
    for (const auto& series : family.series) methods.insert(series.labels.at(0).second);
  }
  return methods;
}

TEST(CallMetrics, AMethodGetsItsSeriesOnceAndKeepsThem) {
  ZR::ZRMetrics registry;
  CallMetrics metrics(registry);
  const CallMetrics::Method* add = metrics.method("Calc", "add");
  ASSERT_NE(nullptr, add);
  EXPECT_EQ(add, metrics.method("Calc", "add"));
  const CallMetrics::Method* sub = metrics.method("Calc", "sub");
  const CallMetrics::Method* other = metrics.method("Algebra", "add");
  ASSERT_NE(nullptr, sub);
  ASSERT_NE(nullptr, other);
  EXPECT_NE(add, sub);
  EXPECT_NE(add->ok, other->ok);
  // Still found after others were added around it.
  EXPECT_EQ(add, metrics.method("Calc", "add"));
  add->ok->increment(3);
  EXPECT_EQ(3u, calls(registry, "Calc.add", "ok"));
  EXPECT_EQ(0u, calls(registry, "Algebra.add", "ok"));
}

TEST(CallMetrics, ThreadsAddingTheSameMethodsGetTheSameSeries) {
  ZR::ZRMetrics registry;
  CallMetrics metrics(registry);
  constexpr int kThreads = 4;
  constexpr int kMethods = 50;
  std::vector<std::vector<const CallMetrics::Method*>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int m = 0; m < kMethods; ++m) {
        const CallMetrics::Method* series = metrics.method("M", "m" + std::to_string(m));
        series->ok->increment();
        seen[t].push_back(series);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 1; t < kThreads; ++t) EXPECT_EQ(seen[0], seen[t]);
  for (int m = 0; m < kMethods; ++m) {
    EXPECT_EQ(static_cast<std::uint64_t>(kThreads),
              calls(registry, "M.m" + std::to_string(m), "ok"));
  }
}

TEST(CallMetrics, MethodsBeyondTheLimitAreNotCounted) {
  ZR::ZRMetrics registry;
  CallMetrics metrics(registry);
  for (std::size_t i = 0; i < CallMetrics::kMaxMethods; ++i) {
    ASSERT_NE(nullptr, metrics.method("M", "m" + std::to_string(i))) << i;
  }
  EXPECT_EQ(nullptr, metrics.method("M", "one_more"));
  EXPECT_NE(nullptr, metrics.method("M", "m0"));
  EXPECT_EQ(CallMetrics::kMaxMethods, countedMethods(registry).size());
}

class DispatchedCalls : public ::testing::Test {
protected:
  DispatchedCalls() : broker(ZR::ZRBroker::create("tuqvu")), module(broker, "Calc"), rpc(broker) {
    module.add("add", {{"a", ZR::TypeCodeInt}, {"b", ZR::TypeCodeInt}}, ZR::TypeCodeInt,
               [](const ZR::ZRValue& args, ZR::ZRValue& result) {
                 result = ZR::ZRValue(args[0].toInt() + args[1].toInt());
               });
    module.add("fail", {}, ZR::TypeCodeVoid, [](const ZR::ZRValue&, ZR::ZRValue&) {
      throw ZR::ZRError("Calc", "fail", "it fails", "calc/source", 1);
    });
  }

  std::string call(const std::string& method, const std::string& params) {
    return rpc.handle(R"({"jsonrpc":"2.0","id":1,"method":")" + method + R"(","params":)" + params +
                      "}");
  }
  const ZR::ZRMetrics& metrics() const { return broker->metrics(); }

  boost::shared_ptr<ZR::ZRBroker> broker;
  brokertest::InProcessModule module;
  RpcDispatcher rpc;
};

TEST_F(DispatchedCalls, EachCallIsCountedOnceByItsOutcome) {
  for (int i = 0; i < 3; ++i) call("Calc.add", "[1,2]");
  call("Calc.fail", "[]");
  call("Calc.fail", "[]");
  call("Calc.add", "[1]");  // wrong arity: refused, not made
  EXPECT_EQ(3u, calls(metrics(), "Calc.add", "ok"));
  EXPECT_EQ(0u, calls(metrics(), "Calc.add", "error"));
  EXPECT_EQ(1u, calls(metrics(), "Calc.add", "refused"));
  EXPECT_EQ(2u, calls(metrics(), "Calc.fail", "error"));
  EXPECT_EQ(0u, calls(metrics(), "Calc.fail", "ok"));

  // Only the calls that were made are timed.
  const auto timed =
      seriesIn(metrics(), "tuqvu_rpc_call_duration_seconds", {{"method", "Calc.add"}});
  ASSERT_TRUE(timed.has_value());
  EXPECT_EQ(3u, timed->histogram.count);
}

TEST_F(DispatchedCalls, TheWebConsolesCallsAreCountedToo) {
  rpc.evaluate("Calc", "add",
               ZR::ZRValue(std::vector<ZR::ZRValue>{ZR::ZRValue(1), ZR::ZRValue(1)}));
  EXPECT_EQ(1u, calls(metrics(), "Calc.add", "ok"));
}

TEST_F(DispatchedCalls, NamesNoModuleHasAddNoSeries) {
  call("Calc.add", "[1,2]");
  const std::set<std::string> before = countedMethods(metrics());
  for (int i = 0; i < 20; ++i) {
    call("Calc.madeUp" + std::to_string(i), "[]");
    call("Nowhere.method" + std::to_string(i), "[]");
    call("ZRBroker.nothing" + std::to_string(i), "[]");
  }
  call("nodot", "[]");
  call("Calc.madeUp", "{}");
  EXPECT_EQ(before, countedMethods(metrics()));
  EXPECT_EQ(62u, rejected(metrics(), "method_not_found"));
}

TEST_F(DispatchedCalls, RequestsThatAreNoCallsAreCountedAsSuch) {
  rpc.handle("{not json");
  rpc.handle("[]");
  rpc.handle("[1]");
  rpc.handle(R"({"jsonrpc":"1.0","id":1,"method":"Calc.add","params":[1,2]})");
  rpc.handle(R"({"jsonrpc":"2.0","id":1,"method":"Calc.add","params":7})");
  EXPECT_EQ(5u, rejected(metrics(), "invalid_request"));
  EXPECT_EQ(0u, calls(metrics(), "Calc.add", "ok"));
}

TEST_F(DispatchedCalls, TheBrokersOwnMethodsAreCountedByName) {
  call("ZRBroker.getModules", "[]");
  call("ZRBroker.getMethods", "[]");  // wrong arity
  call("rpc.discover", "[]");
  EXPECT_EQ(1u, calls(metrics(), "ZRBroker.getModules", "ok"));
  EXPECT_EQ(1u, calls(metrics(), "ZRBroker.getMethods", "refused"));
  EXPECT_EQ(1u, calls(metrics(), "rpc.discover", "ok"));
}

TEST_F(DispatchedCalls, CallsRefusedForTooManyRunningAreCounted) {
  rpc.countRejected(CallMetrics::Rejection::TooManyCalls);
  EXPECT_EQ(1u, rejected(metrics(), "too_many_calls"));
}

}  // namespace
