// The broker's latest warnings and errors, kept for those who cannot read its stderr: GET
// /log hands them out, and the dashboard shows the one that says why an install was
// refused. What it holds is bounded (kCapacity messages of at most kMaxTextBytes each),
// whatever the modules write.
//
//   auto recent = std::make_shared<RecentLog>();
//   vu::log::setSink([recent](const vu::log::Message& m) { recent->add(m); });
//   for (const RecentLog::Entry& entry : recent->after(0)) ...
#pragma once

#include <vu/log.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

class RecentLog {
public:
  static constexpr std::size_t kCapacity = 200;
  static constexpr std::size_t kMaxTextBytes = 2048;

  struct Entry {
    std::uint64_t sequence;  // counts the messages kept, from 1
    vu::log::Message message;
  };

  // Keeps `message` when it is a warning or worse, its text cut to kMaxTextBytes; the
  // oldest entry goes when kCapacity are kept. Called from the log's sink: never logs.
  void add(const vu::log::Message& message);

  // The kept entries whose sequence is above `sequence`, oldest first.
  std::vector<Entry> after(std::uint64_t sequence) const;
  // The sequence of the latest message kept; 0 before the first.
  std::uint64_t last() const;

private:
  mutable std::mutex fMutex;  // guards fEntries and fLast
  std::deque<Entry> fEntries;
  std::uint64_t fLast = 0;
};

// The answer of GET /log: {"last": N, "entries": [{"sequence", "time" (UTC, ISO 8601 with
// milliseconds), "level", "category", "function", "text"}, ...]}, the entries after
// `sequence`.
std::string recentLogJson(const RecentLog& log, std::uint64_t sequence);

}  // namespace broker
}  // namespace tuqvu
