// How many calls run at once: per client and in all.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <tuqvu/broker/calladmission.h>

#include <memory>
#include <string>
#include <vector>

using tuqvu::broker::CallAdmission;

namespace {

// The ticket of an admitted call; null when refused.
CallAdmission::Ticket ticketOf(CallAdmission::Decision decision) {
  auto* ticket = std::get_if<CallAdmission::Ticket>(&decision);
  return ticket == nullptr ? nullptr : *ticket;
}

// Why a call was refused; empty when it was admitted.
std::string refusalOf(const CallAdmission::Decision& decision) {
  const auto* refused = std::get_if<CallAdmission::Refused>(&decision);
  return refused == nullptr ? "" : refused->why;
}

}  // namespace

TEST(CallAdmission, AClientGetsNoMoreThanItsShareAndOthersStillGetTheirs) {
  CallAdmission admission({2, 10});
  auto first = ticketOf(admission.admit("10.0.0.1"));
  auto second = ticketOf(admission.admit("10.0.0.1"));
  ASSERT_TRUE(first && second);
  EXPECT_EQ(refusalOf(admission.admit("10.0.0.1")),
            "too many calls at once: 10.0.0.1 already has 2 running, the most one client may "
            "have (TUQVU_MAX_CALLS_PER_CLIENT); try again when one has answered");
  EXPECT_NE(nullptr, ticketOf(admission.admit("10.0.0.2")));
  first.reset();
  EXPECT_NE(nullptr, ticketOf(admission.admit("10.0.0.1")));
}

TEST(CallAdmission, EachLocalProcessHasAShareOfItsOwn) {
  CallAdmission admission({2, 5});
  std::vector<std::shared_ptr<void>> tickets;
  for (int i = 0; i < 2; ++i) tickets.push_back(ticketOf(admission.admit("local process 10")));
  for (const auto& ticket : tickets) EXPECT_NE(nullptr, ticket);
  EXPECT_EQ(refusalOf(admission.admit("local process 10")),
            "too many calls at once: local process 10 already has 2 running, the most one "
            "client may have (TUQVU_MAX_CALLS_PER_CLIENT); try again when one has answered");
  EXPECT_NE(nullptr, ticketOf(admission.admit("local process 11")));
}

TEST(CallAdmission, AllClientsTogetherGetNoMoreThanTheTotal) {
  CallAdmission admission({5, 3});
  std::vector<std::shared_ptr<void>> tickets;
  for (const char* client : {"a", "b", "c"}) tickets.push_back(ticketOf(admission.admit(client)));
  EXPECT_EQ(3u, admission.running());
  EXPECT_EQ(refusalOf(admission.admit("d")),
            "too many calls at once: 3 are running, the most the broker makes "
            "(TUQVU_MAX_CALLS); try again when one has answered");
  tickets.clear();
  EXPECT_EQ(0u, admission.running());
  EXPECT_NE(nullptr, ticketOf(admission.admit("d")));
}

TEST(CallAdmission, LimitsComeFromTheEnvironmentAndNonsenseKeepsTheDefaults) {
  ::setenv("TUQVU_MAX_CALLS_PER_CLIENT", "7", 1);
  ::setenv("TUQVU_MAX_CALLS", "many", 1);
  const CallAdmission::Limits limits = CallAdmission::limitsFromEnvironment();
  EXPECT_EQ(7u, limits.perClient);
  EXPECT_EQ(256u, limits.total);
  ::unsetenv("TUQVU_MAX_CALLS_PER_CLIENT");
  ::unsetenv("TUQVU_MAX_CALLS");
  EXPECT_EQ(64u, CallAdmission::limitsFromEnvironment().perClient);
}
