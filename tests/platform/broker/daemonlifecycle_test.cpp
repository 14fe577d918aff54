// Start-up and shut-down of a real tuqvu process.
#include <common/eventually.h>
#include <common/files.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

using tuqvutest::readFile;

namespace {

// Polls until the predicate holds; the 60 s only guard against a hang.
template <typename Predicate>
bool eventually(Predicate predicate) {
  return tuqvutest::eventually(predicate, std::chrono::seconds(60));
}

// Two test modules, A then B, that log their destruction to a file in the scratch folder.
TuqvuProcess::Setup twoModules(const std::string& log, std::vector<std::string> extra = {}) {
  TuqvuProcess::Setup setup;
  setup.args = {"--module", "A=" + testModulePath(), "--module", "B=" + testModulePath()};
  setup.args.insert(setup.args.end(), extra.begin(), extra.end());
  setup.env["TUQVU_TEST_DESTRUCTOR_LOG"] = log;
  return setup;
}

}  // namespace

TEST(DaemonLifecycle, SigtermDestroysModulesInReverseLoadOrderAndExitsZero) {
  TempDir scratch;
  const std::string log = scratch.path() + "/destroyed.log";
  TuqvuProcess daemon(twoModules(log));
  EXPECT_EQ(json::parse(R"(["A","B"])"), [&] {
    json modules = rpc(daemon.port(), "ZRBroker.getModules", json::array())["result"];
    json ours = json::array();
    for (const json& name : modules) {
      if (name == "A" || name == "B") ours.push_back(name);
    }
    return ours;
  }());
  EXPECT_EQ("", readFile(log));
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
  EXPECT_EQ("destroyed B\ndestroyed A\n", readFile(log));
}

TEST(DaemonLifecycle, SigintShutsDownCleanlyToo) {
  TempDir scratch;
  const std::string log = scratch.path() + "/destroyed.log";
  TuqvuProcess daemon(twoModules(log));
  EXPECT_EQ(0, daemon.terminate(SIGINT)) << daemon.stderrText();
  EXPECT_EQ("destroyed B\ndestroyed A\n", readFile(log));
}

TEST(DaemonLifecycle, ACallInProgressEndsAndIsAnsweredBeforeTheModulesGo) {
  TempDir scratch;
  const std::string log = scratch.path() + "/destroyed.log";
  TuqvuProcess daemon(twoModules(log));
  HttpConnection caller(daemon.port());
  const std::string gate = scratch.path() + "/gate";
  caller.send("POST", "/rpc", rpcRequest("A.waitForFile", {gate}));
  ASSERT_TRUE(eventually(
      [&] { return rpc(daemon.port(), "A.blockedCount", json::array())["result"] == 1; }));
  ::kill(daemon.pid(), SIGTERM);
  // The call outlives the signal: it ends only when its file appears.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  std::ofstream(gate) << "go";
  const HttpReply reply = caller.readReply();
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("found", json::parse(reply.body)["result"]);
  EXPECT_EQ(0, daemon.waitExit()) << daemon.stderrText();
  EXPECT_EQ("destroyed B\ndestroyed A\n", readFile(log));
}

TEST(DaemonLifecycle, ACallStillBlockedAfterTheGraceEndsWithItsModule) {
  TempDir scratch;
  const std::string log = scratch.path() + "/destroyed.log";
  TuqvuProcess daemon(twoModules(log, {"--shutdown-grace", "100"}));
  HttpConnection caller(daemon.port());
  caller.send("POST", "/rpc", rpcRequest("A.block", {"never"}));
  ASSERT_TRUE(eventually(
      [&] { return rpc(daemon.port(), "A.blockedCount", json::array())["result"] == 1; }));
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
  // The module's destructor let the call return; its answer was still written.
  const HttpReply reply = caller.readReply();
  EXPECT_EQ("released by shutdown", json::parse(reply.body)["result"]);
  EXPECT_EQ("destroyed B\ndestroyed A\n", readFile(log));
}

TEST(DaemonLifecycle, ModulesCanStillCallOneAnotherWhileTheyAreDestroyed) {
  TempDir scratch;
  const std::string log = scratch.path() + "/destroyed.log";
  TuqvuProcess::Setup setup = twoModules(log);
  setup.env["TUQVU_TEST_DESTRUCTOR_CALLS"] = "1";
  TuqvuProcess daemon(setup);
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
  EXPECT_EQ("destroyed B (ZRMemory answered 1)\ndestroyed A (ZRMemory answered 1)\n",
            readFile(log));
}

