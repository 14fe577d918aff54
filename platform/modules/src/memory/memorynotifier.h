// The notification thread of ZRMemory: a queue of notifications, the observers, and
// the delivery of each notification to observers and subscribers in queue order.
#pragma once

#include <zr/zrvalue.h>

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ZR {

class ZRBroker;

namespace detail {

// One subscriber of a key. active turns false when it is unsubscribed or replaced, so
// notifications already queued for it are skipped.
struct MemorySubscription {
  MemorySubscription(std::string m, std::string msg, std::string meth)
      : module(std::move(m)), message(std::move(msg)), method(std::move(meth)) {}
  const std::string module;
  const std::string message;
  const std::string method;
  std::atomic<bool> active{true};
};

struct MemoryNotification {
  std::string key;
  ZRValue value;
  std::vector<std::shared_ptr<MemorySubscription>> subscribers;  // as they were when queued
  std::size_t bytes = 0;  // what key and value hold (memorysize.h), counted by the caller
};

class MemoryNotifier {
public:
  using Observer = std::function<void(const std::string& key, const ZRValue& value)>;
  enum class PushResult { queued, dropped, firstDrop };

  // A subscriber call slower than this is logged as a warning.
  static constexpr int kSlowSubscriberMs = 500;

  // At most `maxPending` notifications wait, holding at most `maxPendingBytes` (their
  // keys and values counted at what they hold); one always may, however large.
  MemoryNotifier(std::string moduleName, boost::shared_ptr<ZRBroker> broker, std::size_t maxPending,
                 std::size_t maxPendingBytes);
  ~MemoryNotifier();  // stops the thread; notifications still queued are dropped
  MemoryNotifier(const MemoryNotifier&) = delete;
  MemoryNotifier& operator=(const MemoryNotifier&) = delete;

  // Never blocks beyond the queue lock; firstDrop marks the first drop since the queue
  // last had room, so the caller logs an overflow once per episode.
  PushResult push(MemoryNotification notification);
  // The bytes that notifications waiting or being delivered hold.
  std::size_t pendingBytes();

  int addObserver(Observer observer);
  void removeObserver(int id);

  bool flush(int timeoutMs);
  bool onNotificationThread() const { return std::this_thread::get_id() == fThread.get_id(); }

private:
  void run();
  void deliver(const MemoryNotification& notification);
  void notifyObservers(const MemoryNotification& notification);
  void notifySubscribers(const MemoryNotification& notification);

  const std::string fModuleName;
  const boost::shared_ptr<ZRBroker> fBroker;
  const std::size_t fMaxPending;
  const std::size_t fMaxPendingBytes;

  // Guards the queue, the counters and fStopping. fQueueChanged: something was queued
  // or stop was asked; fDeliveredChanged: fDelivered grew.
  std::mutex fQueueMutex;
  std::condition_variable fQueueChanged;
  std::condition_variable fDeliveredChanged;
  std::deque<MemoryNotification> fQueue;
  std::size_t fPendingBytes = 0;  // of fQueue and of the batch being delivered
  std::uint64_t fQueued = 0;      // notifications accepted so far
  std::uint64_t fDelivered = 0;   // notifications fully delivered so far
  std::uint64_t fDropped = 0;     // dropped since the queue last had room
  bool fStopping = false;

  // Guards the observer table and fCallingObserver (the id being called, 0 for none).
  // Never held while an observer runs; fObserverIdle is notified when a call ends.
  std::mutex fObserverMutex;
  std::condition_variable fObserverIdle;
  std::map<int, std::shared_ptr<Observer>> fObservers;
  int fNextObserverId = 1;
  int fCallingObserver = 0;

  std::thread fThread;  // started last in the constructor
};

}  // namespace detail
}  // namespace ZR
