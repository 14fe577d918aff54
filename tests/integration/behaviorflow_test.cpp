// The authoring application's flow against a real broker: a behavior's files are PUT into
// the user library over the file-transfer service, installed in place over JSON-RPC
// (the event stream announces it), made a default behavior, and after a restart of the
// broker with the same home it starts by itself once "TUQvuReady" is announced.
#include <common/files.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;

using tuqvutest::readFile;

namespace {

// The behavior: it tells the event stream it is alive until it is stopped.
const char* const kBehavior =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<behavior>\n"
    "  <repeat>\n"
    "    <raise key=\"Flow/Tick\" type=\"int\" value=\"1\"/>\n"
    "    <wait ms=\"100\"/>\n"
    "  </repeat>\n"
    "</behavior>\n";
const char* const kProject =
    "<project>\n  <metadata key=\"Type\" value=\"Behavior\"/>\n  <tag>greeting</tag>\n</project>\n";

json call(int port, const std::string& method, const json& params) {
  const json answer = rpc(port, method, params);
  if (answer.contains("error")) {
    ADD_FAILURE() << method << ": " << answer["error"].dump();
    return json();
  }
  return answer["result"];
}

// One PUT of the file service, as raw HTTP; true when the server answered "ok".
bool put(int port, const std::string& authorization, const std::string& path,
         const std::string& body) {
  RawConnection connection(port);
  connection.send("PUT " + path +
                  " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: " + authorization +
                  "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  const std::string reply = connection.readUntil("ok\n", std::chrono::milliseconds(30000));
  EXPECT_EQ(reply.rfind("HTTP/1.1 200 OK", 0), 0u) << reply;
  return reply.size() >= 3 && reply.compare(reply.size() - 3, 3, "ok\n") == 0;
}

// Waits (within a guard) until the broker reports the behavior running.
bool waitRunning(int port, const std::string& name, int guardMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(guardMs);
  while (std::chrono::steady_clock::now() < deadline) {
    if (call(port, "ZRBehaviorManager.isBehaviorRunning", json::array({name})) == json(true)) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

// The next event of the stream with this key; null when none came.
json nextEvent(EventStream& stream, const std::string& key) {
  for (;;) {
    const std::string data = stream.next(30000);
    if (data.empty()) return json();
    const json event = json::parse(data);
    if (event["key"] == key) return event;
  }
}

TuqvuProcess::Setup brokerSetup(const TempDir& home, const TempDir& tmp) {
  TuqvuProcess::Setup setup;
  setup.env["HOME"] = home.path();
  setup.env["TMPDIR"] = tmp.path();
  return setup;
}

TEST(BehaviorFlow, PutInstalledMadeDefaultAndStartedByItselfAfterARestart) {
  TempDir home, tmp;
  const std::string name = "greetings/hello";
  {
    TuqvuProcess broker(brokerSetup(home, tmp));
    const int port = broker.port();
    const json filePort = call(port, "ZRBehaviorManager._httpFileTransferPort", json::array());
    ASSERT_TRUE(filePort.is_number_integer()) << broker.stderrText();
    EventStream added(port, "/events?key=ZRBehaviorManager%2FBehaviorAdded");

    ASSERT_TRUE(put(filePort.get<int>(), broker.authorization(),
                    "/behaviors/User/" + name + "/behavior.xar", kBehavior));
    ASSERT_TRUE(put(filePort.get<int>(), broker.authorization(),
                    "/behaviors/User/" + name + "/project.xml", kProject));
    const fs::path dir = fs::path(home.path()) / ".tuqvu" / "behaviors" / name;
    EXPECT_EQ(readFile(dir / "behavior.xar"), kBehavior);

    EXPECT_EQ(call(port, "ZRBehaviorManager.installBehavior", json::array({name})), json(true))
        << broker.stderrText();
    EXPECT_EQ(nextEvent(added, "ZRBehaviorManager/BehaviorAdded"),
              json({{"key", "ZRBehaviorManager/BehaviorAdded"}, {"value", name}}));
    EXPECT_EQ(call(port, "ZRBehaviorManager.getInstalledBehaviors", json::array()),
              json::array({name}));
    EXPECT_EQ(call(port, "ZRBehaviorManager.getBehaviorTags", json::array({name})),
              json::array({"greeting"}));

    EXPECT_EQ(call(port, "ZRBehaviorManager.addDefaultBehavior", json::array({"User/" + name})),
              json());
    EXPECT_EQ(call(port, "ZRBehaviorManager.getDefaultBehaviors", json::array()),
              json::array({name}));
    EXPECT_EQ(call(port, "ZRBehaviorManager.isBehaviorRunning", json::array({name})), json(false));
    EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
  }
  {
    TuqvuProcess broker(brokerSetup(home, tmp));
    const int port = broker.port();
    EXPECT_EQ(call(port, "ZRMemory.getData", json::array({"TUQvuReady"})), json(1));
    ASSERT_TRUE(waitRunning(port, name, 30000)) << broker.stderrText();
    EXPECT_EQ(call(port, "ZRMemory.getData", json::array({"BehaviorsRun"})), json::array({name}));
    EXPECT_EQ(call(port, "ZRBehaviorManager.getDefaultBehaviors", json::array()),
              json::array({name}));

    // It really runs: its ticks come, and stopping it empties "BehaviorsRun".
    EventStream stream(port, "/events?key=Flow/Tick&key=BehaviorsRun");
    EXPECT_EQ(nextEvent(stream, "Flow/Tick"), json({{"key", "Flow/Tick"}, {"value", 1}}));
    EXPECT_EQ(call(port, "ZRBehaviorManager.stopBehavior", json::array({name})), json());
    EXPECT_EQ(nextEvent(stream, "BehaviorsRun"),
              json({{"key", "BehaviorsRun"}, {"value", json::array()}}));
    EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
  }
}

TEST(BehaviorFlow, PackagePutIntoTheTemporaryFolderIsInstalledAndRemoved) {
  TempDir home, tmp, work;
  // A zip package made with the zip command: the project's files at its top level.
  const fs::path src = fs::path(work.path()) / "src";
  fs::create_directories(src);
  std::ofstream((src / "behavior.xar").string()) << "<behavior><wait ms=\"1\"/></behavior>";
  std::ofstream((src / "project.xml").string()) << kProject;
  const std::string zip = work.path() + "/wave.zip";
  const std::string command =
      "cd '" + src.string() + "' && zip -q '" + zip + "' behavior.xar project.xml";
  ASSERT_EQ(std::system(command.c_str()), 0);

  TuqvuProcess broker(brokerSetup(home, tmp));
  const int port = broker.port();
  const int filePort =
      call(port, "ZRBehaviorManager._httpFileTransferPort", json::array()).get<int>();
  ASSERT_TRUE(put(filePort, broker.authorization(), "/tmp/wave.zip", readFile(zip)));
  const std::string uploaded = tmp.path() + "/wave.zip";
  ASSERT_TRUE(fs::exists(uploaded));

  EventStream stream(port,
                     "/events?key=ZRBehaviorManager%2FBehaviorAdded"
                     "&key=ZRBehaviorManager%2FBehaviorRemoved");
  EXPECT_EQ(
      call(port, "ZRBehaviorManager.installBehavior", json::array({uploaded, "moves/wave", false})),
      json(true))
      << broker.stderrText();
  EXPECT_EQ(nextEvent(stream, "ZRBehaviorManager/BehaviorAdded")["value"], "moves/wave");
  // Only the package itself is left in the temporary folder.
  std::vector<std::string> left;
  for (fs::directory_iterator it(tmp.path()), end; it != end; ++it) {
    left.push_back(it->path().filename().string());
  }
  EXPECT_EQ(left, std::vector<std::string>{"wave.zip"});

  EXPECT_EQ(call(port, "ZRBehaviorManager.addDefaultBehavior", json::array({"moves/wave"})),
            json());
  EXPECT_EQ(call(port, "ZRBehaviorManager.removeBehavior", json::array({"moves/wave"})),
            json(true));
  EXPECT_EQ(nextEvent(stream, "ZRBehaviorManager/BehaviorRemoved")["value"], "moves/wave");
  EXPECT_EQ(call(port, "ZRBehaviorManager.getDefaultBehaviors", json::array()), json::array());
  const json missing = rpc(port, "ZRBehaviorManager.removeBehavior", json::array({"moves/wave"}));
  ASSERT_TRUE(missing.contains("error"));
  EXPECT_EQ(missing["error"]["data"]["description"], "Behavior moves/wave was not found.");
  EXPECT_EQ(missing["error"]["data"]["line"], 1116);
  EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
}

}  // namespace
