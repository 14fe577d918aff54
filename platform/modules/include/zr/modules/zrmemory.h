// ZRMemory — the middleware's shared memory: named data, events, and the notification
// of subscribers and observers when a value is inserted or an event raised.
//
//   ZRMemory* memory = new ZRMemory(broker);              // registers "ZRMemory"
//   memory->subscribeToMicroEvent("TUQvuReady", "ZRBehaviorManager", "", "_onDataChanged");
//   memory->raiseMicroEvent("TUQvuReady", 1);              // returns at once
//
// Delivery. raiseMicroEvent and insertData store the value and put one notification on
// a queue; the module's notification thread takes them off in the order they were
// queued and, for each, calls every observer (addObserver), then every subscriber of
// the key as broker->call(callbackModule, callbackMethod, [key, value, message]).
// No lock of the module is held while a subscriber or an observer runs. A subscriber
// that throws is logged; one that blocks delays later notifications (nothing is lost)
// but never blocks the raising caller. The queue holds at most kMaxPendingNotifications
// notifications and pendingLimitBytes() of their keys and values (counted like stored
// data; TUQVU_MEMORY_PENDING_MAX_BYTES, 64 MiB); beyond either the value is still stored
// but its notification is dropped and the drop is logged. Details: docs/modules.md.
//
// Limits. A value (with its key) may take at most valueLimitBytes() and all stored data
// together totalLimitBytes(); insertData, raiseMicroEvent and declareEvent refuse more
// with a ZRError that says which limit, and the value stored before stays. Of the total,
// systemReserveBytes() are kept for the system: calls that clients of the broker make
// directly (ZRBroker::callIsFromClient) may fill only the rest, so that the keys modules
// write ("BehaviorsRun", a behavior's own) still fit when clients have filled theirs.
// The limits come from the environment when the module is built:
// TUQVU_MEMORY_VALUE_MAX_BYTES (default 1 MiB), TUQVU_MEMORY_TOTAL_MAX_BYTES (default
// 64 MiB) and TUQVU_MEMORY_SYSTEM_RESERVE_BYTES (default 4 MiB). Sizes are what an entry
// holds in the process: its map node, its key, and every value with the heap blocks of
// its strings, binaries and arrays (about 100 bytes a value beside its content).
#pragma once

#include <zr/zrmodule.h>
#include <zr/zrvalue.h>

#include <boost/shared_ptr.hpp>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace ZR {

class ZRBroker;

namespace detail {
class MemoryNotifier;
struct MemorySubscription;
}  // namespace detail

class ZRMemory : public ZRModule {
public:
  using Observer = std::function<void(const std::string& key, const ZRValue& value)>;

  // Notifications waiting for the notification thread beyond which new ones are dropped.
  static constexpr std::size_t kMaxPendingNotifications = 100000;
  static constexpr std::size_t kDefaultValueLimitBytes = std::size_t{1} << 20;
  static constexpr std::size_t kDefaultTotalLimitBytes = std::size_t{64} << 20;
  static constexpr std::size_t kDefaultSystemReserveBytes = std::size_t{4} << 20;
  static constexpr std::size_t kDefaultPendingLimitBytes = std::size_t{64} << 20;

  explicit ZRMemory(boost::shared_ptr<ZRBroker> broker, const std::string& name = "ZRMemory");
  ~ZRMemory() override;

  // Data. getData throws ZRError for a key that holds nothing; removeData for one that
  // does not exist. Keys are any non-empty strings.
  void insertData(const std::string& key, const ZRValue& value);
  ZRValue getData(const std::string& key);
  std::vector<std::string> getDataList(const std::string& prefix);  // sorted
  void removeData(const std::string& key);

  // Events. A declared event is a key (holding an invalid value until it is first
  // raised) that getEventList lists. Raising stores the value like insertData.
  void declareEvent(const std::string& name);
  std::vector<std::string> getEventList();  // sorted
  void raiseMicroEvent(const std::string& name, const ZRValue& value);

  // One subscription per (key, callback module): subscribing again replaces it. The
  // callback must be a method of a hosted module taking three parameters.
  void subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                             const std::string& callbackMessage, const std::string& callbackMethod);
  void unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule);

  // In-process observers of every insertData and raiseMicroEvent, called on the
  // notification thread in raise order. An observer that throws is logged. After
  // removeObserver returns (from any thread) the observer is never called again; an
  // observer may remove itself or others while it runs.
  int addObserver(Observer observer);
  void removeObserver(int id);

  // Waits until every notification queued so far has been delivered; false on time-out.
  bool flushNotifications(int timeoutMs);

  std::size_t valueLimitBytes() const { return fValueLimitBytes; }
  std::size_t totalLimitBytes() const { return fTotalLimitBytes; }
  std::size_t systemReserveBytes() const { return fSystemReserveBytes; }
  std::size_t pendingLimitBytes() const { return fPendingLimitBytes; }
  // The size of all stored data as the total limit counts it.
  std::size_t storedBytes();
  // What the notifications not yet delivered hold, counted the same way.
  std::size_t pendingNotificationBytes();

private:
  void bindMethods();
  void storeAndNotify(const char* method, const std::string& key, const ZRValue& value);
  // Throws the limit's ZRError when `total` stored bytes are more than this call may fill.
  void admitTotal(const char* method, const std::string& key, std::size_t total) const;

  const std::size_t fValueLimitBytes;
  const std::size_t fTotalLimitBytes;
  const std::size_t fSystemReserveBytes;  // at most fTotalLimitBytes
  const std::size_t fPendingLimitBytes;

  // Guards fData, fStoredBytes, fEvents and fSubscriptions. Taken before the notifier's queue lock
  // (storeAndNotify queues under it, so queue order is store order); never held while
  // anything outside the module is called.
  std::mutex fDataMutex;
  std::map<std::string, ZRValue> fData;
  std::size_t fStoredBytes = 0;  // the size of fData's keys and values
  std::set<std::string> fEvents;
  std::map<std::string, std::vector<std::shared_ptr<detail::MemorySubscription>>> fSubscriptions;

  std::unique_ptr<detail::MemoryNotifier> fNotifier;
};

}  // namespace ZR
