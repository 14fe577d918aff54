// Fans memory events out to the clients of GET /events. The memory module's observer
// calls publish() on its notification thread, one event at a time in raise order; each
// subscriber queues the frame without blocking, so a slow client never slows it. One
// frame is made per event and shared by every subscriber, and the number of subscribers
// is capped (TUQVU_EVENTS_MAX_SUBSCRIBERS, default 64): what the hub can make the broker
// hold is bounded whatever clients do.
//
// Every event has an id, "<run>.<n>": <run> names this run of the broker, n counts its
// events from 1. The last kReplayEvents events (at most kReplayBytes of frames) are kept,
// so that a client that reconnects with the id of the last event it received gets what it
// missed; when that is no longer kept (or the id is of another run) it first gets an
// "event: lost" frame saying so, never a silent gap.
//
//   auto hub = std::make_shared<SseHub>(SseHub::maxSubscribersFromEnvironment());
//   auto token = hub->subscribe(client, {"BehaviorsRun"});   // no keys: every key
//   hub->publish("BehaviorsRun", value);
//   // client gets "id: 5f3a9c1e.1\ndata: {\"key\":...,\"value\":...}\n\n"
#pragma once

#include <zr/zrmetrics.h>
#include <zr/zrvalue.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
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
  static constexpr std::size_t kReplayEvents = 1000;
  // Below an event stream's queue (SseSession::kMaxQueuedBytes), so that a replay fits.
  static constexpr std::size_t kReplayBytes = std::size_t{512} << 10;
  enum class Refusal { None, Closed, Full };

  explicit SseHub(std::size_t maxSubscribers = kDefaultMaxSubscribers);
  // TUQVU_EVENTS_MAX_SUBSCRIBERS, or the default.
  static std::size_t maxSubscribersFromEnvironment();

  // Keys to receive; an empty list receives every key. 0 when refused: the hub is closed
  // or holds maxSubscribers() live subscribers already; `refusal` says which. With
  // `lastEventId` (a reconnecting client's Last-Event-ID), the kept events after it that
  // match the keys are delivered first, after an "event: lost" frame when some are gone.
  Token subscribe(std::weak_ptr<SseSubscriber> subscriber, const std::vector<std::string>& keys,
                  Refusal* refusal = nullptr,
                  const std::optional<std::string>& lastEventId = std::nullopt);
  void unsubscribe(Token token);

  void publish(const std::string& key, const ZR::ZRValue& value);

  // Closes every subscriber and refuses new ones (subscribe returns 0 then).
  void closeAll();

  std::size_t subscriberCount() const;

  // Keeps tuqvu_event_stream_subscribers (the streams open) and tuqvu_events_published_total
  // in `registry` from now on; call once, before the hub is used. The registry must
  // outlive the hub.
  void countIn(ZR::ZRMetrics& registry);
  std::size_t maxSubscribers() const { return fMaxSubscribers; }

  // "data: {"key":..,"value":..}\n\n": a frame without its id line.
  static std::string frame(const std::string& key, const ZR::ZRValue& value);
  // The id of this run's event number n.
  std::string eventId(std::uint64_t n) const { return fRun + "." + std::to_string(n); }

private:
  struct Entry {
    std::weak_ptr<SseSubscriber> subscriber;
    std::set<std::string> keys;  // empty: every key
  };
  struct Kept {
    std::uint64_t number;
    std::string key;
    std::shared_ptr<const std::string> frame;
  };
  // Sets the gauge of subscribers to the table's size; with fMutex held.
  void countSubscribers();
  // Delivers what a client that last received `lastEventId` missed; with fMutex held.
  void replay(SseSubscriber& subscriber, const std::set<std::string>& keys,
              const std::string& lastEventId);
  // Guards the subscriber table, fClosed, the event numbers, the kept events and the two
  // metric pointers (whose values are atomics of their own); held while frames are
  // delivered, which keeps every subscriber's frames in publish order.
  mutable std::mutex fMutex;
  const std::size_t fMaxSubscribers;
  std::map<Token, Entry> fEntries;
  Token fNext = 1;
  bool fClosed = false;
  const std::string fRun;         // fixed at construction
  std::uint64_t fLastNumber = 0;  // of the last event published
  std::deque<Kept> fKept;         // the last events, oldest first
  std::size_t fKeptBytes = 0;
  ZR::ZRGauge* fSubscribersGauge = nullptr;  // null: not counted
  ZR::ZRCounter* fPublished = nullptr;
};

}  // namespace broker
}  // namespace tuqvu
