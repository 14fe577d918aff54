// PUT: writes the request body to the mapped file, creating missing parent directories,
// and answers "ok". The body streams through the context's 64 KiB input buffer into a
// new unnamed file beside the target, which replaces the target only once the whole body
// is on disk (vu::beneath::Replacement): a client that stops, a crash or a full disk
// leave the old file as it was. Memory use does not depend on the file size. A body
// without a Content-Length gets 411, one above the size limit 413, a full disk 507;
// when the body cannot be received, no reply is sent.
#include <sys/stat.h>
#include <unistd.h>
#include <vu/beneath.h>
#include <vu/log.h>
#include <vu/replacement.h>
#include <vu/text.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "zrhttphandlers.h"
#include "zrhttpreply.h"
#include "zrrequestguard.h"
#include "zrwriteguard.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace {

void logError(const std::string& text) {
  vu::log::write(vu::log::warning, detail::kNetworkLog, "httpPut", "Write file error: " + text);
}

// `text` with its control characters written as \xHH, for a log line.
std::string printable(const std::string& text) {
  static const char* const kDigits = "0123456789abcdef";
  std::string result;
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      result += "\\x";
      result += kDigits[byte >> 4];
      result += kDigits[byte & 0xf];
    } else {
      result += c;
    }
  }
  return result;
}

void sendLengthRequired(soap* connection) {
  const std::string body = "411 - Length Required\n";
  detail::sendNow(connection, detail::statusLine(connection, "411 Length Required") +
                                  "Server: TuqVu\n"
                                  "Content-Type: text/plain\n"
                                  "Content-Length: " +
                                  std::to_string(body.size()) + "\n\n" + body);
}

enum class BodyOutcome { received, clientGone, writeFailed };

// Writes all of `data`; false with errno set when the file cannot take it.
bool writeAll(int file, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(file, data, size);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

// Writes the body: what already sits in the input buffer, then block by block from the
// socket. On writeFailed errno says why.
BodyOutcome receiveBody(soap* connection, int file) {
  ULONG64 remaining = connection->length;
  if (connection->bufidx < connection->buflen) {
    // Bytes beyond the body (a pipelined next request) stay in the buffer.
    const std::size_t buffered = connection->buflen - connection->bufidx;
    const std::size_t first = static_cast<std::size_t>(std::min<ULONG64>(buffered, remaining));
    if (!writeAll(file, connection->buf + connection->bufidx, first)) {
      return BodyOutcome::writeFailed;
    }
    detail::ConnectionGuard::bodyReceived(connection, first);
    connection->bufidx += first;
    remaining -= first;
  }
  while (remaining > 0) {
    std::memset(connection->buf, 0, sizeof(connection->buf));
    if (soap_recv_raw(connection) != SOAP_OK) {
      return BodyOutcome::clientGone;
    }
    const std::size_t count =
        static_cast<std::size_t>(std::min<ULONG64>(remaining, connection->buflen));
    if (!writeAll(file, connection->buf, count)) {
      return BodyOutcome::writeFailed;
    }
    detail::ConnectionGuard::bodyReceived(connection, count);
    connection->bufidx += count;
    remaining -= count;
  }
  return BodyOutcome::received;
}

bool diskIsFull(int error) {
  return error == ENOSPC || error == EDQUOT;
}

// 507 for a full disk, with the connection closed: the rest of the body stays unread.
void sendDiskFull(soap* connection) {
  detail::sendRefusal(connection, "507 Insufficient Storage",
                      "the robot's disk is full; the file was not changed");
  connection->keep_alive = 0;
}

// Refuses, with a 403 that says why, a request that would change what it must not.
bool refusedWrite(soap* connection, const fs::path& requestPath, const fs::path& root,
                  const std::vector<std::string>& components) {
  const std::string why = detail::writeRefusal(root, components, detail::WriteKind::Create, {});
  if (why.empty()) {
    return false;
  }
  detail::logRefusedPath("httpPut", requestPath, why);
  detail::sendRefusal(connection, "403 Forbidden", why);
  return true;
}

}  // namespace

