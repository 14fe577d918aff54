// ZRMutex — a re-entrant mutex shared by pointer, always taken through the scoped
// ZRCriticalSection:
//
//   boost::shared_ptr<ZRMutex> lock = ZRMutex::createZRMutex();
//   { ZRCriticalSection section(lock); ... }   // the same thread may enter again
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <boost/thread/recursive_mutex.hpp>

namespace ZR {

class ZRMutex {
public:
  static boost::shared_ptr<ZRMutex> createZRMutex();

  void lock();
  void unlock();
  bool tryLock();

  // How many threads are blocked in lock() at this moment. It may change as soon as it is
  // read; it serves to observe contention (tests wait on it to know a thread queues).
  int waiting() const { return fWaiting.load(); }

private:
  ZRMutex() = default;
  boost::recursive_mutex fMutex;
  std::atomic<int> fWaiting{0};
};

// Holds the mutex from construction to destruction. It keeps its own copy of the
// shared pointer, so the mutex outlives the section even if its owner goes away.
class ZRCriticalSection {
public:
  explicit ZRCriticalSection(boost::shared_ptr<ZRMutex> mutex);
  ~ZRCriticalSection();
  ZRCriticalSection(const ZRCriticalSection&) = delete;
  ZRCriticalSection& operator=(const ZRCriticalSection&) = delete;

private:
  boost::shared_ptr<ZRMutex> fMutex;
};

}  // namespace ZR
