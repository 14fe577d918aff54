// The network side of tuqvu-call: one JSON-RPC call, the event stream, uploads to the
// behavior manager's file-transfer service. Each returns the exit status of the command
// and prints what the user sees; failures to reach a server are thrown.
//
//   Feedback feedback = Feedback::forStandardError(command.progress);
//   return runCall(parseUrl(command.url), command.method, command.words, feedback);
#pragma once

#include <tuqvu/broker/cli.h>

#include <chrono>
#include <iosfwd>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

// The line on standard error that progress and the waiting spinner rewrite in place
// ("\r" and blanks over the previous text). Disabled, it prints nothing but final lines.
class Feedback {
public:
  Feedback(std::ostream& out, bool live) : fOut(out), fLive(live) {}
  // Live when the stream is a terminal (isatty) or when forced (--progress).
  static Feedback forStandardError(bool forced);

  bool live() const { return fLive; }
  // Replaces the current line (live only).
  void show(const std::string& text);
  // Erases the current line (live only).
  void clear();
  // Replaces the current line, or writes a line when not live, and ends it.
  void finish(const std::string& text);

private:
  std::ostream& fOut;
  bool fLive;
  std::size_t fShown = 0;  // width of the text on the current line
};

// Calls Module.method; prints the result on standard output or the error on standard
// error. After a second without an answer the feedback line shows a spinner with the
// time waited.
int runCall(const Url& url, const std::string& method, const std::vector<std::string>& args,
            Feedback& feedback);

// Prints the memory events of the keys (all keys when empty), one JSON object per line,
// until the stream ends.
int runWatch(const Url& url, const std::vector<std::string>& keys);

// Asks the broker for the file-transfer port, then sends the files (made by planUpload)
// with PUT, one connection each, stopping at the first failure. Prints each remote path
// confirmed with "ok" on standard output, progress on the feedback line and a summary
// line at the end.
int runPut(const Url& url, const std::vector<UploadItem>& items, Feedback& feedback);

}  // namespace broker
}  // namespace tuqvu
