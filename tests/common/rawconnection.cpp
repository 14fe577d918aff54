#include <arpa/inet.h>
#include <common/rawconnection.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace tuqvutest {
namespace {

using Clock = std::chrono::steady_clock;

int remainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

void parseHead(Reply& reply) {
  std::vector<std::string> lines = reply.headLines();
  if (lines.empty()) {
    return;
  }
  reply.statusLine = lines.front();
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) {
      reply.headers.emplace_back(line, "");
      continue;
    }
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(' '));
    reply.headers.emplace_back(line.substr(0, colon), value);
  }
}

}  // namespace

std::string Reply::header(const std::string& name) const {
  for (const auto& entry : headers) {
    if (entry.first == name) {
      return entry.second;
    }
  }
  return "";
}

std::vector<std::string> Reply::headerNames() const {
  std::vector<std::string> names;
  for (const auto& entry : headers) {
    names.push_back(entry.first);
  }
  return names;
}

std::vector<std::string> Reply::headLines() const {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < head.size()) {
    std::size_t end = head.find('\n', start);
    if (end == std::string::npos) {
      end = head.size();
    }
    std::string line = head.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    if (!line.empty()) {
      lines.push_back(line);
    }
    start = end + 1;
  }
  return lines;
}

RawConnection::RawConnection(int port) : RawConnection("127.0.0.1", port) {}

RawConnection::RawConnection(const std::string& ipv4, int port)
    : fSocket(::socket(AF_INET, SOCK_STREAM, 0)) {
  if (fSocket < 0) {
    throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
  }
  sockaddr_in address;
  std::memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (::inet_pton(AF_INET, ipv4.c_str(), &address.sin_addr) != 1) {
    ::close(fSocket);
    throw std::runtime_error("not an IPv4 address: " + ipv4);
  }
  if (::connect(fSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const std::string error = std::strerror(errno);
    ::close(fSocket);
    throw std::runtime_error("connect to port " + std::to_string(port) + ": " + error);
  }
}

RawConnection::~RawConnection() {
  close();
}

void RawConnection::send(const std::string& bytes) {
  send(bytes.data(), bytes.size());
}

void RawConnection::send(const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t sent = ::send(fSocket, data, size, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) {
        continue;
      }
      throw std::runtime_error(std::string("send: ") + std::strerror(errno));
    }
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
}

void RawConnection::shutdownWrite() {
  ::shutdown(fSocket, SHUT_WR);
}

void RawConnection::close() {
  if (fSocket >= 0) {
    ::close(fSocket);
    fSocket = -1;
  }
}

bool RawConnection::readable(milliseconds timeout) {
  if (!fPending.empty()) {
    return true;
  }
  pollfd entry{fSocket, POLLIN, 0};
  return ::poll(&entry, 1, static_cast<int>(timeout.count())) > 0;
}

bool RawConnection::fill(milliseconds timeout) {
  pollfd entry{fSocket, POLLIN, 0};
  if (::poll(&entry, 1, static_cast<int>(timeout.count())) <= 0) {
    return false;
  }
  char buffer[65536];
  const ssize_t count = ::recv(fSocket, buffer, sizeof(buffer), 0);
  if (count <= 0) {
    return false;
  }
  fPending.append(buffer, static_cast<std::size_t>(count));
  return true;
}

std::string RawConnection::readUntilClosed(milliseconds timeout, bool* closed) {
  bool ignored = false;
  if (closed == nullptr) closed = &ignored;
  std::string received;
  *closed = false;
  for (;;) {
    received += fPending;
    fPending.clear();
    pollfd entry{fSocket, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(timeout.count())) <= 0) {
      return received;
    }
    char buffer[65536];
    const ssize_t count = ::recv(fSocket, buffer, sizeof(buffer), 0);
    if (count <= 0) {
      *closed = true;
      return received;
    }
    received.append(buffer, static_cast<std::size_t>(count));
  }
}

Reply RawConnection::readHead(milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  Reply reply;
  for (;;) {
    std::size_t end = fPending.find("\n\n");
    std::size_t separator = 2;
    const std::size_t crlfEnd = fPending.find("\r\n\r\n");
    if (crlfEnd != std::string::npos && (end == std::string::npos || crlfEnd < end)) {
      end = crlfEnd;
      separator = 4;
    }
    if (end != std::string::npos) {
      reply.head = fPending.substr(0, end + 1);
      fPending.erase(0, end + separator);
      parseHead(reply);
      return reply;
    }
    if (!fill(milliseconds(remainingMs(deadline)))) {
      reply.head = fPending;  // what arrived of an incomplete head
      return reply;
    }
  }
}

Reply RawConnection::readReply(milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  Reply reply = readHead(timeout);
  if (reply.statusLine.empty()) {
    return reply;
  }
  const std::string lengthText = reply.header("Content-Length");
  const std::size_t length = lengthText.empty() ? 0 : std::stoull(lengthText);
  while (fPending.size() < length) {
    if (!fill(milliseconds(remainingMs(deadline)))) {
      reply.body = fPending;
      fPending.clear();
      return reply;
    }
  }
  reply.body = fPending.substr(0, length);
  fPending.erase(0, length);
  reply.complete = true;
  return reply;
}

std::size_t RawConnection::readSome(char* buffer, std::size_t size, milliseconds timeout) {
  if (fPending.empty() && !fill(timeout)) {
    return 0;
  }
  const std::size_t count = std::min(size, fPending.size());
  std::memcpy(buffer, fPending.data(), count);
  fPending.erase(0, count);
  return count;
}

Reply request(int port, const std::string& bytes, milliseconds timeout) {
  RawConnection connection(port);
  connection.send(bytes);
  return connection.readReply(timeout);
}

std::string requestUntilClosed(int port, const std::string& bytes, bool* closed,
                               milliseconds timeout) {
  RawConnection connection(port);
  connection.send(bytes);
  return connection.readUntilClosed(timeout, closed);
}

std::string RawConnection::readUntil(const std::string& text, milliseconds guard) {
  const Clock::time_point deadline = Clock::now() + guard;
  std::string received;
  for (;;) {
    received += fPending;
    fPending.clear();
    if (received.find(text) != std::string::npos) return received;
    const int left = remainingMs(deadline);
    if (left == 0 || !fill(milliseconds(left))) return received;
  }
}

}  // namespace tuqvutest
