// A plain TCP client for talking to a server byte by byte, so that tests see exactly
// what goes over the wire: header order, line ends, and the absence of a reply (the
// server closing without sending anything), and can send what no client library would.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace tuqvutest {

using std::chrono::milliseconds;

// One reply as read from the wire.
struct Reply {
  bool complete = false;  // a header block and all Content-Length body bytes arrived
  std::string head;       // status line and header lines, up to the empty line
  std::string statusLine;
  std::vector<std::pair<std::string, std::string>> headers;  // in wire order
  std::string body;

  // The value of the first header with this name, "" when absent.
  std::string header(const std::string& name) const;
  std::vector<std::string> headerNames() const;
  // Status line and headers as they were sent, each line without its end.
  std::vector<std::string> headLines() const;
};

class RawConnection {
public:
  // Connects to 127.0.0.1:port; throws std::runtime_error when that fails.
  explicit RawConnection(int port);
  // Connects to an IPv4 address of this machine, such as one beyond loopback.
  RawConnection(const std::string& address, int port);
  ~RawConnection();

  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void send(const std::string& bytes);
  void send(const char* data, std::size_t size);
  void shutdownWrite();
  void close();

  // True when bytes or the end of the stream can be read within `timeout`.
  bool readable(milliseconds timeout);

  // Reads until the peer closes or no byte arrives for `timeout`; `closed` tells which.
  std::string readUntilClosed(milliseconds timeout, bool* closed = nullptr);

  // Reads until `text` has arrived, the peer closes or `guard` has passed; returns all
  // that was read.
  std::string readUntil(const std::string& text, milliseconds guard = milliseconds(30000));

  int fd() const { return fSocket; }

  // Reads one reply; the header block ends at the first empty line ("\n\n", or "\r\n\r\n"
  // should the server use those), the body has Content-Length bytes (none when absent).
  Reply readReply(milliseconds timeout);

  // Reads the status line and headers only; the body is left for readBody.
  Reply readHead(milliseconds timeout);

  // Reads up to `size` bytes of what follows (buffered bytes first); 0 at the end of the
  // stream or after `timeout` without data.
  std::size_t readSome(char* buffer, std::size_t size, milliseconds timeout);

private:
  bool fill(milliseconds timeout);  // appends one read to fPending; false on end/timeout

  int fSocket;
  std::string fPending;  // bytes read but not yet handed out
};

// Sends one request on a new connection and reads its reply.
Reply request(int port, const std::string& bytes, milliseconds timeout = milliseconds(10000));

// Sends one request on a new connection and reads until the server closes; `closed`
// tells whether it did within the time-out. Used to check that nothing is sent back.
std::string requestUntilClosed(int port, const std::string& bytes, bool* closed,
                               milliseconds timeout = milliseconds(10000));

}  // namespace tuqvutest
