#include <gtest/gtest.h>
#include <tuqvu/broker/callexecutor.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

using tuqvu::broker::CallExecutor;
using namespace std::chrono_literals;

namespace {
// Guards against hangs only.
constexpr auto kGuard = 60s;

// A gate that jobs wait at until it opens.
struct Gate {
  std::mutex mutex;
  std::condition_variable changed;
  bool open = false;
  int waiting = 0;
  void pass() {
    std::unique_lock<std::mutex> lock(mutex);
    ++waiting;
    changed.notify_all();
    changed.wait(lock, [&] { return open; });
    --waiting;
  }
  bool waitFor(int count) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, kGuard, [&] { return waiting >= count; });
  }
  void openIt() {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    changed.notify_all();
  }
};
}  // namespace

TEST(CallExecutor, EveryBlockedJobHasAThreadOfItsOwn) {
  CallExecutor executor;
  Gate gate;
  constexpr int kBlocked = 200;
  for (int i = 0; i < kBlocked; ++i) executor.submit([&] { gate.pass(); });
  // All of them are inside their job at the same time...
  ASSERT_TRUE(gate.waitFor(kBlocked));
  EXPECT_EQ(static_cast<std::size_t>(kBlocked), executor.busyCount());
  // ...and one more job still runs while they block.
  std::promise<void> quick;
  executor.submit([&] { quick.set_value(); });
  EXPECT_EQ(std::future_status::ready, quick.get_future().wait_for(kGuard));
  gate.openIt();
  EXPECT_TRUE(executor.waitIdle(kGuard));
  EXPECT_EQ(0u, executor.busyCount());
}

TEST(CallExecutor, IdleThreadsAreReusedAndExtraOnesEnd) {
  CallExecutor executor(1, 50ms);
  Gate gate;
  for (int i = 0; i < 8; ++i) executor.submit([&] { gate.pass(); });
  ASSERT_TRUE(gate.waitFor(8));
  EXPECT_EQ(8u, executor.threadCount());
  gate.openIt();
  ASSERT_TRUE(executor.waitIdle(kGuard));
  // Past the idle time only the kept worker remains.
  const auto deadline = std::chrono::steady_clock::now() + kGuard;
  while (executor.threadCount() > 1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(1u, executor.threadCount());
  std::atomic<int> ran{0};
  for (int i = 0; i < 3; ++i) {
    executor.submit([&] { ++ran; });
    ASSERT_TRUE(executor.waitIdle(kGuard));
  }
  EXPECT_EQ(3, ran.load());
  EXPECT_LE(executor.threadCount(), 2u);
}

TEST(CallExecutor, AJobThatThrowsDoesNotStopTheOthers) {
  CallExecutor executor;
  std::atomic<int> ran{0};
  executor.submit([] { throw std::runtime_error("job failure"); });
  executor.submit([&] { ++ran; });
  ASSERT_TRUE(executor.waitIdle(kGuard));
  EXPECT_EQ(1, ran.load());
}

TEST(CallExecutor, RefusesJobsOnceStoppedButFinishesQueuedOnes) {
  CallExecutor executor;
  Gate gate;
  std::atomic<int> ran{0};
  executor.submit([&] {
    gate.pass();
    ++ran;
  });
  ASSERT_TRUE(gate.waitFor(1));
  executor.stop();
  EXPECT_THROW(executor.submit([] {}), std::runtime_error);
  gate.openIt();
  EXPECT_TRUE(executor.waitIdle(kGuard));
  EXPECT_EQ(1, ran.load());
}

TEST(CallExecutor, AboveTheThreadLimitJobsWaitForAFreeThread) {
  CallExecutor executor(0, 1s, 2);
  Gate gate;
  std::atomic<int> ran{0};
  for (int i = 0; i < 2; ++i) executor.submit([&] { gate.pass(); });
  ASSERT_TRUE(gate.waitFor(2));
  executor.submit([&] { ++ran; });
  EXPECT_EQ(2u, executor.threadCount());
  EXPECT_EQ(0, ran.load());
  gate.openIt();
  ASSERT_TRUE(executor.waitIdle(kGuard));
  EXPECT_EQ(1, ran.load());
}
