// Calls run on threads of their own: blocked calls never hold up others, and a client
// that goes away mid-call leaves nothing behind.
#include <common/eventually.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

// Polls until the predicate holds; the 60 s only guard against a hang.
template <typename Predicate>
bool eventually(Predicate predicate) {
  return tuqvutest::eventually(predicate, std::chrono::seconds(60));
}

int intResult(int port, const std::string& method, const json& params = json::array()) {
  return rpc(port, method, params)["result"].get<int>();
}

// Whether `count` calls of TestModule.waitForFile(gate) have begun, by their entry files.
bool waitersEntered(const std::string& gate, int count) {
  return eventually(
      [&] { return ::access((gate + ".entered." + std::to_string(count)).c_str(), F_OK) == 0; });
}

// Starts `count` calls of TestModule.waitForFile(gate) with the ids 0 to count - 1, each on
// a connection of its own; they answer once `gate` exists.
std::vector<std::unique_ptr<HttpConnection>> holdCalls(int port, const std::string& gate,
                                                       int count) {
  std::vector<std::unique_ptr<HttpConnection>> held;
  for (int i = 0; i < count; ++i) {
    held.push_back(std::make_unique<HttpConnection>(port));
    held.back()->send("POST", "/rpc", rpcRequest("TestModule.waitForFile", {gate}, i));
  }
  return held;
}

// The answer to one TestModule.echo("x") with `id`, on a connection of its own.
HttpReply echoOnce(int port, int id) {
  HttpConnection connection(port);
  return connection.request("POST", "/rpc", rpcRequest("TestModule.echo", {"x"}, id),
                            {{"Content-Type", "application/json"}});
}

}  // namespace

TEST(DaemonConcurrency, FiveHundredBlockedCallsDoNotDelayAQuickOne) {
  TuqvuProcess::Setup setup;
  setup.args = {"--module", "TestModule=" + testModulePath()};
  // All 500 come from this one client: let them all run.
  setup.env["TUQVU_MAX_CALLS_PER_CLIENT"] = "1000";
  setup.env["TUQVU_MAX_CALLS"] = "1000";
  TuqvuProcess daemon(setup);
  constexpr int kBlocked = 500;
  std::vector<std::unique_ptr<HttpConnection>> blocked;
  for (int i = 0; i < kBlocked; ++i) {
    blocked.push_back(std::make_unique<HttpConnection>(daemon.port()));
    blocked.back()->send("POST", "/rpc", rpcRequest("TestModule.block", {"gate"}, i));
  }
  // All of them are inside the module at once...
  ASSERT_TRUE(
      eventually([&] { return intResult(daemon.port(), "TestModule.blockedCount") == kBlocked; }));
  // ...and a quick call on another connection is answered meanwhile: were it queued
  // behind them it would never come back, since nothing releases them.
  EXPECT_EQ(json("quick"), rpc(daemon.port(), "TestModule.echo", {"quick"})["result"]);
  EXPECT_EQ(kBlocked, intResult(daemon.port(), "TestModule.blockedCount"));

  EXPECT_EQ(kBlocked, intResult(daemon.port(), "TestModule.release", {"gate"}));
  for (int i = 0; i < kBlocked; ++i) {
    const HttpReply reply = blocked[i]->readReply();
    ASSERT_EQ(200, reply.status);
    const json answer = json::parse(reply.body);
    EXPECT_EQ(i, answer["id"]);
    EXPECT_EQ("released gate", answer["result"]);
  }
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}

