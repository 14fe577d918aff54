#include <tuqvu/broker/jsonio.h>
#include <tuqvu/broker/ssehub.h>
#include <vu/settings.h>
#include <zr/zrvaluejson.h>

#include <charconv>
#include <cstdio>
#include <iterator>
#include <random>
#include <system_error>

namespace tuqvu {
namespace broker {

namespace {

// Tells one run of the broker from the next, whose event numbers start again at 1.
std::string newRunName() {
  std::random_device entropy;
  char text[16];
  std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(entropy()));
  return text;
}

// The number in an id "<run>.<n>" of run `run`; nullopt for another run or no id at all.
std::optional<std::uint64_t> numberIn(const std::string& id, const std::string& run) {
  if (id.size() <= run.size() + 1 || id.compare(0, run.size(), run) != 0 || id[run.size()] != '.') {
    return std::nullopt;
  }
  std::uint64_t number = 0;
  const char* begin = id.data() + run.size() + 1;
  const char* end = id.data() + id.size();
  const auto [stop, error] = std::from_chars(begin, end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

std::string lostFrame(const std::string& reason) {
  return "event: lost\ndata: {\"reason\":" + dumpJson(nlohmann::json(reason)) + "}\n\n";
}

}  // namespace

SseHub::SseHub(std::size_t maxSubscribers) : fMaxSubscribers(maxSubscribers), fRun(newRunName()) {}

std::size_t SseHub::maxSubscribersFromEnvironment() {
  return vu::settings::positiveNumber("TUQVU_EVENTS_MAX_SUBSCRIBERS", kDefaultMaxSubscribers,
                                      1u << 16);
}

SseHub::Token SseHub::subscribe(std::weak_ptr<SseSubscriber> subscriber,
                                const std::vector<std::string>& keys, Refusal* refusal,
                                const std::optional<std::string>& lastEventId) {
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
    countSubscribers();
    return 0;
  }
  const Token token = fNext++;
  Entry& entry = fEntries[token];
  entry = Entry{std::move(subscriber), std::set<std::string>(keys.begin(), keys.end())};
  countSubscribers();
  if (lastEventId) {
    if (std::shared_ptr<SseSubscriber> live = entry.subscriber.lock()) {
      replay(*live, entry.keys, *lastEventId);
    }
  }
  return token;
}

void SseHub::replay(SseSubscriber& subscriber, const std::set<std::string>& keys,
                    const std::string& lastEventId) {
  const std::optional<std::uint64_t> last = numberIn(lastEventId, fRun);
  if (!last || *last > fLastNumber) {
    subscriber.deliver(std::make_shared<const std::string>(
        lostFrame("the broker restarted since event " + lastEventId +
                  "; the events raised meanwhile are not known")));
    return;
  }
  const std::uint64_t oldestKept = fKept.empty() ? fLastNumber + 1 : fKept.front().number;
  if (*last + 1 < oldestKept) {
    subscriber.deliver(std::make_shared<const std::string>(lostFrame(
        std::to_string(oldestKept - *last - 1) + " events after " + lastEventId +
        " are no longer kept (the broker keeps the last " + std::to_string(kReplayEvents) + ")")));
  }
  for (const Kept& kept : fKept) {
    if (kept.number <= *last) continue;
    if (keys.empty() || keys.count(kept.key) != 0) subscriber.deliver(kept.frame);
  }
}

void SseHub::unsubscribe(Token token) {
  std::lock_guard<std::mutex> lock(fMutex);
  fEntries.erase(token);
  countSubscribers();
}

void SseHub::countIn(ZR::ZRMetrics& registry) {
  ZR::ZRGauge& subscribers =
      registry.gauge("tuqvu_event_stream_subscribers", "Event streams (GET /events) open now.");
  ZR::ZRCounter& published =
      registry.counter("tuqvu_events_published_total", "Memory events sent to the event streams.");
  std::lock_guard<std::mutex> lock(fMutex);
  fSubscribersGauge = &subscribers;
  fPublished = &published;
  countSubscribers();
}

void SseHub::countSubscribers() {
  if (fSubscribersGauge != nullptr) {
    fSubscribersGauge->set(static_cast<std::int64_t>(fEntries.size()));
  }
}

std::string SseHub::frame(const std::string& key, const ZR::ZRValue& value) {
  return "data: {\"key\":" + dumpJson(nlohmann::json(key)) + ",\"value\":" + ZR::toJson(value) +
         "}\n\n";
}

void SseHub::publish(const std::string& key, const ZR::ZRValue& value) {
  // Subscribers are kept alive here until the lock is released: the last reference to
  // one may go away with them, and its destructor unsubscribes.
  // The value is written out before the lock is taken: only the id needs it.
  const std::string data = frame(key, value);
  std::vector<std::shared_ptr<SseSubscriber>> reached;
  std::lock_guard<std::mutex> lock(fMutex);
  const std::uint64_t number = ++fLastNumber;
  if (fPublished != nullptr) fPublished->increment();
  const auto text = std::make_shared<const std::string>("id: " + eventId(number) + "\n" + data);
  fKept.push_back(Kept{number, key, text});
  fKeptBytes += text->size();
  while (fKept.size() > kReplayEvents || (fKeptBytes > kReplayBytes && fKept.size() > 1)) {
    fKeptBytes -= fKept.front().frame->size();
    fKept.pop_front();
  }
  for (auto entry = fEntries.begin(); entry != fEntries.end();) {
    std::shared_ptr<SseSubscriber> subscriber = entry->second.subscriber.lock();
    if (!subscriber) {
      entry = fEntries.erase(entry);
      continue;
    }
    if (entry->second.keys.empty() || entry->second.keys.count(key) != 0) {
      subscriber->deliver(text);
      reached.push_back(std::move(subscriber));
    }
    ++entry;
  }
  countSubscribers();
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
  countSubscribers();
}

std::size_t SseHub::subscriberCount() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::size_t live = 0;
  for (const auto& entry : fEntries) live += entry.second.subscriber.expired() ? 0 : 1;
  return live;
}

}  // namespace broker
}  // namespace tuqvu
