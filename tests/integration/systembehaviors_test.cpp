// System behaviors against a real broker: they stay runnable after everything was stopped
// and the frame manager was asked to clean up, a name held by both libraries runs the
// copy its form names, and a broker told to stop while behaviors run ends promptly.
#include <common/eventually.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;

namespace {

// Sets Library/Copy to the copy's origin, so that a test can tell which copy ran.
std::string markingBehavior(const std::string& origin) {
  return "<behavior><set key=\"Library/Copy\" type=\"string\" value=\"" + origin +
         "\"/></behavior>\n";
}

// Says it started, then repeats until it is stopped.
const char* const kUntilStopped =
    "<behavior><set key=\"Loop/Started\" type=\"int\" value=\"1\"/>"
    "<repeat><wait ms=\"50\"/></repeat></behavior>\n";

void writeBehavior(const fs::path& dir, const std::string& xar) {
  fs::create_directories(dir);
  std::ofstream(fs::path(dir / "behavior.xar").string()) << xar;
  std::ofstream(fs::path(dir / "project.xml").string())
      << "<project><metadata key=\"Type\" value=\"Behavior\"/></project>\n";
}

// An installation prefix whose system library holds "dance", "quick" and "loop".
class SystemLibrary {
public:
  SystemLibrary() {
    const fs::path root = fs::path(prefix.path()) / "share" / "tuqvu" / "behaviors";
    fs::create_directories(root);
    std::ofstream(fs::path(root / "project.xml").string())
        << "<project><metadata key=\"Type\" value=\"BehaviorLibrary\"/></project>\n";
    writeBehavior(root / "dance", markingBehavior("system"));
    writeBehavior(root / "quick", markingBehavior("quick"));
    writeBehavior(root / "loop", kUntilStopped);
  }
  TempDir prefix;
};

json answerOf(const json& reply) {
  return reply.contains("error") ? reply["error"] : reply["result"];
}

// The result of a call that must succeed; a failed test names the error otherwise.
json call(int port, const std::string& method, const json& params) {
  const json reply = rpc(port, method, params);
  EXPECT_FALSE(reply.contains("error")) << method << " " << params.dump() << ": " << reply.dump();
  return answerOf(reply);
}

using tuqvutest::eventually;

// Loaded in the behavior manager's registry, with an instance the frame manager still has.
bool isLoaded(int port, const std::string& name) {
  const json id = call(port, "ZRBehaviorManager._getBehaviorFrameManagerId", json::array({name}));
  if (!id.is_string() || id.get<std::string>().empty()) return false;
  const json instances = call(port, "ZRFrameManager.getBehaviorInstances", json::array());
  for (const json& instance : instances) {
    if (instance == id) return true;
  }
  return false;
}

// Runs the behavior to its end and returns which copy set Library/Copy.
std::string runAndSeeCopy(int port, const std::string& name) {
  call(port, "ZRMemory.insertData", json::array({"Library/Copy", "none"}));
  const json reply = rpc(port, "ZRBehaviorManager.runBehavior", json::array({name}));
  EXPECT_FALSE(reply.contains("error")) << "runBehavior " << name << ": " << reply.dump();
  return call(port, "ZRMemory.getData", json::array({"Library/Copy"})).get<std::string>();
}

class SystemBehaviors : public ::testing::Test {
protected:
  void SetUp() override {
    TuqvuProcess::Setup setup;
    setup.env["TUQVU_SDK_PREFIX"] = library.prefix.path();
    setup.env["TMPDIR"] = tmp.path();
    broker = std::make_unique<TuqvuProcess>(setup);
    port = broker->port();
    userRoot = fs::path(broker->home()) / ".tuqvu" / "behaviors";
    // "TUQvuReady" preloads every system behavior.
    ASSERT_TRUE(eventually([&] { return isLoaded(port, "System/loop"); })) << broker->stderrText();
  }

  // Retires and re-reads the user library: everything is stopped and the frame manager
  // is asked to clean up.
  void resetUserLibrary() {
    call(port, "ZRBehaviorManager._setBehaviorsPath", json::array({userRoot.string()}));
  }

