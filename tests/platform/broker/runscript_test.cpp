// scripts/run.sh, the run command of the README: it builds what running needs, starts the
// daemon, tells once it answers where its pages are and how to reach it, and stops it on
// Ctrl-C with the daemon's own exit status.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

// The command the README gives for running.
std::string readmeRunCommand() {
  std::ifstream readme(sourceDir() + "/README.md");
  EXPECT_TRUE(readme) << "no README.md in " << sourceDir();
  std::string line;
  while (std::getline(readme, line)) {
    const std::size_t at = line.find("scripts/run.sh");
    if (at != std::string::npos) return line.substr(at, line.find_first_of(" \t#`", at) - at);
  }
  return "";
}

TuqvuProcess::Setup runScript(std::vector<std::string> args) {
  TuqvuProcess::Setup setup;
  setup.program = sourceDir() + "/scripts/run.sh";
  // The script builds this very build folder (already up to date) and starts its daemon.
  setup.env["TUQVU_BUILD_DIR"] = binaryDir();
  setup.args = std::move(args);
  // Up to date after the suite's build, the build step is quick; give it room anyway.
  setup.startGuardMs = 540000;
  return setup;
}

// The lines run.sh prints once the daemon answered: from "run: the broker answers on"
// up to the line about stopping it.
std::string readHints(TuqvuProcess& daemon) {
  std::string text;
  for (;;) {
    const std::string line = daemon.readLine(60000);
    if (line.empty()) return text;
    if (text.empty() && line.rfind("run: ", 0) != 0) continue;  // the daemon's own output
    text += line + "\n";
    if (line.find("stop") != std::string::npos && line.find("Ctrl-C") != std::string::npos) {
      return text;
    }
  }
}

bool answers(int port, const std::string& home) {
  const CommandResult call = runCommand(
      {tuqvuCallPath(), "--url", "http://127.0.0.1:" + std::to_string(port), "ZRBroker.getModules"},
      {{"HOME", home}});
  return call.status == 0;
}

}  // namespace

TEST(RunScript, TheReadmeRunCommandStartsTheDaemon) {
  ASSERT_EQ("scripts/run.sh", readmeRunCommand()) << "the README names no run command";
  TuqvuProcess daemon(runScript({"--port", "0", "--bind", "127.0.0.1"}));
  const json modules = rpc(daemon.port(), "ZRBroker.getModules", json::array())["result"];
  EXPECT_TRUE(modules.is_array()) << modules;
  EXPECT_EQ(200, httpGet(daemon.port(), "/").status);
  // The script passes the signal on and ends with the daemon's status.
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}

TEST(RunScript, OnceTheDaemonAnswersItTellsThePagesTheCallAndTheSecret) {
  TuqvuProcess daemon(runScript({"--port", "0", "--bind", "127.0.0.1"}));
  const std::string url = "http://127.0.0.1:" + std::to_string(daemon.port());
  const std::string hints = readHints(daemon);
  EXPECT_EQ(0u, hints.find("run: the broker answers on " + url + "\n")) << hints;
  EXPECT_NE(std::string::npos, hints.find(url + "/ ")) << hints;
  EXPECT_NE(std::string::npos, hints.find(url + "/ZRBehaviorManager/ ")) << hints;
  // Not the default address: the call it shows names the daemon's.
  EXPECT_NE(std::string::npos,
            hints.find(binaryDir() + "/bin/tuqvu-call --url " + url + " ZRBroker.getModules"))
      << hints;
  // The secret the daemon made, where it says.
  const std::string secret = daemon.home() + "/.config/tuqvu/secret";
  EXPECT_NE(std::string::npos, hints.find(secret + "\n")) << hints;
  struct stat status {};
  EXPECT_EQ(0, ::stat(secret.c_str(), &status)) << secret;
  EXPECT_NE(std::string::npos, hints.find("password")) << hints;
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}

TEST(RunScript, CtrlCStopsTheDaemonOnce) {
  TuqvuProcess daemon(runScript({"--port", "0", "--bind", "127.0.0.1"}));
  readHints(daemon);
  ASSERT_TRUE(answers(daemon.port(), daemon.home()));
  // Ctrl-C signals the terminal's foreground process group: the script's.
  ASSERT_EQ(0, ::kill(-daemon.pid(), SIGINT));
  EXPECT_EQ(0, daemon.waitExit()) << daemon.stderrText();
  EXPECT_EQ(std::string::npos, daemon.stderrText().find("second signal")) << daemon.stderrText();
  EXPECT_FALSE(answers(daemon.port(), daemon.home())) << "the daemon outlived the script";
}

TEST(RunScript, ADaemonThatCannotStartEndsTheScriptWithItsStatus) {
  TuqvuProcess::Setup setup =
      runScript({"--port", "0", "--bind", "127.0.0.1", "--module", "/nonexistent/libnone.so"});
  setup.waitUntilListening = false;
  TuqvuProcess daemon(std::move(setup));
  // The build step comes first; the guard of waitExit covers only the daemon's part.
  for (int i = 0; i < 5400 && daemon.running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(1, daemon.waitExit()) << daemon.stderrText();
  std::string out;
  for (std::string line; !(line = daemon.readLine(1000)).empty();) out += line + "\n";
  EXPECT_NE(std::string::npos, out.find("run: building")) << out;
  EXPECT_EQ(std::string::npos, out.find("run: the broker")) << out;
}
