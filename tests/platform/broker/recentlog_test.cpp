// What the broker keeps of its log for GET /log.
#include <gtest/gtest.h>
#include <tuqvu/broker/recentlog.h>

#include <nlohmann/json.hpp>
#include <string>

using tuqvu::broker::RecentLog;

namespace {

vu::log::Message message(int level, const std::string& text) {
  return {std::chrono::system_clock::now(), level, "behavior.manager", "installBehavior", text};
}

}  // namespace

TEST(RecentLog, KeepsWarningsAndErrorsButNotWhatIsOnlyInformation) {
  RecentLog log;
  log.add(message(vu::log::info, "loaded"));
  log.add(message(vu::log::warning, "deprecated"));
  log.add(message(vu::log::error, "refused"));
  log.add(message(vu::log::verbose, "detail"));
  const auto entries = log.after(0);
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("deprecated", entries[0].message.text);
  EXPECT_EQ(1u, entries[0].sequence);
  EXPECT_EQ("refused", entries[1].message.text);
  EXPECT_EQ(2u, entries[1].sequence);
  EXPECT_EQ(2u, log.last());
}

TEST(RecentLog, HoldsTheLatestCapacityEntriesEachCutToItsLimit) {
  RecentLog log;
  for (std::size_t i = 1; i <= RecentLog::kCapacity + 5; ++i) {
    log.add(message(vu::log::error, std::to_string(i)));
  }
  log.add(message(vu::log::error, std::string(RecentLog::kMaxTextBytes * 4, 'x')));
  const auto entries = log.after(0);
  ASSERT_EQ(RecentLog::kCapacity, entries.size());
  EXPECT_EQ(std::to_string(7), entries.front().message.text);  // the six oldest went
  EXPECT_EQ(RecentLog::kCapacity + 6, entries.back().sequence);
  EXPECT_LE(entries.back().message.text.size(), RecentLog::kMaxTextBytes + 3);  // and "…"
  EXPECT_EQ(RecentLog::kCapacity + 6, log.last());
}

TEST(RecentLog, ACutNeverSplitsACharacter) {
  RecentLog log;
  // Two-byte characters from an odd offset: a cut at the limit would fall inside one.
  log.add(message(
      vu::log::error, "x" + [] {
        std::string text;
        for (std::size_t i = 0; i < RecentLog::kMaxTextBytes; ++i) text += "é";
        return text;
      }()));
  const std::string kept = log.after(0).front().message.text;
  EXPECT_NO_THROW((void)nlohmann::json(kept).dump());  // valid UTF-8, or dump throws
}

TEST(RecentLog, AnswersOnlyTheEntriesAfterTheOneGivenAsJson) {
  RecentLog log;
  log.add(message(vu::log::error, "first"));
  log.add(message(vu::log::warning, "second"));
  const nlohmann::json answer = nlohmann::json::parse(tuqvu::broker::recentLogJson(log, 1));
  EXPECT_EQ(2, answer["last"]);
  ASSERT_EQ(1u, answer["entries"].size());
  const nlohmann::json& entry = answer["entries"][0];
  EXPECT_EQ(2, entry["sequence"]);
  EXPECT_EQ("second", entry["text"]);
  EXPECT_EQ(3, entry["level"]);
  EXPECT_EQ("behavior.manager", entry["category"]);
  EXPECT_EQ("installBehavior", entry["function"]);
  EXPECT_EQ(24u, entry["time"].get<std::string>().size());  // 2026-11-26T12:00:00.000Z
}