int httpPut(soap* connection) {
  if (detail::refuseRequest(connection, detail::Access::Write)) {
    return 0;
  }
  const fs::path relative = detail::relativeRequestPath(connection, true);
  if (relative.empty()) {
    return -1;
  }
  // Such names break listings and logs; nothing is created with them.
  if (vu::text::holdsControlCharacter(relative.string())) {
    detail::logRefusedPath("httpPut", printable(relative.string()), "a control character");
    detail::sendRefusal(connection, "400 Bad Request",
                        "a name in the path holds a control character");
    return 0;
  }
  MappedPath mapped;
  if (!mapRequestPath(relative, &mapped)) {
    return -1;
  }
  if (!mapped.refusal.empty()) {
    detail::sendRefusal(connection, "403 Forbidden", mapped.refusal);
    return 0;
  }
  const std::vector<std::string> components = pathComponents(mapped.relative);
  if (components.empty()) {
    return refusedWrite(connection, relative, mapped.root, components) ? 0 : -1;
  }
  // A root that does not exist yet (a new application's data folder) is made first.
  boost::system::error_code error;
  if (!fs::exists(mapped.root, error)) {
    fs::create_directories(mapped.root, error);
    if (error) {
      logError(mapped.root.string() + ": " + error.message());
      return -1;
    }
  }
  if (refusedWrite(connection, relative, mapped.root, components)) {
    return 0;
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
  const detail::ServerLimits* limits = detail::ConnectionGuard::limitsOf(connection);
  const std::uint64_t limit =
      limits != nullptr ? limits->putMaxBytes : detail::ServerLimits::kDefaultPutMaxBytes;
  if (connection->length > limit) {
    detail::logRefusedPath("httpPut", relative,
                           std::to_string(connection->length) + " bytes, above the limit");
    detail::sendRefusal(connection, "413 Payload Too Large",
                        "the body has " + std::to_string(connection->length) +
                            " bytes; this robot takes at most " + std::to_string(limit) +
                            " (TUQVU_FILE_PUT_MAX_BYTES)");
    return 0;
  }

  // Every directory is opened beneath the root, never through a link, and the missing
  // ones are made there.
  vu::beneath::UniqueFd root(vu::beneath::openDirectory(mapped.root.string()));
  vu::beneath::UniqueFd parent;
  if (root) {
    const std::vector<std::string> parents(components.begin(), components.end() - 1);
    parent.reset(vu::beneath::makeDirectoriesBeneath(root.get(), parents));
  }
  if (!parent) {
    if (errno == ELOOP || errno == EXDEV) {
      detail::logRefusedPath("httpPut", relative, "a symbolic link on the way");
    } else {
      logError(relative.string() + ": " + std::strerror(errno));
    }
    return -1;
  }

  // Only regular files are replaced: not a directory, a FIFO, a link.
  const std::string& name = components.back();
  struct stat existing;
  const bool exists = ::fstatat(parent.get(), name.c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0;
  if (exists && !S_ISREG(existing.st_mode)) {
    logError(relative.string() + ": not a regular file");
    return -1;
  }
  vu::beneath::Replacement replacement(parent.get());
  if (!replacement.valid()) {
    logError(relative.string() + ": " + std::strerror(errno));
    if (diskIsFull(errno)) {
      sendDiskFull(connection);
      return 0;
    }
    return -1;
  }
  detail::ConnectionGuard::beginBody(connection, connection->length);
  const BodyOutcome outcome = receiveBody(connection, replacement.fd());
  if (outcome == BodyOutcome::clientGone) {
    return -1;
  }
  // The mode of the file it replaces is kept; a new file gets the usual one.
  const std::optional<mode_t> mode =
      exists ? std::optional<mode_t>(existing.st_mode & 07777) : std::nullopt;
  if (outcome == BodyOutcome::writeFailed || !replacement.commit(name, mode)) {
    logError(relative.string() + ": " + std::strerror(errno));
    if (diskIsFull(errno)) {
      sendDiskFull(connection);
      return 0;
    }
    return -1;
  }

  detail::sendOk(connection);
  return 0;
}

}  // namespace ZR
