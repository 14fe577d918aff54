#include <vu/log.h>
#include <vu/settings.h>
#include <zr/modules/zrmemory.h>
#include <zr/zrbinding.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>

#include <algorithm>

#include "memory/memorynotifier.h"
#include "memory/memorysize.h"

namespace ZR {
namespace {

const char* const kCategory = "zr.memory";

}  // namespace

ZRMemory::ZRMemory(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRModule(broker, name),
      fValueLimitBytes(
          vu::settings::positiveNumber("TUQVU_MEMORY_VALUE_MAX_BYTES", kDefaultValueLimitBytes)),
      fTotalLimitBytes(
          vu::settings::positiveNumber("TUQVU_MEMORY_TOTAL_MAX_BYTES", kDefaultTotalLimitBytes)),
      fSystemReserveBytes(
          std::min(fTotalLimitBytes, vu::settings::wholeNumber("TUQVU_MEMORY_SYSTEM_RESERVE_BYTES",
                                                               kDefaultSystemReserveBytes, 0))),
      fPendingLimitBytes(vu::settings::positiveNumber("TUQVU_MEMORY_PENDING_MAX_BYTES",
                                                      kDefaultPendingLimitBytes)),
      fNotifier(
          new detail::MemoryNotifier(name, broker, kMaxPendingNotifications, fPendingLimitBytes)) {
  setModuleDescription(
      "Shared memory of the middleware: named data, events, and notification of the "
      "modules that subscribed to a key.");
  bindMethods();
}

ZRMemory::~ZRMemory() {
  // Withdraw from the broker first so no new call reaches a half-destroyed module.
  if (getParentBroker()) getParentBroker()->unregisterModule(this);
  fNotifier.reset();
}

void ZRMemory::bindMethods() {
  bindMember(this, &ZRMemory::insertData,
             {"insertData",
              "Store a value under a key, replacing the previous one, and notify the "
              "subscribers of the key.",
              {{"key", "name of the data"}, {"value", "the value to store"}}});
  bindMember(this, &ZRMemory::getData,
             {"getData",
              "Get the value stored under a key. A key that holds nothing is an error.",
              {{"key", "name of the data"}},
              "value",
              "the stored value"});
  bindMember(this, &ZRMemory::getDataList,
             {"getDataList",
              "List the keys that begin with a prefix, sorted.",
              {{"prefix", "the beginning of the keys to list; empty lists every key"}},
              "keys",
              "the matching keys"});
  bindMember(this, &ZRMemory::removeData,
             {"removeData",
              "Remove a key, its value and its event declaration. Subscriptions stay.",
              {{"key", "name of the data"}}});
  bindMember(this, &ZRMemory::declareEvent,
             {"declareEvent",
              "Declare an event: the key exists from now on and getEventList lists it.",
              {{"name", "name of the event"}}});
  bindMember(
      this, &ZRMemory::getEventList,
      {"getEventList", "List the declared events, sorted.", {}, "events", "the declared events"});
  bindMember(this, &ZRMemory::raiseMicroEvent,
             {"raiseMicroEvent",
              "Store a value under an event's key and notify its subscribers. Returns at "
              "once; the notifications run on the module's notification thread.",
              {{"name", "name of the event"}, {"value", "the value of the event"}}});
  bindMember(this, &ZRMemory::subscribeToMicroEvent,
             {"subscribeToMicroEvent",
              "Call callbackModule.callbackMethod(name, value, callbackMessage) whenever "
              "the key is raised or inserted. Subscribing again replaces the previous "
              "subscription of that module.",
              {{"name", "name of the event or data"},
               {"callbackModule", "module to call"},
               {"callbackMessage", "text passed back as the third argument"},
               {"callbackMethod", "method to call; it takes three parameters"}}});
  bindMember(
      this, &ZRMemory::unsubscribeToMicroEvent,
      {"unsubscribeToMicroEvent",
       "Stop notifying a module of a key. Notifications already queued for it are "
       "not delivered.",
       {{"name", "name of the event or data"}, {"callbackModule", "the subscribed module"}}});
}

namespace {

void requireKey(const std::string& module, const char* method, const std::string& key) {
  if (key.empty()) {
    throw ZRError(module, method, "the key is empty", __FILE__, __LINE__);
  }
}

}  // namespace

void ZRMemory::admitTotal(const char* method, const std::string& key, std::size_t total) const {
  if (total <= fTotalLimitBytes - fSystemReserveBytes) {
    return;
  }
  // Calls that modules make (the behavior manager's "BehaviorsRun", a behavior's own
  // keys) may use the reserve; a client's may not, so a client that fills the memory
  // leaves the system working.
  if (!ZRBroker::callIsFromClient()) {
    if (total <= fTotalLimitBytes) return;
    throw ZRError(getName(), method,
                  "storing " + key + " would make the memory hold " + std::to_string(total) +
                      " bytes; it holds at most " + std::to_string(fTotalLimitBytes) +
                      " (TUQVU_MEMORY_TOTAL_MAX_BYTES)",
                  __FILE__, __LINE__);
  }
  throw ZRError(getName(), method,
                "storing " + key + " would make the memory hold " + std::to_string(total) +
                    " bytes; clients may fill it up to " +
                    std::to_string(fTotalLimitBytes - fSystemReserveBytes) + " of its " +
                    std::to_string(fTotalLimitBytes) +
                    ", the rest is kept for the system (TUQVU_MEMORY_TOTAL_MAX_BYTES, "
                    "TUQVU_MEMORY_SYSTEM_RESERVE_BYTES)",
                __FILE__, __LINE__);
}

void ZRMemory::storeAndNotify(const char* method, const std::string& key, const ZRValue& value) {
  requireKey(getName(), method, key);
  const std::size_t size = detail::heldBytes(key, value);
  if (size > fValueLimitBytes) {
    throw ZRError(getName(), method,
                  "the value of " + key + " takes " + std::to_string(size) +
                      " bytes; a value may take at most " + std::to_string(fValueLimitBytes) +
                      " (TUQVU_MEMORY_VALUE_MAX_BYTES)",
                  __FILE__, __LINE__);
  }
  // A copy made here, outside the lock, holds buffers exactly as large as its content,
  // which is what the size above counts.
  ZRValue stored(value);
  detail::MemoryNotifier::PushResult pushed;
  {
    std::lock_guard<std::mutex> lock(fDataMutex);
    const auto existing = fData.find(key);
    const std::size_t replaced =
        existing == fData.end() ? 0 : detail::heldBytes(key, existing->second);
    const std::size_t total = fStoredBytes - replaced + size;
    admitTotal(method, key, total);
    if (existing == fData.end()) {
      fData.emplace(key, std::move(stored));
    } else {
      existing->second = std::move(stored);
    }
    fStoredBytes = total;
    detail::MemoryNotification notification{key, value, {}, size};
    const auto found = fSubscriptions.find(key);
    if (found != fSubscriptions.end()) notification.subscribers = found->second;
    pushed = fNotifier->push(std::move(notification));
  }
  if (pushed == detail::MemoryNotifier::PushResult::firstDrop) {
    vu::log::write(vu::log::error, kCategory, method,
                   "the notification of " + key +
                       " was dropped: the notifications waiting "
                       "for delivery are at their limit (" +
                       std::to_string(kMaxPendingNotifications) + " notifications, " +
                       std::to_string(fPendingLimitBytes) +
                       " bytes: TUQVU_MEMORY_PENDING_MAX_BYTES)");
  }
}

std::size_t ZRMemory::pendingNotificationBytes() {
  return fNotifier->pendingBytes();
}

void ZRMemory::insertData(const std::string& key, const ZRValue& value) {
  storeAndNotify("insertData", key, value);
}

void ZRMemory::raiseMicroEvent(const std::string& name, const ZRValue& value) {
  storeAndNotify("raiseMicroEvent", name, value);
}

std::size_t ZRMemory::storedBytes() {
  std::lock_guard<std::mutex> lock(fDataMutex);
  return fStoredBytes;
}

ZRValue ZRMemory::getData(const std::string& key) {
  std::lock_guard<std::mutex> lock(fDataMutex);
  const auto found = fData.find(key);
  if (found == fData.end()) {
    throw ZRError(getName(), "getData", "there is no data named \"" + key + "\"", __FILE__,
                  __LINE__);
  }
  return found->second;
}

std::vector<std::string> ZRMemory::getDataList(const std::string& prefix) {
  std::vector<std::string> keys;
  std::lock_guard<std::mutex> lock(fDataMutex);
  for (auto it = fData.lower_bound(prefix); it != fData.end(); ++it) {
    if (it->first.compare(0, prefix.size(), prefix) != 0) break;
    keys.push_back(it->first);
  }
  return keys;
}

void ZRMemory::removeData(const std::string& key) {
  std::lock_guard<std::mutex> lock(fDataMutex);
  const auto found = fData.find(key);
  if (found == fData.end()) {
    throw ZRError(getName(), "removeData", "there is no data named \"" + key + "\"", __FILE__,
                  __LINE__);
  }
  fStoredBytes -= detail::heldBytes(key, found->second);
  fData.erase(found);
  fEvents.erase(key);
}

void ZRMemory::declareEvent(const std::string& name) {
  requireKey(getName(), "declareEvent", name);
  std::lock_guard<std::mutex> lock(fDataMutex);
  if (fData.find(name) == fData.end()) {  // a value already stored is kept
    const std::size_t total = fStoredBytes + detail::heldBytes(name, ZRValue());
    admitTotal("declareEvent", name, total);
    fData.emplace(name, ZRValue());
    fStoredBytes = total;
  }
  fEvents.insert(name);
}

std::vector<std::string> ZRMemory::getEventList() {
  std::lock_guard<std::mutex> lock(fDataMutex);
  return std::vector<std::string>(fEvents.begin(), fEvents.end());
}

void ZRMemory::subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                                     const std::string& callbackMessage,
                                     const std::string& callbackMethod) {
  requireKey(getName(), "subscribeToMicroEvent", name);
  const boost::shared_ptr<ZRBroker> broker = getParentBroker();
  if (!broker || !broker->hasModule(callbackModule)) {
    throw ZRError(
        getName(), "subscribeToMicroEvent",
        "cannot subscribe " + callbackModule + " to " + name + ": no module of that name is hosted",
        __FILE__, __LINE__);
  }
  bool takesThree = false;
  for (const ZRMethodInfo& info : broker->getMethods(callbackModule)) {
    if (info.name == callbackMethod && info.arity() == 3) takesThree = true;
  }
  if (!takesThree) {
    throw ZRError(getName(), "subscribeToMicroEvent",
                  "cannot subscribe " + callbackModule + " to " + name + ": it has no method " +
                      callbackMethod + " taking three parameters (name, value, message)",
                  __FILE__, __LINE__);
  }
  auto subscription =
      std::make_shared<detail::MemorySubscription>(callbackModule, callbackMessage, callbackMethod);
  std::lock_guard<std::mutex> lock(fDataMutex);
  auto& list = fSubscriptions[name];
  for (auto& existing : list) {
    if (existing->module == callbackModule) {
      existing->active = false;
      existing = subscription;
      return;
    }
  }
  list.push_back(subscription);
}

void ZRMemory::unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule) {
  std::lock_guard<std::mutex> lock(fDataMutex);
  const auto found = fSubscriptions.find(name);
  if (found != fSubscriptions.end()) {
    auto& list = found->second;
    for (auto it = list.begin(); it != list.end(); ++it) {
      if ((*it)->module != callbackModule) continue;
      (*it)->active = false;
      list.erase(it);
      if (list.empty()) fSubscriptions.erase(found);
      return;
    }
  }
  throw ZRError(getName(), "unsubscribeToMicroEvent",
                callbackModule + " is not subscribed to " + name, __FILE__, __LINE__);
}

int ZRMemory::addObserver(Observer observer) {
  return fNotifier->addObserver(std::move(observer));
}

void ZRMemory::removeObserver(int id) {
  fNotifier->removeObserver(id);
}

bool ZRMemory::flushNotifications(int timeoutMs) {
  return fNotifier->flush(timeoutMs);
}

}  // namespace ZR
