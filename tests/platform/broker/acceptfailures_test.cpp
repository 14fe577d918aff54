// The report of failing accepts: the first at once, then one line a second with the
// count, and one when accepting works again.
#include <gtest/gtest.h>
#include <tuqvu/broker/acceptfailures.h>

namespace {

using tuqvu::broker::AcceptFailures;
using namespace std::chrono_literals;

TEST(AcceptFailures, TheFirstFailureIsReportedAtOnce) {
  AcceptFailures failures;
  const auto line = failures.failed("Too many open files", AcceptFailures::Clock::now());
  ASSERT_TRUE(line);
  EXPECT_EQ("accepting connections failed: Too many open files; retrying until it works again",
            *line);
}

TEST(AcceptFailures, FailuresWithinASecondAreCountedNotReported) {
  AcceptFailures failures;
  const auto start = AcceptFailures::Clock::now();
  ASSERT_TRUE(failures.failed("Too many open files", start));
  for (int i = 1; i <= 9; ++i) {
    EXPECT_FALSE(failures.failed("Too many open files", start + i * 100ms)) << i;
  }
  const auto line = failures.failed("Too many open files", start + 1000ms);
  ASSERT_TRUE(line);
  EXPECT_EQ("accepting connections still fails: Too many open files (10 failed attempts in "
            "the last 1 s or more, 11 in all)",
            *line);
  EXPECT_FALSE(failures.failed("Too many open files", start + 1500ms));
}

TEST(AcceptFailures, AnAcceptedConnectionEndsTheBurstWithItsCount) {
  AcceptFailures failures;
  EXPECT_FALSE(failures.accepted());
  const auto start = AcceptFailures::Clock::now();
  for (int i = 0; i < 5; ++i) failures.failed("Too many open files", start + i * 10ms);
  const auto line = failures.accepted();
  ASSERT_TRUE(line);
  EXPECT_EQ("accepting connections again after 5 failed attempts", *line);
  EXPECT_FALSE(failures.accepted());
  // The next burst is reported from its start again.
  EXPECT_TRUE(failures.failed("Connection reset by peer", start + 100ms));
}

}  // namespace
