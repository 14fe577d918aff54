// SIGTERM while many behaviors run, against a real broker: the behavior manager's
// destructor stops them all, every runBehavior call receives its answer, and the broker
// ends with status 0.
#include <common/eventually.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;

namespace {

const char* const kUntilStopped =
    "<behavior>\n  <repeat>\n    <wait ms=\"60000\"/>\n  </repeat>\n</behavior>\n";
const char* const kProject =
    "<project>\n  <metadata key=\"Type\" value=\"Behavior\"/>\n</project>\n";
constexpr int kBehaviors = 200;

std::string behaviorName(int i) {
  char name[16];
  std::snprintf(name, sizeof name, "loop%03d", i);
  return name;
}

// True once the frame manager runs the behavior: a stop made earlier would end the run
// before it starts, and its answer would be that error.
bool frameManagerRuns(int port, const std::string& name) {
  const json id = rpc(port, "ZRBehaviorManager._getBehaviorFrameManagerId", json::array({name}));
  if (!id.contains("result") || !id["result"].is_string() || id["result"] == "") return false;
  return rpc(port, "ZRFrameManager.isBehaviorRunning", json::array({id["result"]}))["result"] ==
         json(true);
}

TEST(ShutdownWithRuns, SigtermStopsEveryRunAnswersItAndEndsTheBroker) {
  TempDir home, tmp;
  const fs::path library = fs::path(home.path()) / ".tuqvu" / "behaviors";
  for (int i = 0; i < kBehaviors; ++i) {
    const fs::path dir = library / behaviorName(i);
    fs::create_directories(dir);
    std::ofstream((dir / "behavior.xar").string()) << kUntilStopped;
    std::ofstream((dir / "project.xml").string()) << kProject;
  }
  TuqvuProcess::Setup setup;
  setup.env["HOME"] = home.path();
  setup.env["TMPDIR"] = tmp.path();
  // This one process stands for 200 clients: its calls are held by the total alone.
  setup.env["TUQVU_MAX_CALLS_PER_CLIENT"] = "256";
  TuqvuProcess broker(setup);
  const int port = broker.port();

  // Every run on a connection of its own: the call stays open for the whole run.
  std::vector<std::unique_ptr<HttpConnection>> runs;
  for (int i = 0; i < kBehaviors; ++i) {
    runs.push_back(std::make_unique<HttpConnection>(port));
    runs.back()->send("POST", "/rpc",
                      rpcRequest("ZRBehaviorManager.runBehavior", json::array({behaviorName(i)})));
  }
  for (int i = 0; i < kBehaviors; ++i) {
    ASSERT_TRUE(tuqvutest::eventually([&] { return frameManagerRuns(port, behaviorName(i)); },
                                      std::chrono::seconds(60)))
        << behaviorName(i) << "\n"
        << broker.stderrText();
  }
  EXPECT_EQ(rpc(port, "ZRBehaviorManager.getRunningBehaviors", json::array())["result"].size(),
            static_cast<size_t>(kBehaviors));

  const auto signalled = std::chrono::steady_clock::now();
  ::kill(broker.pid(), SIGTERM);
  EXPECT_EQ(0, broker.waitExit()) << broker.stderrText();
  // Only a guard against a shutdown that hangs or stops one behavior after the other at a
  // slow pace; the shut-down's time is measured in bench/behaviormanager/stops_bench.py.
  EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(10));

  for (int i = 0; i < kBehaviors; ++i) {
    SCOPED_TRACE(behaviorName(i));
    const HttpReply reply = runs[i]->readReply();
    ASSERT_EQ(reply.status, 200) << reply.body;
    const json answer = json::parse(reply.body);
    EXPECT_FALSE(answer.contains("error")) << reply.body;
    EXPECT_TRUE(answer.contains("result")) << reply.body;
  }
}

}  // namespace
