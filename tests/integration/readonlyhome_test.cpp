// A broker whose home is read-only (a full or damaged card, a locked-down image): the
// user library cannot be made, and still the system behaviors load and the default
// behaviors start when the middleware is ready.
#include <common/eventually.h>
#include <common/tmpfs.h>
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

json resultOf(int port, const std::string& method, const json& params) {
  const json reply = rpc(port, method, params);
  return reply.contains("result") ? reply["result"] : json();
}

TEST(ReadOnlyHome, SystemBehaviorsLoadAndTheDefaultBehaviorsStart) {
  TempDir base;
  const fs::path root = fs::path(base.path()) / "prefix" / "share" / "tuqvu" / "behaviors";
  fs::create_directories(root);
  std::ofstream(fs::path(root / "project.xml").string())
      << "<project><metadata key=\"Type\" value=\"BehaviorLibrary\"/></project>\n";
  writeBehavior(root / "animations" / "nod",
                "<behavior><set key=\"Nod/Started\" type=\"int\" value=\"1\"/>"
                "<repeat><wait ms=\"50\"/></repeat></behavior>\n");
  writeBehavior(root / "stand", "<behavior/>\n");

  const fs::path home = fs::path(base.path()) / "home";
  tuqvutest::Tmpfs disk(home, 8u << 20);
  if (!disk.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here: " << disk.reason();
  TuqvuProcess::Setup setup;
  setup.env["HOME"] = home.string();
  setup.env["TUQVU_SDK_PREFIX"] = (fs::path(base.path()) / "prefix").string();
  setup.env["TMPDIR"] = base.path();
  {
    // A first start, on a writable home, keeps the list of defaults and the secret.
    TuqvuProcess first(setup);
    const json added = rpc(first.port(), "ZRBehaviorManager.addDefaultBehavior",
                           json::array({"System/animations/nod"}));
    ASSERT_FALSE(added.contains("error")) << added << first.stderrText();
    ASSERT_EQ(0, first.terminate(SIGTERM)) << first.stderrText();
  }
  fs::remove_all(home / ".tuqvu");
  ASSERT_TRUE(disk.makeReadOnly());

  TuqvuProcess broker(setup);
  const int port = broker.port();
  EXPECT_TRUE(tuqvutest::eventually(
      [&] { return resultOf(port, "ZRMemory.getData", json::array({"Nod/Started"})) == json(1); },
      std::chrono::seconds(30)))
      << broker.stderrText();
  // Loaded: the frame manager holds an instance of it.
  const json stand =
      resultOf(port, "ZRBehaviorManager._getBehaviorFrameManagerId", json::array({"System/stand"}));
  EXPECT_TRUE(stand.is_string() && !stand.get<std::string>().empty()) << stand;
  EXPECT_EQ(json::array({"System/animations/nod"}),
            resultOf(port, "ZRBehaviorManager.getRunningBehaviors", json::array()));
  EXPECT_FALSE(fs::exists(home / ".tuqvu"));
  EXPECT_NE(std::string::npos, broker.stderrText().find("Could not create behaviors path"))
      << broker.stderrText();
  EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
}

}  // namespace