TEST(DaemonConcurrency, ACallBeyondTheLimitIsAnsweredWithAJsonRpcErrorAndNothingIsLost) {
  TuqvuProcess::Setup setup;
  setup.args = {"--module", "TestModule=" + testModulePath()};
  setup.env["TUQVU_MAX_CALLS"] = "3";
  TuqvuProcess daemon(setup);
  const std::string gate = daemon.scratch() + "/gate";
  std::vector<std::unique_ptr<HttpConnection>> blocked = holdCalls(daemon.port(), gate, 3);
  // Once the three are running (seen by their entry files: a call to ask would take a
  // slot), a fourth call is not made. They wait for a file, so a slow machine cannot let
  // them finish before the fourth is tried.
  ASSERT_TRUE(waitersEntered(gate, 3));
  HttpReply refused = echoOnce(daemon.port(), 77);
  EXPECT_EQ(429, refused.status);
  EXPECT_EQ("1", refused.headers["retry-after"]);
  const json answer = json::parse(refused.body);
  EXPECT_EQ("2.0", answer["jsonrpc"]);
  EXPECT_EQ(77, answer["id"]);
  EXPECT_EQ(-32005, answer["error"]["code"]);
  EXPECT_EQ(0u, answer["error"]["message"].get<std::string>().find(
                    "too many calls at once: 3 are running, the most the broker makes "
                    "(TUQVU_MAX_CALLS)"))
      << answer;

  // The three calls answer once the file is there, and then the client may call again.
  std::ofstream(gate) << "go";
  for (int i = 0; i < 3; ++i) {
    const HttpReply reply = blocked[i]->readReply();
    ASSERT_EQ(200, reply.status);
    EXPECT_EQ("found", json::parse(reply.body)["result"]);
  }
  EXPECT_EQ(json("again"), rpc(daemon.port(), "TestModule.echo", {"again"})["result"]);
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}

TEST(DaemonConcurrency, ALocalProgramThatHoldsItsShareOfCallsLeavesOtherProgramsTheirs) {
  TuqvuProcess::Setup setup;
  setup.args = {"--module", "TestModule=" + testModulePath()};
  setup.env["TUQVU_MAX_CALLS_PER_CLIENT"] = "2";
  TuqvuProcess daemon(setup);
  const std::string gate = daemon.scratch() + "/gate";
  std::vector<std::unique_ptr<HttpConnection>> blocked = holdCalls(daemon.port(), gate, 2);
  // This process has its two calls running: a third of its own is refused...
  ASSERT_TRUE(waitersEntered(gate, 2));
  const HttpReply refused = echoOnce(daemon.port(), 5);
  EXPECT_EQ(429, refused.status);
  EXPECT_EQ(0u, json::parse(refused.body)["error"]["message"].get<std::string>().find(
                    "too many calls at once: local process " + std::to_string(::getpid()) +
                    " already has 2 running, the most one client may have "
                    "(TUQVU_MAX_CALLS_PER_CLIENT)"))
      << refused.body;
  // ...while another program of the robot, on the same loopback address, is served.
  const CommandResult other =
      runCommand({tuqvuCallPath(), "--url", "http://127.0.0.1:" + std::to_string(daemon.port()),
                  "TestModule.echo", "\"other\""},
                 {{"HOME", daemon.home()}, {"XDG_CONFIG_HOME", daemon.home() + "/.config"}});
  EXPECT_EQ(0, other.status) << other.err;
  EXPECT_EQ("\"other\"\n", other.out);

  std::ofstream(gate) << "go";
  for (auto& connection : blocked) EXPECT_EQ(200, connection->readReply().status);
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}

TEST(DaemonConcurrency, AClientThatLeavesMidCallLetsTheCallCompleteAndLeaksNothing) {
  TuqvuProcess daemon({"--module", "TestModule=" + testModulePath()});
  // Settle the descriptors the daemon opens once (threads, pools) before counting.
  EXPECT_EQ(0, intResult(daemon.port(), "TestModule.completedCount"));
  const int descriptorsBefore = openDescriptors(daemon.pid());

  constexpr int kLeaving = 20;
  {
    std::vector<std::unique_ptr<HttpConnection>> leaving;
    for (int i = 0; i < kLeaving; ++i) {
      leaving.push_back(std::make_unique<HttpConnection>(daemon.port()));
      leaving.back()->send("POST", "/rpc", rpcRequest("TestModule.block", {"left"}, i));
    }
    ASSERT_TRUE(eventually(
        [&] { return intResult(daemon.port(), "TestModule.blockedCount") == kLeaving; }));
    for (auto& connection : leaving) connection->close();
  }
  // The calls are still running after their clients went; release them.
  EXPECT_EQ(kLeaving, intResult(daemon.port(), "TestModule.release", {"left"}));
  EXPECT_TRUE(eventually(
      [&] { return intResult(daemon.port(), "TestModule.completedCount") == kLeaving; }));
  // Their connections are closed once the answers find no reader.
  EXPECT_TRUE(eventually([&] { return openDescriptors(daemon.pid()) <= descriptorsBefore; }))
      << openDescriptors(daemon.pid()) << " descriptors, " << descriptorsBefore << " before";
  EXPECT_EQ(json(7), rpc(daemon.port(), "TestModule.add", {3, 4})["result"]);
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}
