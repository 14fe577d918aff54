// tuqvu-call: what the user sees while it works: sizes, transfer progress, the waiting
// spinner, and the terminal line they are written on.
#include <tuqvu/broker/cliclient.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace tuqvu {
namespace broker {

std::string formatBytes(std::uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes) / 1024;
  int unit = 0;
  while (value >= 1024 && unit < 3) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit >= 2 ? "%.2f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string formatTransfer(std::uint64_t sent, std::uint64_t total, double seconds) {
  const unsigned percent =
      total == 0 ? 100u : static_cast<unsigned>((static_cast<long double>(sent) * 100) / total);
  std::string text =
      formatBytes(sent) + " / " + formatBytes(total) + "  " + std::to_string(percent) + "%";
  if (seconds >= 0.1) {
    text +=
        "  " + formatBytes(static_cast<std::uint64_t>(static_cast<double>(sent) / seconds)) + "/s";
  }
  return text;
}

std::string formatWaiting(const std::string& method, double seconds, unsigned frame) {
  static const char kSpinner[] = {'|', '/', '-', '\\'};
  char elapsed[32];
  std::snprintf(elapsed, sizeof elapsed, "%.1f s", seconds);
  return std::string(1, kSpinner[frame % 4]) + " waiting for " + method + "  " + elapsed;
}

Feedback Feedback::forStandardError(bool forced) {
  return Feedback(std::cerr, forced || ::isatty(STDERR_FILENO) == 1);
}

void Feedback::show(const std::string& text) {
  if (!fLive) return;
  fOut << '\r' << text;
  if (text.size() < fShown) fOut << std::string(fShown - text.size(), ' ');
  fShown = text.size();
  fOut.flush();
}

void Feedback::clear() {
  if (!fLive || fShown == 0) return;
  fOut << '\r' << std::string(fShown, ' ') << '\r';
  fShown = 0;
  fOut.flush();
}

void Feedback::finish(const std::string& text) {
  if (fLive) {
    show(text);
    fOut << '\n';
    fShown = 0;
  } else {
    fOut << text << '\n';
  }
  fOut.flush();
}

}  // namespace broker
}  // namespace tuqvu