TEST(DaemonLifecycle, NewCallsAreRefusedOnceShutdownHasBegun) {
  TempDir scratch;
  const std::string log = scratch.path() + "/destroyed.log";
  TuqvuProcess daemon(twoModules(log, {"--shutdown-grace", "2000"}));
  HttpConnection blocked(daemon.port());
  HttpConnection other(daemon.port());
  EXPECT_EQ(200, other.request("POST", "/rpc", rpcRequest("A.noop", json::array())).status);
  blocked.send("POST", "/rpc", rpcRequest("A.block", {"never"}));
  ASSERT_TRUE(eventually(
      [&] { return rpc(daemon.port(), "A.blockedCount", json::array())["result"] == 1; }));
  ::kill(daemon.pid(), SIGTERM);
  ASSERT_TRUE(
      eventually([&] { return daemon.stderrText().find("shutting down") != std::string::npos; }));
  // The open connection is still served, but calls are no longer made.
  const HttpReply refused = other.request("POST", "/rpc", rpcRequest("A.noop", json::array()));
  EXPECT_EQ(503, refused.status);
  EXPECT_EQ("the broker is shutting down\n", refused.body);
  // After the grace period the module's destructor ends the blocked call.
  EXPECT_EQ("released by shutdown", json::parse(blocked.readReply().body)["result"]);
  EXPECT_EQ(0, daemon.waitExit()) << daemon.stderrText();
  EXPECT_EQ("destroyed B\ndestroyed A\n", readFile(log));
}

TEST(DaemonLifecycle, ASecondSignalExitsAtOnce) {
  TempDir scratch;
  const std::string log = scratch.path() + "/destroyed.log";
  TuqvuProcess daemon(twoModules(log, {"--shutdown-grace", "600000"}));
  HttpConnection caller(daemon.port());
  caller.send("POST", "/rpc", rpcRequest("A.block", {"never"}));
  ASSERT_TRUE(eventually(
      [&] { return rpc(daemon.port(), "A.blockedCount", json::array())["result"] == 1; }));
  ::kill(daemon.pid(), SIGTERM);
  // The first signal waits for the blocked call; the second does not wait at all.
  ASSERT_TRUE(
      eventually([&] { return daemon.stderrText().find("shutting down") != std::string::npos; }));
  EXPECT_EQ(128 + SIGTERM, daemon.terminate(SIGTERM));
  EXPECT_EQ("", readFile(log));
}

TEST(DaemonLifecycle, AModuleLibraryThatCannotBeLoadedIsFatal) {
  TuqvuProcess::Setup setup;
  setup.args = {"--module", "/nonexistent/libmissing.so"};
  setup.waitUntilListening = false;
  TuqvuProcess daemon(setup);
  EXPECT_NE(0, daemon.waitExit());
  const std::string log = daemon.stderrText();
  EXPECT_NE(std::string::npos, log.find("cannot open module library /nonexistent/libmissing.so"))
      << log;
  EXPECT_NE(std::string::npos, log.find("No such file or directory")) << log;
  EXPECT_EQ(std::string::npos, daemon.stdoutText().find("listening"));
}

TEST(DaemonLifecycle, AModuleConstructorThatThrowsIsFatal) {
  TempDir scratch;
  TuqvuProcess::Setup setup;
  setup.args = {"--module", "A=" + testModulePath(), "--module", "Bad=" + testModulePath()};
  setup.env["TUQVU_TEST_MODULE_THROW"] = "Bad";
  setup.env["TUQVU_TEST_DESTRUCTOR_LOG"] = scratch.path() + "/destroyed.log";
  setup.waitUntilListening = false;
  TuqvuProcess daemon(setup);
  EXPECT_NE(0, daemon.waitExit());
  const std::string log = daemon.stderrText();
  EXPECT_NE(std::string::npos, log.find("constructor failed on purpose")) << log;
  // What was loaded before is destroyed on the way out.
  EXPECT_EQ("destroyed A\n", readFile(scratch.path() + "/destroyed.log"));
}

TEST(DaemonLifecycle, AnOptionalModuleThatFailsIsOnlyLogged) {
  TuqvuProcess daemon({"--optional-module", "/nonexistent/libextra.so", "--module",
                       "TestModule=" + testModulePath()});
  EXPECT_EQ(json(2), rpc(daemon.port(), "TestModule.add", {1, 1})["result"]);
  EXPECT_NE(std::string::npos, daemon.stderrText().find("/nonexistent/libextra.so"));
  EXPECT_EQ(0, daemon.terminate(SIGTERM));
}

TEST(DaemonLifecycle, APortInUseIsFatal) {
  TuqvuProcess first({"--module", "TestModule=" + testModulePath()});
  TuqvuProcess::Setup setup;
  setup.program = tuqvuPath();
  setup.args = {"--port",   std::to_string(first.port()),    "--bind", "127.0.0.1",
                "--module", "TestModule=" + testModulePath()};
  setup.waitUntilListening = false;
  TuqvuProcess second(setup);
  EXPECT_EQ(1, second.waitExit());
  EXPECT_NE(std::string::npos,
            second.stderrText().find("cannot listen on 127.0.0.1:" + std::to_string(first.port())))
      << second.stderrText();
  EXPECT_EQ(0, first.terminate(SIGTERM));
}

TEST(DaemonLifecycle, HelpVersionAndBadOptions) {
  CommandResult help = runCommand({tuqvuPath(), "--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0u, help.out.find("Usage: tuqvu"));
  CommandResult version = runCommand({tuqvuPath(), "--version"});
  EXPECT_EQ(0, version.status);
  EXPECT_EQ(0u, version.out.find("tuqvu "));
  CommandResult bad = runCommand({tuqvuPath(), "--port", "http"});
  EXPECT_EQ(2, bad.status);
  EXPECT_NE(std::string::npos, bad.err.find("--port")) << bad.err;
}
