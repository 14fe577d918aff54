// How many calls run at once: per client and in all.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <tuqvu/broker/calladmission.h>

#include <memory>
#include <string>
#include <vector>

using tuqvu::broker::CallAdmission;

TEST(CallAdmission, AClientGetsNoMoreThanItsShareAndOthersStillGetTheirs) {
  CallAdmission admission({2, 10});
  std::string why;
  auto first = admission.admit("10.0.0.1", &why);
  auto second = admission.admit("10.0.0.1", &why);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(nullptr, admission.admit("10.0.0.1", &why));
  EXPECT_EQ(why,
            "too many calls at once: 10.0.0.1 already has 2 running, the most one client may "
            "have (TUQVU_MAX_CALLS_PER_CLIENT); try again when one has answered");
  EXPECT_NE(nullptr, admission.admit("10.0.0.2", &why));
  first.reset();
  EXPECT_NE(nullptr, admission.admit("10.0.0.1", &why));
}

TEST(CallAdmission, EachLocalProcessHasAShareOfItsOwn) {
  CallAdmission admission({2, 5});
  std::string why;
  std::vector<std::shared_ptr<void>> tickets;
  for (int i = 0; i < 2; ++i) tickets.push_back(admission.admit("local process 10", &why));
  for (const auto& ticket : tickets) EXPECT_NE(nullptr, ticket);
  EXPECT_EQ(nullptr, admission.admit("local process 10", &why));
  EXPECT_EQ(why,
            "too many calls at once: local process 10 already has 2 running, the most one "
            "client may have (TUQVU_MAX_CALLS_PER_CLIENT); try again when one has answered");
  EXPECT_NE(nullptr, admission.admit("local process 11", &why));
}

TEST(CallAdmission, AllClientsTogetherGetNoMoreThanTheTotal) {
  CallAdmission admission({5, 3});
  std::string why;
  std::vector<std::shared_ptr<void>> tickets;
  for (const char* client : {"a", "b", "c"}) tickets.push_back(admission.admit(client, &why));
  EXPECT_EQ(3u, admission.running());
  EXPECT_EQ(nullptr, admission.admit("d", &why));
  EXPECT_EQ(why,
            "too many calls at once: 3 are running, the most the broker makes "
            "(TUQVU_MAX_CALLS); try again when one has answered");
  tickets.clear();
  EXPECT_EQ(0u, admission.running());
  EXPECT_NE(nullptr, admission.admit("d", &why));
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
