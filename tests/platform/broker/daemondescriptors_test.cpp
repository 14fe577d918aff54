// A broker out of descriptors: the failing accepts are reported at most once a second
// (at first, then with their count, then when accepting works again), and calls are
// answered as before once descriptors are free.
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
#if defined(__SANITIZE_ADDRESS__)
  // The undefined-behaviour checker built in beside it reads an object's type through a
  // pipe; with no descriptor left it takes a sound object for a broken one and ends the
  // broker. The plain build runs this test.
  GTEST_SKIP() << "the sanitizers' run-time needs descriptors of its own";
#endif
  TuqvuProcess daemon({"--module", "TestModule=" + testModulePath()});
  ASSERT_TRUE(rpc(daemon.port(), "ZRBroker.getModules", json::array()).contains("result"));
  // A few descriptors above what it holds now.
  const int open = openDescriptors(daemon.pid());
  const struct rlimit limit = {static_cast<rlim_t>(open + 6), static_cast<rlim_t>(open + 6)};
  ASSERT_EQ(0, ::prlimit(daemon.pid(), RLIMIT_NOFILE, &limit, nullptr));

  std::vector<std::unique_ptr<RawConnection>> holding;
  for (int i = 0; i < 30; ++i) holding.push_back(std::make_unique<RawConnection>(daemon.port()));
  ASSERT_TRUE(tuqvutest::eventually(
      [&] { return linesHolding(daemon.stderrText(), "accepting connections failed") == 1; },
      std::chrono::seconds(30)))
      << daemon.stderrText();
  // The broker retries about ten times a second meanwhile.
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  holding.clear();

  // Calls are answered again once the held connections are gone.
  ASSERT_TRUE(tuqvutest::eventually(
      [&] { return rpc(daemon.port(), "ZRBroker.getModules", json::array()).contains("result"); },
      std::chrono::seconds(30)));
  // A later connection, a second after the last report, reports the end.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  ASSERT_TRUE(rpc(daemon.port(), "ZRBroker.getModules", json::array()).contains("result"));
  const std::string log = daemon.stderrText();
  // About 3.5 s of shortage and retries every 100 ms: a line per retry would be 30.
  EXPECT_LE(linesHolding(log, "tuqvu.http accept:"), 6) << log;
  EXPECT_GE(linesHolding(log, "accepting connections failed: Too many open files"), 1) << log;
  EXPECT_GE(linesHolding(log, "accepting connections still fails: Too many open files"), 1) << log;
  // The last of them says the shortage is over.
  EXPECT_NE(std::string::npos,
            log.substr(log.rfind("tuqvu.http accept:")).find("accepting connections again"))
      << log;
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << log;
}

}  // namespace
