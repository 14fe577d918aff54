// The report of failing accepts: at most one line a second, the first failure at once,
// then the count of those that failed meanwhile, and the end of the shortage.
#include <gtest/gtest.h>
#include <tuqvu/broker/acceptfailures.h>

namespace {

using tuqvu::broker::AcceptFailures;
using namespace std::chrono_literals;

const AcceptFailures::Clock::time_point kStart = AcceptFailures::Clock::now();

TEST(AcceptFailures, TheFirstFailureIsReportedAtOnce) {
  AcceptFailures failures;
  const auto line = failures.failed("Too many open files", kStart);
  ASSERT_TRUE(line);
  EXPECT_EQ("accepting connections failed: Too many open files; retrying until it works again",
            *line);
}

TEST(AcceptFailures, FailuresWithinASecondAreCountedNotReported) {
  AcceptFailures failures;
  ASSERT_TRUE(failures.failed("Too many open files", kStart));
  for (int i = 1; i <= 9; ++i) {
    EXPECT_FALSE(failures.failed("Too many open files", kStart + i * 100ms)) << i;
  }
  const auto line = failures.failed("Too many open files", kStart + 1000ms);
  ASSERT_TRUE(line);
  EXPECT_EQ(
      "accepting connections still fails: Too many open files (10 failed attempts since "
      "the last report, 11 in all)",
      *line);
  EXPECT_FALSE(failures.failed("Too many open files", kStart + 1500ms));
}

TEST(AcceptFailures, TheEndOfAShortageIsReportedWithItsCount) {
  AcceptFailures failures;
  EXPECT_FALSE(failures.accepted(kStart));
  for (int i = 0; i < 5; ++i) failures.failed("Too many open files", kStart + i * 10ms);
  const auto line = failures.accepted(kStart + 1100ms);
  ASSERT_TRUE(line);
  EXPECT_EQ("accepting connections again after 5 failed attempts", *line);
  EXPECT_FALSE(failures.accepted(kStart + 2500ms));
  // The next shortage is reported from its start again.
  const auto next = failures.failed("Connection reset by peer", kStart + 2600ms);
  ASSERT_TRUE(next);
  EXPECT_EQ(0u, next->find("accepting connections failed: Connection reset by peer"));
}

TEST(AcceptFailures, AnAcceptLettingThroughWithinTheSecondDoesNotEndTheShortage) {
  AcceptFailures failures;
  ASSERT_TRUE(failures.failed("Too many open files", kStart));
  // One connection gets through, and the shortage goes on: no line either way.
  EXPECT_FALSE(failures.accepted(kStart + 100ms));
  EXPECT_FALSE(failures.failed("Too many open files", kStart + 200ms));
  const auto line = failures.failed("Too many open files", kStart + 1000ms);
  ASSERT_TRUE(line);
  EXPECT_EQ(0u, line->find("accepting connections still fails")) << *line;
  EXPECT_NE(std::string::npos, line->find("3 in all")) << *line;
}

}  // namespace
