// Captures every log message (all levels, every thread) while it lives, then restores the
// default sink and level. One capture at a time: the log has one sink.
//
//   tuqvutest::LogCapture log;
//   ...
//   EXPECT_EQ(1u, log.find("httpPut", "Write file error").size());
#pragma once

#include <vu/log.h>

#include <mutex>
#include <string>
#include <vector>

namespace tuqvutest {

class LogCapture {
public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<vu::log::Message> messages() const;
  void clear();

  // Messages of this function whose text contains `fragment`.
  std::vector<vu::log::Message> find(const std::string& function,
                                     const std::string& fragment) const;
  // Messages with exactly this text.
  std::vector<vu::log::Message> withText(const std::string& text) const;
  // The texts of the messages of this level and category.
  std::vector<std::string> texts(int level, const std::string& category) const;
  // Messages of this category whose text contains `fragment`.
  int count(const std::string& category, const std::string& fragment) const;
  // Messages with exactly this level, category, function and text.
  int count(int level, const std::string& category, const std::string& function,
            const std::string& text) const;

private:
  mutable std::mutex fMutex;  // guards fMessages
  std::vector<vu::log::Message> fMessages;
  int fPreviousMaxLevel;
};

}  // namespace tuqvutest
