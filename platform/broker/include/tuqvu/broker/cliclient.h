// The network side of tuqvu-call: one JSON-RPC call, the event stream, uploads through
// the broker's file API, each on connections made by connectToServer. Each returns the
// exit status of the command and prints what the user sees; failures to reach or to trust
// a server are thrown.
//
//   Feedback feedback = Feedback::forStandardError(command.progress);
//   const ServerTrust trust = serverTrustOf(command);
//   return runCall(parseUrl(command.url), trust, command.method, command.words, feedback);
#pragma once

#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/servertrust.h>
#include <tuqvu/broker/stream.h>

#include <boost/asio/io_context.hpp>
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

// A connection to the server of `url` for requests, made with `ioc` (which is run while
// it is made). For https:// the TLS handshake (TLS 1.2 or later, the host name sent when
// it is a name) is followed by the verification of the server (decideTrust): the known-
// robots file is read, and written or the user asked when the verdict says so. Nothing is
// sent before it returns. Throws UntrustedServer when the server is refused, ClientError
// when the handshake fails or the known-robots file cannot be used, and
// boost::system::system_error when the server cannot be reached.
Stream connectToServer(boost::asio::io_context& ioc, const Url& url, const ServerTrust& trust);

// Ends a connection: an encrypted one says so to the server (waiting a second at most for
// its answer), then the TCP connection is shut down. Errors are ignored.
void closeConnection(boost::asio::io_context& ioc, Stream& stream);

// `tuqvu-call --fingerprint`: prints the fingerprint of the certificate file (the broker's
// own) on standard output (0), or why it cannot on standard error (1).
int runShowFingerprint(const std::string& certificateFile);

// Calls Module.method; prints the result on standard output or the error on standard
// error. After a second without an answer the feedback line shows a spinner with the
// time waited.
int runCall(const Url& url, const ServerTrust& trust, const std::string& method,
            const std::vector<std::string>& args, Feedback& feedback);

// Prints the memory events of the keys (all keys when empty), one JSON object per line,
// until the stream ends.
int runWatch(const Url& url, const ServerTrust& trust, const std::vector<std::string>& keys);

// Sends the files (made by planUpload) with PUT to the broker's file API, one connection
// each, stopping at the first failure. Prints each remote path confirmed on standard
// output, progress on the feedback line and a summary line at the end.
int runPut(const Url& url, const ServerTrust& trust, const std::vector<UploadItem>& items,
           Feedback& feedback);

}  // namespace broker
}  // namespace tuqvu
