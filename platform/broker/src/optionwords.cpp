#include <tuqvu/broker/optionwords.h>

namespace tuqvu {
namespace broker {

std::string OptionWords::next() {
  std::string word = fWords[fNext++];
  fAttached.reset();
  const std::size_t equals = word.find('=');
  if (word.rfind("--", 0) == 0 && equals != std::string::npos) {
    fAttached = word.substr(equals + 1);
    word.erase(equals);
  }
  return word;
}

std::optional<std::string> OptionWords::value() {
  if (fAttached) return std::exchange(fAttached, std::nullopt);
  if (done()) return std::nullopt;
  return fWords[fNext++];
}

std::vector<std::string> OptionWords::rest() {
  std::vector<std::string> words(fWords.begin() + static_cast<std::ptrdiff_t>(fNext), fWords.end());
  fNext = fWords.size();
  return words;
}

}  // namespace broker
}  // namespace tuqvu
