// Connections spread over the I/O lanes; calls made in place one at a time per lane; a
// lasting call hands the lane's other handlers to its standby thread.
#include <gtest/gtest.h>
#include <tuqvu/broker/iolanes.h>

#include <boost/asio/post.hpp>
#include <chrono>
#include <future>
#include <set>
#include <utility>

using tuqvu::broker::IoLanes;
namespace net = boost::asio;

namespace {

// Runs `work` on the lane's thread and returns what it returned.
template <class Work>
auto onLane(net::io_context& lane, Work work) {
  std::packaged_task<decltype(work())()> task(std::move(work));
  auto result = task.get_future();
  net::post(lane, [&task] { task(); });
  return result.get();
}

}  // namespace

TEST(IoLanes, NewConnectionsGoToEveryLaneInTurn) {
  IoLanes lanes(3);
  std::set<net::io_context*> seen;
  for (int i = 0; i < 3; ++i) seen.insert(&lanes.next());
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_EQ(&lanes.next(), &lanes.lane(0));
}

TEST(IoLanes, ALaneMakesOneCallAtATimeAndOtherLanesTheirOwn) {
  IoLanes lanes(2);
  lanes.start();
  IoLanes::Call first = onLane(lanes.lane(0), [&] { return lanes.enterCall(lanes.lane(0)); });
  EXPECT_TRUE(first);
  EXPECT_FALSE(onLane(lanes.lane(0), [&] { return bool(lanes.enterCall(lanes.lane(0))); }));
  EXPECT_TRUE(onLane(lanes.lane(1), [&] { return bool(lanes.enterCall(lanes.lane(1))); }));
  first.release();
  EXPECT_TRUE(onLane(lanes.lane(0), [&] { return bool(lanes.enterCall(lanes.lane(0))); }));
  lanes.stop();
}

TEST(IoLanes, AClaimEndsOnceWhereverItIsMoved) {
  IoLanes lanes(1);
  {
    IoLanes::Call call = lanes.enterCall(lanes.lane(0));
    IoLanes::Call moved(std::move(call));
    EXPECT_FALSE(call);
    IoLanes::Call assigned;
    assigned = std::move(moved);
    EXPECT_TRUE(assigned);
    EXPECT_FALSE(lanes.enterCall(lanes.lane(0)));
  }
  EXPECT_TRUE(lanes.enterCall(lanes.lane(0)));
}

TEST(IoLanes, AContextOfNoLaneNeverMakesACallInPlace) {
  IoLanes lanes(2);
  net::io_context elsewhere;
  EXPECT_FALSE(lanes.enterCall(elsewhere));
}

TEST(IoLanes, ACallThatLastsLeavesTheLanesOtherHandlersToItsStandby) {
  IoLanes lanes(1, std::chrono::milliseconds(1));
  lanes.start();
  std::promise<void> callMayReturn;
  std::promise<bool> callStarted;
  std::promise<void> callReturned;
  net::post(lanes.lane(0), [&] {
    {
      IoLanes::Call call = lanes.enterCall(lanes.lane(0));
      callStarted.set_value(bool(call));
      callMayReturn.get_future().wait();
    }
    callReturned.set_value();
  });
  ASSERT_TRUE(callStarted.get_future().get());

  // The lane's own thread is inside the call: this handler runs only on the standby, and
  // a call it asks for is not made in place.
  std::promise<bool> otherHandler;
  net::post(lanes.lane(0), [&] { otherHandler.set_value(bool(lanes.enterCall(lanes.lane(0)))); });
  std::future<bool> otherRan = otherHandler.get_future();
  ASSERT_EQ(otherRan.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_FALSE(otherRan.get());
  EXPECT_GE(lanes.takeovers(), 1u);

  callMayReturn.set_value();
  callReturned.get_future().wait();
  EXPECT_TRUE(onLane(lanes.lane(0), [&] { return bool(lanes.enterCall(lanes.lane(0))); }));
  lanes.stop();
}

TEST(IoLanes, ShortCallsLeaveTheStandbyAsleep) {
  IoLanes lanes(1, std::chrono::seconds(2));
  lanes.start();
  for (int i = 0; i < 1000; ++i) {
    onLane(lanes.lane(0), [&] { return bool(lanes.enterCall(lanes.lane(0))); });
  }
  EXPECT_EQ(lanes.takeovers(), 0u);
  lanes.stop();
}