  SystemLibrary library;
  TempDir tmp;
  std::unique_ptr<TuqvuProcess> broker;
  int port = 0;
  fs::path userRoot;
};

TEST_F(SystemBehaviors, ASystemBehaviorRunsByItsSystemNameAfterEverythingWasStopped) {
  resetUserLibrary();
  EXPECT_EQ("quick", runAndSeeCopy(port, "System/quick")) << broker->stderrText();
  EXPECT_TRUE(isLoaded(port, "System/quick"));
}

TEST_F(SystemBehaviors, ASystemBehaviorRunsByItsBareNameAfterEverythingWasStopped) {
  resetUserLibrary();
  EXPECT_EQ("quick", runAndSeeCopy(port, "quick")) << broker->stderrText();
  EXPECT_EQ("quick", runAndSeeCopy(port, "quick")) << broker->stderrText();
}

TEST_F(SystemBehaviors, StoppingARunningSystemBehaviorLeavesItLoadedAndRunnable) {
  resetUserLibrary();
  HttpConnection runner(port);
  runner.send("POST", "/rpc", rpcRequest("ZRBehaviorManager.runBehavior", {"System/loop"}));
  ASSERT_TRUE(eventually([&] {
    return call(port, "ZRBehaviorManager.isBehaviorRunning", json::array({"System/loop"})) ==
           json(true);
  })) << broker->stderrText();

  call(port, "ZRBehaviorManager.stopBehavior", json::array({"System/loop"}));
  const HttpReply ran = runner.readReply();
  EXPECT_EQ(200, ran.status);
  EXPECT_FALSE(json::parse(ran.body).contains("error")) << ran.body;
  EXPECT_TRUE(isLoaded(port, "System/loop"));

  // And it runs again.
  runner.send("POST", "/rpc", rpcRequest("ZRBehaviorManager.runBehavior", {"System/loop"}, 2));
  ASSERT_TRUE(eventually([&] {
    return call(port, "ZRBehaviorManager.isBehaviorRunning", json::array({"System/loop"})) ==
           json(true);
  })) << broker->stderrText();
  call(port, "ZRBehaviorManager.stopBehavior", json::array({"System/loop"}));
  const HttpReply ranAgain = runner.readReply();
  EXPECT_FALSE(json::parse(ranAgain.body).contains("error")) << ranAgain.body;
}

TEST_F(SystemBehaviors, ANameInBothLibrariesRunsTheCopyEachFormNamesInAnyOrder) {
  writeBehavior(userRoot / "dance", markingBehavior("user"));
  resetUserLibrary();
  const std::string absolute = (userRoot / "dance").string();
  // A failed call first: a run of a name that is running already.
  HttpConnection runner(port);
  runner.send("POST", "/rpc", rpcRequest("ZRBehaviorManager.runBehavior", {"System/loop"}));
  ASSERT_TRUE(eventually([&] {
    return call(port, "ZRBehaviorManager.isBehaviorRunning", json::array({"System/loop"})) ==
           json(true);
  }));
  EXPECT_TRUE(rpc(port, "ZRBehaviorManager.runBehavior", json::array({"loop"})).contains("error"));
  call(port, "ZRBehaviorManager.stopBehavior", json::array({"System/loop"}));
  runner.readReply();

  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    EXPECT_EQ("system", runAndSeeCopy(port, "System/dance"));
    EXPECT_EQ("user", runAndSeeCopy(port, "User/dance"));
    EXPECT_EQ("system", runAndSeeCopy(port, "dance"));
    EXPECT_EQ("user", runAndSeeCopy(port, absolute));
    EXPECT_EQ("user", runAndSeeCopy(port, "User/dance"));
    EXPECT_EQ("system", runAndSeeCopy(port, "System/dance"));
    resetUserLibrary();
  }
  EXPECT_TRUE(isLoaded(port, "System/dance"));
}

// Sends the signal while a behavior runs; the broker must exit 0 within 2 s and the run
// call must be answered before its connection closes.
void expectPromptShutdown(int signal) {
  SystemLibrary library;
  TempDir tmp;
  TuqvuProcess::Setup setup;
  setup.env["TUQVU_SDK_PREFIX"] = library.prefix.path();
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  const int port = broker.port();
  writeBehavior(fs::path(broker.home()) / ".tuqvu" / "behaviors" / "forever", kUntilStopped);
  call(port, "ZRBehaviorManager.installBehavior", json::array({"forever"}));

  HttpConnection user(port), system(port);
  user.send("POST", "/rpc", rpcRequest("ZRBehaviorManager.runBehavior", {"forever"}));
  system.send("POST", "/rpc", rpcRequest("ZRBehaviorManager.runBehavior", {"System/loop"}));
  ASSERT_TRUE(eventually([&] {
    return call(port, "ZRBehaviorManager.getRunningBehaviors", json::array()) ==
           json::array({"System/loop", "forever"});
  })) << broker.stderrText();

  const auto start = std::chrono::steady_clock::now();
  ::kill(broker.pid(), signal);
  const HttpReply userRun = user.readReply();
  const HttpReply systemRun = system.readReply();
  const int status = broker.waitExit();
  const auto took = std::chrono::steady_clock::now() - start;

  EXPECT_EQ(0, status) << broker.stderrText();
  EXPECT_LT(took, std::chrono::seconds(2)) << broker.stderrText();
  for (const HttpReply* reply : {&userRun, &systemRun}) {
    EXPECT_EQ(200, reply->status) << broker.stderrText();
    ASSERT_FALSE(reply->body.empty());
    const json answer = json::parse(reply->body);
    EXPECT_TRUE(answer.contains("result") || answer.contains("error")) << reply->body;
  }
}

TEST(BrokerShutdown, SigtermWithBehaviorsRunningStopsThemAndExitsWithinTwoSeconds) {
  expectPromptShutdown(SIGTERM);
}

TEST(BrokerShutdown, SigintWithBehaviorsRunningStopsThemAndExitsWithinTwoSeconds) {
  expectPromptShutdown(SIGINT);
}

}  // namespace
