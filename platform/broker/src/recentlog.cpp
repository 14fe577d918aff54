#include <tuqvu/broker/jsonio.h>
#include <tuqvu/broker/recentlog.h>

#include <nlohmann/json.hpp>

namespace tuqvu {
namespace broker {

namespace {

// `text` cut to at most `limit` bytes, never inside a UTF-8 sequence.
std::string cut(const std::string& text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end) + "…";
}

}  // namespace

void RecentLog::add(const vu::log::Message& message) {
  if (message.level > vu::log::warning) return;
  Entry entry{0, message};
  entry.message.text = cut(message.text, kMaxTextBytes);
  entry.message.category = cut(message.category, 128);
  entry.message.function = cut(message.function, 128);
  std::lock_guard<std::mutex> lock(fMutex);
  entry.sequence = ++fLast;
  fEntries.push_back(std::move(entry));
  if (fEntries.size() > kCapacity) fEntries.pop_front();
}

std::vector<RecentLog::Entry> RecentLog::after(std::uint64_t sequence) const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<Entry> entries;
  for (const Entry& entry : fEntries) {
    if (entry.sequence > sequence) entries.push_back(entry);
  }
  return entries;
}

std::uint64_t RecentLog::last() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fLast;
}

std::string recentLogJson(const RecentLog& log, std::uint64_t sequence) {
  // Read before the entries: an entry added in between is in the list, and the client's
  // next read after `last` shows it once more rather than never.
  const std::uint64_t last = log.last();
  nlohmann::json entries = nlohmann::json::array();
  for (const RecentLog::Entry& entry : log.after(sequence)) {
    entries.push_back({{"sequence", entry.sequence},
                       {"time", vu::log::timestamp(entry.message.time)},
                       {"level", entry.message.level},
                       {"category", entry.message.category},
                       {"function", entry.message.function},
                       {"text", entry.message.text}});
  }
  return dumpJson({{"last", last}, {"entries", std::move(entries)}});
}

}  // namespace broker
}  // namespace tuqvu
