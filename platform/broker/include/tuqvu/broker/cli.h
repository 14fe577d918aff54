// Pieces of the tuqvu-call command line client that do not touch the network: the
// command line, URLs, requests and answers, upload plans and progress texts. The
// network side is in cliclient.h.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

struct Url {
  bool secure = false;  // https: TLS, and the server's certificate verified
  std::string host;
  std::string port;
  std::string basePath;  // "" or "/prefix", never ending in '/'
};

// A command line that cannot be understood; what() says why (exit status 2).
class UsageError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// "http://HOST[:PORT][/PATH]" (the scheme may be left out; the port defaults to 80) or
// "https://HOST[:PORT][/PATH]" (the port defaults to 443). Throws UsageError saying what
// is wrong.
Url parseUrl(const std::string& text);

// A command-line argument: a JSON literal when it reads as one, else the text as a string.
nlohmann::json parseCliArgument(const std::string& text);

// The JSON-RPC request for Module.method with the arguments.
std::string buildCallRequest(const std::string& method, const std::vector<std::string>& args);

// "/events?key=K1&key=K2" with the keys percent-encoded.
std::string eventsTarget(const std::string& basePath, const std::vector<std::string>& keys);

std::string percentEncode(const std::string& text);

// What tuqvu-call prints for an answer and the exit status: the result as JSON (0), or
// the error's description (1). Throws ClientError for an answer that is no JSON-RPC
// response.
struct CallAnswer {
  int exitStatus;
  std::string text;
};
CallAnswer interpretAnswer(const std::string& body);

std::string cliHelpText();

// The command line of tuqvu-call.
struct CliCommand {
  enum Kind { Call, Watch, Put, Help, ShowFingerprint };
  Kind kind = Call;
  std::string url = "http://127.0.0.1:9600";
  bool progress = false;           // --progress: show progress even when stderr is no terminal
  std::string fingerprint;         // --fingerprint FP, canonical: the certificate to insist on
  bool trustNew = false;           // --trust-new: record a robot met first without asking
  std::string method;              // Call: "Module.method"
  std::vector<std::string> words;  // Call: the arguments; Watch: the keys; Put: LOCAL, REMOTE
};

// A failure of the client's work itself: a local file it cannot send, an answer that
// is no HTTP or JSON-RPC, a broker without the service asked for (exit status 1).
class ClientError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// Options come before the method; everything after Module.method is an argument of
// the call, taken as it is (so "-5" or "--x" can be passed). "--fingerprint" with no
// fingerprint after it and nothing else is ShowFingerprint.
CliCommand parseCommandLine(const std::vector<std::string>& args);

// One file of an upload: the local file, the request path on the file-transfer
// service, and its size.
struct UploadItem {
  std::string local;
  std::string remote;
  std::uint64_t size = 0;
};

// Checks a request path for the file-transfer service: absolute, no "..", nothing a
// request line cannot carry (blanks, control characters, '?', '#', '%'). Throws
// UsageError saying what is wrong.
void checkRemotePath(const std::string& remote);

// What `--put LOCAL REMOTE` sends. A REMOTE ending in '/' gets the local name appended.
// A file goes to REMOTE; a directory's files go under REMOTE with their paths relative
// to it, in name order (symbolic links followed; empty directories cannot be sent).
// Throws UsageError for a bad REMOTE, ClientError for a missing or unreadable
// LOCAL, a special file, or a directory without files.
std::vector<UploadItem> planUpload(const std::string& local, const std::string& remote);

// The answer of the file-transfer service to one request. Its lines may end in "\n"
// (as that server writes them) or "\r\n".
struct FileReply {
  int status = 0;
  std::string reason;
  std::string body;
};
// Parses what has arrived; true when the answer is complete. With no Content-Length
// the body lasts until the connection ends (pass closed = true then). Throws
// ClientError for bytes that are no HTTP answer.
bool parseFileReply(const std::string& bytes, bool closed, FileReply& reply);

// "0 B", "999 B", "1.0 KiB", "12.5 MiB", "3.00 GiB".
std::string formatBytes(std::uint64_t bytes);
// "3.1 MiB / 12.0 MiB  25%  4.2 MiB/s" (no rate in the first tenth of a second).
std::string formatTransfer(std::uint64_t sent, std::uint64_t total, double seconds);
// "| waiting for ZRBehaviorManager.runBehavior  3.2 s", the spinner turning with frame.
std::string formatWaiting(const std::string& method, double seconds, unsigned frame);

}  // namespace broker
}  // namespace tuqvu
