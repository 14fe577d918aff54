#include "logcapture.h"

namespace zrft_test {

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

}  // namespace zrft_test
