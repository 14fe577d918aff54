// tuqvu-call --put: sending files through the broker's file API (PUT /files/...).
#include <tuqvu/broker/cliclient.h>
#include <tuqvu/broker/filelisting.h>

#include <boost/asio/ssl/error.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <vector>

#include "connection.h"
#include "rpcclient.h"

namespace tuqvu {
namespace broker {

namespace beast = boost::beast;
namespace net = boost::asio;
using cli::authorization;
using cli::Clock;
using cli::hostField;
using cli::secondsSince;

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// One PUT on a connection of its own. onSent is told every block written.
void putFile(const Url& server, const ServerTrust& trust, const UploadItem& item,
             const std::function<void(std::uint64_t)>& onSent) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(item.local.c_str(), "rb"));
  if (!file) throw ClientError(item.local + ": " + std::strerror(errno));
  net::io_context ioc;
  Stream stream = connectToServer(ioc, server, trust);
  const std::string credentials = authorization();
  const std::string head =
      "PUT " + server.basePath + "/files" + percentEncodePath(item.remote) +
      " HTTP/1.1\r\nHost: " + hostField(server) +
      (credentials.empty() ? "" : "\r\nAuthorization: " + credentials) +
      "\r\nConnection: close\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
      std::to_string(item.size) + "\r\n\r\n";
  beast::error_code error;
  net::write(stream, net::buffer(head), error);
  std::vector<char> block(64 * 1024);
  std::uint64_t left = item.size;
  while (!error && left > 0) {
    const std::size_t wanted = left < block.size() ? static_cast<std::size_t>(left) : block.size();
    const std::size_t got = std::fread(block.data(), 1, wanted, file.get());
    if (got == 0) {
      throw ClientError(item.local + ": " +
                        (std::ferror(file.get()) ? std::strerror(errno)
                                                 : "the file became shorter while it was sent"));
    }
    net::write(stream, net::buffer(block.data(), got), error);
    if (!error) {
      left -= got;
      onSent(got);
    }
  }
  const std::uint64_t written = item.size - left;
  const beast::error_code writeError = error;

  // A broker that refuses the request answers before the body and ends the connection:
  // its answer is read in any case.
  std::string bytes;
  FileReply reply;
  char chunk[4096];
  for (;;) {
    const std::size_t got = stream.read_some(net::buffer(chunk), error);
    const bool closed = error == net::error::eof || error == net::error::connection_reset ||
                        error == net::ssl::error::stream_truncated;
    if (error && !closed) throw beast::system_error(error);
    bytes.append(chunk, got);
    if (parseFileReply(bytes, closed, reply)) break;
    if (closed) {
      if (writeError) {
        throw ClientError("the broker ended the connection after " + std::to_string(written) +
                          " of " + std::to_string(item.size) + " bytes (" + writeError.message() +
                          "); its log may say why");
      }
      throw ClientError("the broker closed the connection without an answer");
    }
  }
  closeConnection(ioc, stream);
  if (reply.status != 201 && reply.status != 204) {
    std::string body = reply.body.substr(0, 200);
    while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) body.pop_back();
    throw ClientError("the broker answered " + std::to_string(reply.status) + " " + reply.reason +
                      (body.empty() ? "" : ": " + body));
  }
}

}  // namespace

int runPut(const Url& url, const ServerTrust& trust, const std::vector<UploadItem>& items,
           Feedback& feedback) {
  const Url& server = url;
  std::uint64_t total = 0;
  for (const UploadItem& item : items) total += item.size;

  const Clock::time_point start = Clock::now();
  Clock::time_point shown = start - std::chrono::seconds(1);
  std::uint64_t sent = 0;
  std::size_t done = 0;
  const auto progress = [&](std::uint64_t bytes) {
    sent += bytes;
    const Clock::time_point now = Clock::now();
    if (!feedback.live() || (now - shown < std::chrono::milliseconds(100) && sent < total)) return;
    shown = now;
    std::string text = formatTransfer(sent, total, secondsSince(start));
    if (items.size() > 1) {
      text = "[" + std::to_string(done + 1) + "/" + std::to_string(items.size()) + "] " + text;
    }
    feedback.show(text);
  };
  for (const UploadItem& item : items) {
    try {
      putFile(server, trust, item, progress);
    } catch (const UntrustedServer&) {
      feedback.clear();
      throw;  // its message stands on its own
    } catch (const std::exception& error) {
      feedback.clear();
      std::cerr << "tuqvu-call: " << item.remote << " on " << hostField(server) << ": "
                << error.what() << "\n";
      if (done > 0) {
        std::cerr << "tuqvu-call: " << done << " of " << items.size()
                  << " files were sent before this one\n";
      }
      return 1;
    }
    ++done;
    feedback.clear();  // the path gets a line of its own when both streams are the terminal
    std::cout << item.remote << std::endl;
  }
  const double seconds = secondsSince(start);
  char timing[64];
  std::snprintf(timing, sizeof timing, " in %.2f s", seconds);
  std::string summary = "tuqvu-call: sent " + formatBytes(total) + " in " +
                        std::to_string(items.size()) + (items.size() == 1 ? " file" : " files") +
                        " to " + hostField(server) + timing;
  if (seconds >= 0.1) {
    summary += " (" +
               formatBytes(static_cast<std::uint64_t>(static_cast<double>(total) / seconds)) +
               "/s)";
  }
  feedback.finish(summary);
  return 0;
}

}  // namespace broker
}  // namespace tuqvu
