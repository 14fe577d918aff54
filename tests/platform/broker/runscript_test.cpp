// The run command of the README starts the daemon in the foreground.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <sstream>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

TEST(RunScript, TheReadmeRunCommandStartsTheDaemon) {
  std::ifstream readme(sourceDir() + "/README.md");
  ASSERT_TRUE(readme) << "no README.md in " << sourceDir();
  std::string line, command;
  while (std::getline(readme, line)) {
    const std::size_t at = line.find("scripts/run.sh");
    if (at != std::string::npos) {
      command = line.substr(at, line.find_first_of(" \t#", at) - at);
      break;
    }
  }
  ASSERT_EQ("scripts/run.sh", command) << "the README names no run command";

  TuqvuProcess::Setup setup;
  setup.program = sourceDir() + "/" + command;
  // The script builds this very build folder (already up to date) and starts its daemon.
  setup.env["TUQVU_BUILD_DIR"] = binaryDir();
  setup.args = {"--port", "0", "--bind", "127.0.0.1"};
  // Up to date after the suite's build, the build step is quick; give it room anyway.
  setup.startGuardMs = 540000;
  TuqvuProcess daemon(setup);
  const json modules = rpc(daemon.port(), "ZRBroker.getModules", json::array())["result"];
  EXPECT_TRUE(modules.is_array()) << modules;
  EXPECT_EQ(200, httpGet(daemon.port(), "/").status);
  // The script replaced itself with the daemon: the signal reaches tuqvu directly.
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}
