#include "common/logcapture.h"

namespace tuqvutest {

LogCapture::LogCapture() : fPreviousMaxLevel(vu::log::maxLevel()) {
  vu::log::setMaxLevel(vu::log::debug);
  vu::log::setSink([this](const vu::log::Message& message) {
    std::lock_guard<std::mutex> lock(fMutex);
    fMessages.push_back(message);
  });
}

LogCapture::~LogCapture() {
  vu::log::setSink(vu::log::Sink());
  vu::log::setMaxLevel(fPreviousMaxLevel);
}

std::vector<vu::log::Message> LogCapture::messages() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fMessages;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(fMutex);
  fMessages.clear();
}

std::vector<vu::log::Message> LogCapture::find(const std::string& function,
                                               const std::string& fragment) const {
  std::vector<vu::log::Message> found;
  for (const vu::log::Message& message : messages()) {
    if (message.function == function && message.text.find(fragment) != std::string::npos) {
      found.push_back(message);
    }
  }
  return found;
}

std::vector<vu::log::Message> LogCapture::withText(const std::string& text) const {
  std::vector<vu::log::Message> found;
  for (const vu::log::Message& message : messages()) {
    if (message.text == text) found.push_back(message);
  }
  return found;
}

std::vector<std::string> LogCapture::texts(int level, const std::string& category) const {
  std::vector<std::string> found;
  for (const vu::log::Message& message : messages()) {
    if (message.level == level && message.category == category) found.push_back(message.text);
  }
  return found;
}

int LogCapture::count(const std::string& category, const std::string& fragment) const {
  int n = 0;
  for (const vu::log::Message& message : messages()) {
    if (message.category == category && message.text.find(fragment) != std::string::npos) ++n;
  }
  return n;
}

int LogCapture::count(int level, const std::string& category, const std::string& function,
                      const std::string& text) const {
  int n = 0;
  for (const vu::log::Message& message : messages()) {
    if (message.level == level && message.category == category && message.function == function &&
        message.text == text) {
      ++n;
    }
  }
  return n;
}

}  // namespace tuqvutest
