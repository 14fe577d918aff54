// The words of a command line read option by option, "--name value" and "--name=value"
// alike. The caller says what an option without its value is an error of.
//
//   OptionWords words(args);
//   while (!words.done()) {
//     const std::string option = words.next();
//     if (option == "--port") port = words.value().value_or("");   // nullopt: none given
//   }
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tuqvu {
namespace broker {

class OptionWords {
public:
  explicit OptionWords(std::vector<std::string> words) : fWords(std::move(words)) {}

  bool done() const { return fNext >= fWords.size(); }
  // The next word; of "--name=value", the name (its value is then value()'s).
  std::string next();
  // The value of the option last read: what followed its "=", else the next word; nullopt
  // when the command line ends there.
  std::optional<std::string> value();
  // The words not read yet (the arguments after a command, say); reads them all.
  std::vector<std::string> rest();

private:
  std::vector<std::string> fWords;
  std::size_t fNext = 0;
  std::optional<std::string> fAttached;  // the "=value" of the option last read
};

}  // namespace broker
}  // namespace tuqvu
