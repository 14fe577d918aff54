#include <tuqvu/broker/jsonio.h>
#include <tuqvu/broker/ssehub.h>
#include <vu/settings.h>
#include <zr/zrvaluejson.h>

#include <iterator>

namespace tuqvu {
namespace broker {

SseHub::SseHub(std::size_t maxSubscribers) : fMaxSubscribers(maxSubscribers) {}

std::size_t SseHub::maxSubscribersFromEnvironment() {
  return vu::settings::positiveNumber("TUQVU_EVENTS_MAX_SUBSCRIBERS", kDefaultMaxSubscribers,
                                      1u << 16);
}

SseHub::Token SseHub::subscribe(std::weak_ptr<SseSubscriber> subscriber,
                                const std::vector<std::string>& keys, Refusal* refusal) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (refusal != nullptr) *refusal = Refusal::None;
  if (fClosed) {
    if (refusal != nullptr) *refusal = Refusal::Closed;
    return 0;
  }
  // Subscribers that went without unsubscribing leave their places now.
  for (auto entry = fEntries.begin(); entry != fEntries.end();) {
    entry = entry->second.subscriber.expired() ? fEntries.erase(entry) : std::next(entry);
  }
  if (fEntries.size() >= fMaxSubscribers) {
    if (refusal != nullptr) *refusal = Refusal::Full;
    return 0;
  }
  const Token token = fNext++;
  fEntries[token] = Entry{std::move(subscriber), std::set<std::string>(keys.begin(), keys.end())};
  return token;
}

void SseHub::unsubscribe(Token token) {
  std::lock_guard<std::mutex> lock(fMutex);
  fEntries.erase(token);
}

std::string SseHub::frame(const std::string& key, const ZR::ZRValue& value) {
  return "data: {\"key\":" + dumpJson(nlohmann::json(key)) + ",\"value\":" + ZR::toJson(value) +
         "}\n\n";
}

void SseHub::publish(const std::string& key, const ZR::ZRValue& value) {
  // Subscribers are kept alive here until the lock is released: the last reference to
  // one may go away with them, and its destructor unsubscribes.
  std::vector<std::shared_ptr<SseSubscriber>> reached;
  std::lock_guard<std::mutex> lock(fMutex);
  std::shared_ptr<const std::string> text;
  for (auto entry = fEntries.begin(); entry != fEntries.end();) {
    std::shared_ptr<SseSubscriber> subscriber = entry->second.subscriber.lock();
    if (!subscriber) {
      entry = fEntries.erase(entry);
      continue;
    }
    if (entry->second.keys.empty() || entry->second.keys.count(key) != 0) {
      if (!text) text = std::make_shared<const std::string>(frame(key, value));
      subscriber->deliver(text);
      reached.push_back(std::move(subscriber));
    }
    ++entry;
  }
}

void SseHub::closeAll() {
  std::vector<std::shared_ptr<SseSubscriber>> reached;
  std::lock_guard<std::mutex> lock(fMutex);
  fClosed = true;
  for (auto& entry : fEntries) {
    if (auto subscriber = entry.second.subscriber.lock()) {
      subscriber->close();
      reached.push_back(std::move(subscriber));
    }
  }
  fEntries.clear();
}

std::size_t SseHub::subscriberCount() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::size_t live = 0;
  for (const auto& entry : fEntries) live += entry.second.subscriber.expired() ? 0 : 1;
  return live;
}

}  // namespace broker
}  // namespace tuqvu
