// A client that fills the shared memory of a real tuqvu: it is refused once it reaches
// what clients may fill, and behaviors still run and publish, since the system's own
// keys ("BehaviorsRun", what a behavior sets) use the reserve kept for them.
#include <gtest/gtest.h>
#include <signal.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <string>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;

namespace {

void writeBehavior(const fs::path& dir, const std::string& xar) {
  fs::create_directories(dir);
  std::ofstream(fs::path(dir / "behavior.xar").string()) << xar;
  std::ofstream(fs::path(dir / "project.xml").string())
      << "<project><metadata key=\"Type\" value=\"Behavior\"/></project>\n";
}

TEST(MemoryReserve, AClientThatFillsTheMemoryLeavesBehaviorsRunningAndPublishing) {
  TempDir prefix;
  const fs::path root = fs::path(prefix.path()) / "share" / "tuqvu" / "behaviors";
  writeBehavior(root / "stand",
                "<behavior><set key=\"Posture\" type=\"string\" "
                "value=\"standing\"/></behavior>\n");
  TuqvuProcess::Setup setup;
  setup.env["TUQVU_SDK_PREFIX"] = prefix.path();
  setup.env["TUQVU_MEMORY_TOTAL_MAX_BYTES"] = "3000000";
  setup.env["TUQVU_MEMORY_SYSTEM_RESERVE_BYTES"] = "500000";
  TuqvuProcess broker(setup);
  const int port = broker.port();

  json refused;
  int stored = 0;
  for (; stored < 100 && refused.is_null(); ++stored) {
    const json reply =
        rpc(port, "ZRMemory.insertData",
            json::array({"Client/" + std::to_string(stored), std::string(100000, 'c')}));
    if (reply.contains("error")) refused = reply["error"];
  }
  ASSERT_FALSE(refused.is_null()) << "the memory took " << stored << " values of 100 kB";
  const std::string message = refused["message"].get<std::string>();
  EXPECT_NE(std::string::npos,
            message.find("clients may fill it up to 2500000 of its 3000000, the rest is kept "
                         "for the system"))
      << message;
  EXPECT_GE(stored, 20);
  // Then smaller values into what is left, so that nothing a client could store fits.
  int key = stored;
  for (const std::size_t size : {10000u, 1000u, 100u, 1u}) {
    for (;;) {
      const json reply =
          rpc(port, "ZRMemory.insertData",
              json::array({"Client/" + std::to_string(key++), std::string(size, 'c')}));
      if (reply.contains("error")) break;
    }
  }

  // The system's own writes still fit.
  const json run = rpc(port, "ZRBehaviorManager.runBehavior", json::array({"System/stand"}));
  EXPECT_FALSE(run.contains("error")) << run << broker.stderrText();
  EXPECT_EQ(json("standing"), rpc(port, "ZRMemory.getData", json::array({"Posture"}))["result"]);
  EXPECT_TRUE(rpc(port, "ZRMemory.getData", json::array({"BehaviorsRun"}))["result"].is_array());
  EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
}

}  // namespace
