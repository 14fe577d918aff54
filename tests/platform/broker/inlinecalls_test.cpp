// Calls run in place only while another I/O thread stays free.
#include <gtest/gtest.h>
#include <tuqvu/broker/inlinecalls.h>

#include <utility>
#include <vector>

using tuqvu::broker::InlineCalls;

TEST(InlineCalls, OneIoThreadAlwaysStaysFreeForTheOtherConnections) {
  InlineCalls calls(3);
  InlineCalls::Slot first = calls.tryEnter();
  InlineCalls::Slot second = calls.tryEnter();
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
  EXPECT_FALSE(calls.tryEnter());
  EXPECT_EQ(1, calls.freeThreads());
  first.release();
  EXPECT_EQ(2, calls.freeThreads());
  EXPECT_TRUE(calls.tryEnter());  // taken and given back at once
  EXPECT_EQ(2, calls.freeThreads());
}

TEST(InlineCalls, ASingleIoThreadNeverRunsACallInPlace) {
  InlineCalls calls(1);
  EXPECT_FALSE(calls.tryEnter());
  EXPECT_EQ(1, calls.freeThreads());
}

TEST(InlineCalls, ASlotFreesItsThreadOnceWhereverItIsMoved) {
  InlineCalls calls(2);
  {
    InlineCalls::Slot slot = calls.tryEnter();
    ASSERT_TRUE(slot);
    InlineCalls::Slot moved(std::move(slot));
    EXPECT_FALSE(slot);
    InlineCalls::Slot assigned;
    assigned = std::move(moved);
    EXPECT_EQ(1, calls.freeThreads());
    assigned.release();
    assigned.release();  // a second release changes nothing
    EXPECT_EQ(2, calls.freeThreads());
    slot = calls.tryEnter();
    EXPECT_EQ(1, calls.freeThreads());
  }
  EXPECT_EQ(2, calls.freeThreads());
}
