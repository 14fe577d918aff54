#include "memory/memorynotifier.h"

#include <vu/log.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>

#include <algorithm>
#include <chrono>

namespace ZR {
namespace detail {
namespace {

const char* const kCategory = "zr.memory";

}  // namespace

MemoryNotifier::MemoryNotifier(std::string moduleName, boost::shared_ptr<ZRBroker> broker,
                               std::size_t maxPending, std::size_t maxPendingBytes)
    : fModuleName(std::move(moduleName)),
      fBroker(std::move(broker)),
      fMaxPending(maxPending),
      fMaxPendingBytes(maxPendingBytes) {
  fThread = std::thread([this] { run(); });
}

MemoryNotifier::~MemoryNotifier() {
  std::size_t pending = 0;
  {
    std::lock_guard<std::mutex> lock(fQueueMutex);
    fStopping = true;
    pending = fQueue.size();
  }
  fQueueChanged.notify_all();
  fDeliveredChanged.notify_all();
  if (onNotificationThread()) {
    // Destroyed by one of its own callbacks: the thread cannot join itself.
    vu::log::write(vu::log::error, kCategory, "~ZRMemory",
                   fModuleName + " was destroyed from its own notification thread");
    fThread.detach();
  } else if (fThread.joinable()) {
    fThread.join();
  }
  if (pending > 0) {
    vu::log::write(vu::log::verbose, kCategory, "~ZRMemory",
                   std::to_string(pending) + " notifications were not delivered at shutdown");
  }
}

MemoryNotifier::PushResult MemoryNotifier::push(MemoryNotification notification) {
  {
    std::lock_guard<std::mutex> lock(fQueueMutex);
    if (fStopping) return PushResult::dropped;
    const bool bytesFull =
        fPendingBytes > 0 &&
        notification.bytes > fMaxPendingBytes - std::min(fPendingBytes, fMaxPendingBytes);
    if (fQueue.size() >= fMaxPending || bytesFull) {
      return ++fDropped == 1 ? PushResult::firstDrop : PushResult::dropped;
    }
    fPendingBytes += notification.bytes;
    fQueue.push_back(std::move(notification));
    ++fQueued;
  }
  fQueueChanged.notify_one();
  return PushResult::queued;
}

std::size_t MemoryNotifier::pendingBytes() {
  std::lock_guard<std::mutex> lock(fQueueMutex);
  return fPendingBytes;
}

int MemoryNotifier::addObserver(Observer observer) {
  if (!observer) {
    throw ZRError(fModuleName, "addObserver", "the observer is empty", __FILE__, __LINE__);
  }
  std::lock_guard<std::mutex> lock(fObserverMutex);
  const int id = fNextObserverId++;
  fObservers.emplace(id, std::make_shared<Observer>(std::move(observer)));
  return id;
}

void MemoryNotifier::removeObserver(int id) {
  std::unique_lock<std::mutex> lock(fObserverMutex);
  fObservers.erase(id);
  // Wait for a call in progress to end, unless it is the caller itself.
  if (!onNotificationThread()) {
    fObserverIdle.wait(lock, [&] { return fCallingObserver != id; });
  }
}

bool MemoryNotifier::flush(int timeoutMs) {
  if (onNotificationThread()) return false;  // it would wait for itself
  std::unique_lock<std::mutex> lock(fQueueMutex);
  const std::uint64_t target = fQueued;
  return fDeliveredChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
    return fStopping || fDelivered >= target;
  }) && !fStopping;
}

void MemoryNotifier::run() {
  for (;;) {
    std::deque<MemoryNotification> batch;
    std::uint64_t dropped = 0;
    {
      std::unique_lock<std::mutex> lock(fQueueMutex);
      fQueueChanged.wait(lock, [&] { return fStopping || !fQueue.empty(); });
      if (fStopping) return;
      batch.swap(fQueue);
      dropped = fDropped;
      fDropped = 0;
    }
    if (dropped > 0) {
      vu::log::write(vu::log::error, kCategory, "raiseMicroEvent",
                     std::to_string(dropped) + " notifications were dropped: more than " +
                         std::to_string(fMaxPending) + " or more than " +
                         std::to_string(fMaxPendingBytes) + " bytes were waiting for delivery");
    }
    for (MemoryNotification& notification : batch) {
      deliver(notification);
      // Its copy of the value goes now, not with the whole batch: a delivered
      // notification holds no memory.
      const std::size_t bytes = notification.bytes;
      notification = MemoryNotification();
      std::lock_guard<std::mutex> lock(fQueueMutex);
      fPendingBytes -= std::min(fPendingBytes, bytes);
      if (fStopping) return;
      ++fDelivered;
      fDeliveredChanged.notify_all();
    }
  }
}

void MemoryNotifier::deliver(const MemoryNotification& notification) {
  notifyObservers(notification);
  notifySubscribers(notification);
}

void MemoryNotifier::notifyObservers(const MemoryNotification& notification) {
  std::vector<std::pair<int, std::shared_ptr<Observer>>> observers;
  {
    std::lock_guard<std::mutex> lock(fObserverMutex);
    if (fObservers.empty()) return;
    observers.assign(fObservers.begin(), fObservers.end());
  }
  for (const auto& entry : observers) {
    {
      std::lock_guard<std::mutex> lock(fObserverMutex);
      if (fObservers.count(entry.first) == 0) continue;  // removed meanwhile
      fCallingObserver = entry.first;
    }
    try {
      (*entry.second)(notification.key, notification.value);
    } catch (const std::exception& error) {
      vu::log::write(vu::log::error, kCategory, "notify",
                     "observer " + std::to_string(entry.first) + " failed for " + notification.key +
                         ": " + error.what());
    } catch (...) {
      vu::log::write(vu::log::error, kCategory, "notify",
                     "observer " + std::to_string(entry.first) + " failed for " + notification.key +
                         " with an unknown exception");
    }
    {
      std::lock_guard<std::mutex> lock(fObserverMutex);
      fCallingObserver = 0;
    }
    fObserverIdle.notify_all();
  }
}

void MemoryNotifier::notifySubscribers(const MemoryNotification& notification) {
  for (const auto& subscriber : notification.subscribers) {
    if (!subscriber->active.load()) continue;
    ZRValue args = ZRValue::array();
    args.arrayPush(notification.key);
    args.arrayPush(notification.value);
    args.arrayPush(subscriber->message);
    const std::string target = subscriber->module + "." + subscriber->method;
    const auto start = std::chrono::steady_clock::now();
    try {
      fBroker->call(subscriber->module, subscriber->method, args);
    } catch (const ZRError& error) {
      vu::log::write(
          vu::log::error, kCategory, "notify",
          "subscriber " + target + " failed for " + notification.key + ": " + error.description());
    } catch (const std::exception& error) {
      vu::log::write(
          vu::log::error, kCategory, "notify",
          "subscriber " + target + " failed for " + notification.key + ": " + error.what());
    } catch (...) {
      vu::log::write(vu::log::error, kCategory, "notify",
                     "subscriber " + target + " failed for " + notification.key +
                         " with an unknown exception");
    }
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - start)
                          .count();
    if (took > kSlowSubscriberMs) {
      vu::log::write(vu::log::warning, kCategory, "notify",
                     "subscriber " + target + " took " + std::to_string(took) + " ms for " +
                         notification.key + "; later notifications waited for it");
    }
  }
}

}  // namespace detail
}  // namespace ZR
