// Captures vu::log messages for the lifetime of the object (from every thread, the
// server's listener included) and restores the default sink afterwards.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <vu/log.h>

namespace zrft_test {

class LogCapture {
public:
  LogCapture();
  ~LogCapture();

  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<vu::log::Message> messages() const;
  // Messages of this function whose text contains `fragment`.
  std::vector<vu::log::Message> find(const std::string& function,
                                     const std::string& fragment) const;

private:
  mutable std::mutex fMutex;  // guards fMessages
  std::vector<vu::log::Message> fMessages;
  int fPreviousMaxLevel;
};

}  // namespace zrft_test
