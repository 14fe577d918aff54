#include <common/eventually.h>
#include <gtest/gtest.h>
#include <zr/zrmutex.h>

#include <atomic>
#include <boost/weak_ptr.hpp>
#include <thread>
#include <vector>

using ZR::ZRCriticalSection;
using ZR::ZRMutex;

namespace {

// Whether another thread can take the mutex now (it gives it back at once).
bool freeForAnotherThread(const boost::shared_ptr<ZRMutex>& mutex) {
  bool taken = false;
  std::thread other([&] {
    taken = mutex->tryLock();
    if (taken) mutex->unlock();
  });
  other.join();
  return taken;
}

}  // namespace

TEST(ZRMutex, SameThreadMayEnterAgainAndHoldsItUntilTheOutermostSectionEnds) {
  boost::shared_ptr<ZRMutex> mutex = ZRMutex::createZRMutex();
  {
    ZRCriticalSection outer(mutex);
    {
      ZRCriticalSection inner(mutex);
      ZRCriticalSection innermost(mutex);
      EXPECT_TRUE(mutex->tryLock());  // the holder takes it once more without waiting
      mutex->unlock();
      EXPECT_FALSE(freeForAnotherThread(mutex));
    }
    // The inner sections ended; the outer one still holds it.
    EXPECT_FALSE(freeForAnotherThread(mutex));
  }
  EXPECT_TRUE(freeForAnotherThread(mutex));
}

TEST(ZRMutex, OtherThreadIsExcludedWhileHeld) {
  boost::shared_ptr<ZRMutex> mutex = ZRMutex::createZRMutex();
  bool acquiredElsewhere = true;
  {
    ZRCriticalSection section(mutex);
    std::thread other([&] { acquiredElsewhere = mutex->tryLock(); });
    other.join();
  }
  EXPECT_FALSE(acquiredElsewhere);
  std::thread after([&] {
    acquiredElsewhere = mutex->tryLock();
    if (acquiredElsewhere) mutex->unlock();
  });
  after.join();
  EXPECT_TRUE(acquiredElsewhere);
}

TEST(ZRMutex, CountsTheThreadsBlockedInLock) {
  boost::shared_ptr<ZRMutex> mutex = ZRMutex::createZRMutex();
  EXPECT_EQ(0, mutex->waiting());
  std::vector<std::thread> waiters;
  {
    ZRCriticalSection held(mutex);
    ZRCriticalSection again(mutex);  // the holder entering again does not wait
    EXPECT_EQ(0, mutex->waiting());
    for (int i = 0; i < 2; ++i) {
      waiters.emplace_back([&] { ZRCriticalSection section(mutex); });
    }
    EXPECT_TRUE(tuqvutest::eventually([&] { return mutex->waiting() == 2; }));
  }
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(0, mutex->waiting());
}

TEST(ZRMutex, CriticalSectionsSerialiseIncrements) {
  boost::shared_ptr<ZRMutex> mutex = ZRMutex::createZRMutex();
  long counter = 0;  // guarded by mutex
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        ZRCriticalSection section(mutex);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, 40000);
}

TEST(ZRMutex, SectionKeepsTheMutexAliveAfterTheOwnerDropsIt) {
  boost::shared_ptr<ZRMutex> mutex = ZRMutex::createZRMutex();
  boost::weak_ptr<ZRMutex> watch = mutex;
  {
    ZRCriticalSection section(mutex);
    mutex.reset();
    EXPECT_FALSE(watch.expired());
  }
  EXPECT_TRUE(watch.expired());
}
