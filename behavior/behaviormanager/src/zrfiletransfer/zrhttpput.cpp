// PUT: writes the request body to the mapped file, creating missing parent directories,
// and answers "ok". The body streams through the context's 64 KiB input buffer, so
// memory use does not depend on the file size. A body without a Content-Length gets 411.
// When the body cannot be received or written completely, no reply is sent: the client
// never sees "ok" for a file that is not all on disk.
#include <zrfiletransfer/zrhttphandlers.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <boost/filesystem/operations.hpp>

#include <vu/log.h>
#include <vu/os.h>

#include "zrhttpreply.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace {

void logError(const std::string& text) {
  vu::log::write(vu::log::warning, detail::kNetworkLog, "httpPut", "Write file error: " + text);
}

// Creates the parent directories of `target` when they are missing; false when that fails.
bool prepareParent(const fs::path& target) {
  const fs::path parent = target.parent_path();
  bool missing = false;
  try {
    const fs::file_type type = fs::status(parent).type();
    missing = type == fs::file_not_found || type == fs::status_error;
  } catch (const fs::filesystem_error& e) {
    logError(e.what());
  }
  if (missing) {
    try {
      fs::create_directories(parent);
    } catch (const fs::filesystem_error& e) {
      logError(e.what());
      return false;
    }
  }
  return true;
}

void sendLengthRequired(soap* connection) {
  const std::string body = "411 - Length Required\n";
  detail::sendNow(connection, detail::statusLine(connection, "411 Length Required") +
                                  "Server: TuqVu\n"
                                  "Content-Type: text/plain\n"
                                  "Content-Length: " +
                                  std::to_string(body.size()) + "\n\n" + body);
}

bool writeAll(std::FILE* stream, const char* data, std::size_t size, const fs::path& target) {
  if (size == 0 || std::fwrite(data, 1, size, stream) == size) {
    return true;
  }
  logError(target.string() + ": " + std::strerror(errno));
  return false;
}

// Writes the body: what already sits in the input buffer, then block by block from the
// socket. False when the client went away or the file could not be written.
bool receiveBody(soap* connection, std::FILE* stream, const fs::path& target) {
  ULONG64 remaining = connection->length;
  if (connection->bufidx < connection->buflen) {
    // Bytes beyond the body (a pipelined next request) stay in the buffer.
    const std::size_t buffered = connection->buflen - connection->bufidx;
    const std::size_t first = static_cast<std::size_t>(std::min<ULONG64>(buffered, remaining));
    if (!writeAll(stream, connection->buf + connection->bufidx, first, target)) {
      return false;
    }
    connection->bufidx += first;
    remaining -= first;
  }
  while (remaining > 0) {
    std::memset(connection->buf, 0, sizeof(connection->buf));
    if (soap_recv_raw(connection) != SOAP_OK) {
      return false;
    }
    const std::size_t count =
        static_cast<std::size_t>(std::min<ULONG64>(remaining, connection->buflen));
    if (!writeAll(stream, connection->buf, count, target)) {
      return false;
    }
    connection->bufidx += count;
    remaining -= count;
  }
  return true;
}

}  // namespace

int httpPut(soap* connection) {
  if (detail::refusedWithoutSecret(connection)) {
    return 0;
  }
  const fs::path relative = detail::relativeRequestPath(connection, true);
  if (relative.empty()) {
    return -1;
  }
  const fs::path target = translateHttp(relative);
  if (target.empty()) {
    return -1;
  }
  if (!prepareParent(target)) {
    return -1;
  }

  // A body without a length: unread bytes in the buffer, or chunked framing whose data
  // may not have arrived yet. The body stays unread, so the connection ends after the
  // reply.
  const bool chunked = (connection->mode & SOAP_IO) == SOAP_IO_CHUNK;
  if (connection->length == 0 && (connection->bufidx < connection->buflen || chunked)) {
    sendLengthRequired(connection);
    connection->keep_alive = 0;
    return 0;
  }

  // Only regular files are written: opening a FIFO would block the listener.
  boost::system::error_code error;
  const fs::file_status existing = fs::status(target, error);
  if (fs::exists(existing) && !fs::is_regular_file(existing)) {
    logError(target.string() + ": not a regular file");
    return -1;
  }
  std::FILE* stream = vu::os::fopen(target.string().c_str(), "wb");
  if (stream == nullptr) {
    logError(target.string() + ": " + std::strerror(errno));
    return -1;
  }
  const bool received = receiveBody(connection, stream, target);
  const bool closed = std::fclose(stream) == 0;
  if (!received) {
    return -1;
  }
  if (!closed) {
    logError(target.string() + ": " + std::strerror(errno));
    return -1;
  }

  detail::sendNow(connection, detail::statusLine(connection, "200 OK") +
                                  "Server: TuqVu\n"
                                  "Content-Length: 3\n"
                                  "Content-Type: text/plain\n"
                                  "Connection: keep-alive\n"
                                  "\n"
                                  "ok\n");
  return 0;
}

}  // namespace ZR
