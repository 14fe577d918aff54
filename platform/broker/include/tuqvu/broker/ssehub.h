// Fans memory events out to the clients of GET /events. The memory module's observer
// calls publish() on its notification thread, one event at a time in raise order; each
// subscriber queues the frame without blocking, so a slow client never slows it. One
// frame is made per event and shared by every subscriber, and the number of subscribers
// is capped (TUQVU_EVENTS_MAX_SUBSCRIBERS, default 64): what the hub can make the broker
// hold is bounded whatever clients do.
//
//   auto hub = std::make_shared<SseHub>(SseHub::maxSubscribersFromEnvironment());
//   auto token = hub->subscribe(client, {"BehaviorsRun"});   // no keys: every key
//   hub->publish("BehaviorsRun", value);  // client gets "data: {\"key\":...,\"value\":...}\n\n"
#pragma once

#include <zr/zrvalue.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

class SseSubscriber {
public:
  virtual ~SseSubscriber() = default;
  // Queues one frame. Called with the hub's lock held, in publish order: must not block
  // and must not call back into the hub.
  virtual void deliver(const std::shared_ptr<const std::string>& frame) = 0;
  // The hub is closing: end the stream. Same rules as deliver.
  virtual void close() = 0;
};

class SseHub {
public:
  using Token = std::uint64_t;
  static constexpr std::size_t kDefaultMaxSubscribers = 64;
  enum class Refusal { None, Closed, Full };

  explicit SseHub(std::size_t maxSubscribers = kDefaultMaxSubscribers);
  // TUQVU_EVENTS_MAX_SUBSCRIBERS, or the default.
  static std::size_t maxSubscribersFromEnvironment();

  // Keys to receive; an empty list receives every key. 0 when refused: the hub is closed
  // or holds maxSubscribers() live subscribers already; `refusal` says which.
  Token subscribe(std::weak_ptr<SseSubscriber> subscriber, const std::vector<std::string>& keys,
                  Refusal* refusal = nullptr);
  void unsubscribe(Token token);

  void publish(const std::string& key, const ZR::ZRValue& value);

  // Closes every subscriber and refuses new ones (subscribe returns 0 then).
  void closeAll();

  std::size_t subscriberCount() const;
  std::size_t maxSubscribers() const { return fMaxSubscribers; }

  // "data: {"key":..,"value":..}\n\n"
  static std::string frame(const std::string& key, const ZR::ZRValue& value);

private:
  struct Entry {
    std::weak_ptr<SseSubscriber> subscriber;
    std::set<std::string> keys;  // empty: every key
  };
  // Guards the subscriber table and fClosed; held while frames are delivered, which
  // keeps every subscriber's frames in publish order.
  mutable std::mutex fMutex;
  const std::size_t fMaxSubscribers;
  std::map<Token, Entry> fEntries;
  Token fNext = 1;
  bool fClosed = false;
};

}  // namespace broker
}  // namespace tuqvu
