// A broker out of descriptors: the failing accepts are reported once at first, then at
// most once a second with their count, and once when accepting works again, after which
// calls are answered as before.
#include <common/eventually.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

int linesHolding(const std::string& text, const std::string& fragment) {
  std::istringstream lines(text);
  int count = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find(fragment) != std::string::npos) ++count;
  }
  return count;
}

TEST(DaemonDescriptors, AShortageIsReportedOnceASecondWithItsCountAndTheBrokerRecovers) {
  TuqvuProcess daemon({"--module", "TestModule=" + testModulePath()});
  ASSERT_TRUE(rpc(daemon.port(), "ZRBroker.getModules", json::array()).contains("result"));
  // A few descriptors above what it holds now.
  const int open = openDescriptors(daemon.pid());
  const struct rlimit limit = {static_cast<rlim_t>(open + 6), static_cast<rlim_t>(open + 6)};
  ASSERT_EQ(0, ::prlimit(daemon.pid(), RLIMIT_NOFILE, &limit, nullptr));

  std::vector<std::unique_ptr<RawConnection>> holding;
  for (int i = 0; i < 30; ++i) holding.push_back(std::make_unique<RawConnection>(daemon.port()));
  ASSERT_TRUE(tuqvutest::eventually(
      [&] {
        return linesHolding(daemon.stderrText(), "accepting connections failed") == 1;
      },
      std::chrono::seconds(30)))
      << daemon.stderrText();
  // The broker retries about ten times a second meanwhile.
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  holding.clear();

  // Calls are answered again once the held connections are gone.
  ASSERT_TRUE(tuqvutest::eventually(
      [&] {
        return rpc(daemon.port(), "ZRBroker.getModules", json::array()).contains("result");
      },
      std::chrono::seconds(30)));
  const std::string log = daemon.stderrText();
  EXPECT_EQ(1, linesHolding(log, "accepting connections failed: Too many open files")) << log;
  const int reports = linesHolding(log, "accepting connections still fails: Too many open files");
  EXPECT_GE(reports, 1) << log;
  EXPECT_LE(reports, 4) << log;
  EXPECT_EQ(1, linesHolding(log, "accepting connections again after")) << log;
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << log;
}

}  // namespace
