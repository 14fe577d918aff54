// Without --module the daemon loads the behavior manager library of its build (or of
// the installation), and runs with the platform modules alone when there is none.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {
bool exists(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0;
}
}  // namespace

TEST(DefaultModule, TheBuildsBehaviorManagerIsLoadedWhenItExists) {
  TuqvuProcess daemon(std::vector<std::string>{});
  const json modules = rpc(daemon.port(), "ZRBroker.getModules", json::array())["result"];
  const std::string library = binaryDir() + "/lib/libzrbehaviormanager.so";
  bool listed = false;
  for (const json& name : modules) listed = listed || name == "ZRBehaviorManager";
  if (exists(library)) {
    EXPECT_TRUE(listed) << modules << "\n" << daemon.stderrText();
  } else {
    EXPECT_FALSE(listed);
    EXPECT_NE(std::string::npos,
              daemon.stderrText().find("the default module library was not found"))
        << daemon.stderrText();
  }
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}
