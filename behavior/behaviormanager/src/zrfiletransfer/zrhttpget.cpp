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
#include <sys/stat.h>
#include <unistd.h>
#include <vu/beneath.h>
#include <vu/log.h>
#include <vu/text.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "zrhttphandlers.h"
#include "zrhttpreply.h"
#include "zrrequestguard.h"
#include "zrwriteguard.h"

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

// One line per entry, "/" after directories. A name holding a line feed or another
// control character would not fit on one line: such names are left out (and logged), as
// no request could name them anyway.
void sendListing(soap* connection, int directory, const fs::path& requestPath) {
  std::vector<vu::beneath::DirectoryEntry> entries;
  if (!vu::beneath::listDirectory(directory, &entries)) {
    logError(requestPath.string() + ": " + std::strerror(errno));
  }
  std::string listing;
  std::size_t skipped = 0;
  for (const vu::beneath::DirectoryEntry& entry : entries) {
    if (vu::text::holdsControlCharacter(entry.name)) {
      ++skipped;
      continue;
    }
    listing += entry.name;
    if (entry.isDirectory) {
      listing += "/";
    }
    listing += "\n";
  }
  if (skipped > 0) {
    vu::log::write(vu::log::warning, detail::kNetworkLog, "httpGetFile",
                   "Not listed in " + requestPath.string() + ": " + std::to_string(skipped) +
                       " name(s) holding control characters");
  }
  const std::string reply = detail::statusLine(connection, "200 OK") +
                            "Server: TuqVu\n"
                            "Tuqvu-File-Type: directory\n"
                            "Content-Type: text/plain\n"
                            "Content-Length: " +
                            std::to_string(listing.size()) + "\n\n" + listing;
  detail::sendNow(connection, reply);
}

void sendFile(soap* connection, int file, off_t size, const std::string& extension) {
  const std::string head = detail::statusLine(connection, "200 OK") +
                           "Server: TuqVu\n"
                           "Tuqvu-File-Type: regular-file\n"
                           "Content-Length: " +
                           std::to_string(size) +
                           "\n"
                           "Content-Type: " +
                           contentTypeFor(extension) +
                           "\n"
                           "Connection: keep-alive\n\n";
  off_t remaining = size;
  detail::ConnectionGuard::beginSending(connection, static_cast<std::uint64_t>(size));
  if (detail::sendNow(connection, head) == SOAP_OK) {
    std::vector<char> block(kBlockSize);
    // Never more than the announced length, even if the file grows meanwhile; a client
    // that takes it below the minimum rate is cut.
    while (remaining > 0 && !detail::ConnectionGuard::sendingTooSlow(connection)) {
      const std::size_t wanted = std::min<std::size_t>(kBlockSize, remaining);
      const ssize_t read = ::read(file, block.data(), wanted);
      if (read < 0 && errno == EINTR) {
        continue;
      }
      if (read <= 0 ||
          soap_send_raw(connection, block.data(), static_cast<std::size_t>(read)) != SOAP_OK) {
        break;
      }
      remaining -= read;
    }
  }
  if (remaining > 0) {
    // The body is shorter than announced: the client can only tell by the close.
    connection->keep_alive = 0;
  }
}

}  // namespace

bool httpGetFile(soap* connection) {
  if (detail::refuseRequest(connection, detail::Access::Read)) {
    return true;
  }
  const fs::path relative = detail::relativeRequestPath(connection, false);
  if (relative.empty()) {
    return false;
  }
  MappedPath mapped;
  if (!mapRequestPath(relative, &mapped)) {
    return false;
  }
  if (!mapped.refusal.empty()) {
    detail::sendRefusal(connection, "403 Forbidden", mapped.refusal);
    return true;
  }
  const std::vector<std::string> components = pathComponents(mapped.relative);
  // "dir/" names a directory: a file of that name is not found.
  const bool directoryOnly = !mapped.relative.empty() && mapped.relative.filename() == ".";

  // Opened beneath the root, never through a link. O_NONBLOCK: opening a FIFO must not
  // wait for a writer (it is answered 404 below).
  vu::beneath::UniqueFd target;
  vu::beneath::UniqueFd root(vu::beneath::openDirectory(mapped.root.string()));
  if (root) {
    target.reset(vu::beneath::openBeneath(
        root.get(), detail::joinComponents(components),
        O_RDONLY | O_NONBLOCK | O_NOCTTY | (directoryOnly ? O_DIRECTORY : 0)));
  }
  if (!target) {
    const int error = errno;
    if (error == ELOOP || error == EXDEV) {
      detail::logRefusedPath("httpGetFile", relative, "a symbolic link on the way");
      return false;
    }
    if (error != ENOENT && error != ENOTDIR) {
      logError(relative.string() + ": " + std::strerror(error));
    }
    sendNotFound(connection);
  } else {
    struct stat status;
    if (::fstat(target.get(), &status) != 0) {
      logError(relative.string() + ": " + std::strerror(errno));
      sendNotFound(connection);
    } else if (S_ISDIR(status.st_mode)) {
      sendListing(connection, target.get(), relative);
    } else if (S_ISREG(status.st_mode)) {
      const std::string name = components.empty() ? std::string() : components.back();
      sendFile(connection, target.get(), status.st_size, fs::path(name).extension().string());
    } else {
      // A FIFO, socket or device has no length to announce.
      sendNotFound(connection);
    }
  }
  soap_end_send(connection);
  return true;
}

int httpGet(soap* connection) {
  return httpGetFile(connection) ? 0 : -1;
}

}  // namespace ZR
