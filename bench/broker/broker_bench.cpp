// An HTTP/1.1 load client for the broker benchmark, over plain TCP or TLS. It sends one
// fixed request and measures:
//   latency     one keep-alive connection, requests one after the other: p50, p99 of the
//               round trip
//   throughput  N keep-alive connections driven by one poll() loop: requests per second
//   handshakes  N clients driven by one poll() loop, each opening a new TLS connection per
//               request (connect, full handshake, the request, its answer, close_notify,
//               close): requests per second
// The same client measures tuqvu and nginx, so the two figures compare like with like.
// It connects to 127.0.0.1, or to the IPv4 address in BENCH_ADDRESS.
//
//   broker_bench latency        PORT METHOD TARGET [BODY] [REQUESTS]
//   broker_bench throughput     PORT METHOD TARGET [BODY] [CONNECTIONS] [SECONDS]
//   broker_bench tls-latency    PORT METHOD TARGET [BODY] [REQUESTS]
//   broker_bench tls-throughput PORT METHOD TARGET [BODY] [CONNECTIONS] [SECONDS]
//   broker_bench handshakes     PORT METHOD TARGET [BODY] [CLIENTS] [SECONDS]
//
// TLS, as a client that pins the server's certificate does it: TLS 1.2 or 1.3 with
// OpenSSL's default ciphers and groups, no chain building or name check (the certificate
// is self-signed), but after the handshake the fingerprint of the certificate presented
// (the SHA-256 of its public key, tlsfingerprint.h) must be BENCH_PIN. The handshake itself checks
// the server's signature with the certificate's key, as always. Sessions are never resumed:
// every handshake is a full one.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <tuqvu/broker/tlsfingerprint.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int connectTo(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  const char* host = std::getenv("BENCH_ADDRESS");
  if (::inet_pton(AF_INET, host != nullptr ? host : "127.0.0.1", &address.sin_addr) != 1) {
    throw std::runtime_error("BENCH_ADDRESS is not an IPv4 address");
  }
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
  }
  const int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

void setNonBlocking(int fd) {
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

std::runtime_error tlsError(const std::string& what) {
  char text[256] = "";
  ERR_error_string_n(ERR_get_error(), text, sizeof text);
  return std::runtime_error(what + ": " + text);
}

// The client side of TLS: one context, and the fingerprint every server must present.
struct Tls {
  SSL_CTX* context = nullptr;
  std::string pin;  // canonical, as tuqvu-call keeps it

  Tls() {
    context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);  // pinned below instead
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    const char* given = std::getenv("BENCH_PIN");
    const auto parsed = tuqvu::broker::parseFingerprint(given != nullptr ? given : "");
    if (!parsed) throw std::runtime_error("BENCH_PIN is not a SHA-256 fingerprint");
    pin = *parsed;
  }

  void checkPin(SSL* ssl) const {
    if (tuqvu::broker::fingerprintOfPeer(ssl) != pin) {
      throw std::runtime_error("the server's certificate is not the pinned one");
    }
  }
};

// BENCH_HEADER, when set, is one more header line (the broker's Authorization); every
// server gets it, so that requests are alike.
std::string buildRequest(const std::string& method, const std::string& target,
                         const std::string& body) {
  std::string request = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  if (const char* header = std::getenv("BENCH_HEADER"); header != nullptr && *header != '\0') {
    request += std::string(header) + "\r\n";
  }
  if (!body.empty()) {
    request +=
        "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
  }
  return request + "\r\n" + body;
}

// One connection, plain or TLS, and its parser: complete when the head and Content-Length
// bytes are in.
struct Connection {
  int fd = -1;
  SSL* ssl = nullptr;  // null on plain connections
  std::string in;
  Clock::time_point sent;

  // Opens the TCP connection; with `tls`, starts the client side of TLS on it, to be
  // driven by handshake().
  void open(int port, const Tls* tls) {
    fd = connectTo(port);
    if (tls == nullptr) return;
    ssl = SSL_new(tls->context);
    SSL_set_fd(ssl, fd);
    SSL_set_connect_state(ssl);
  }

  // Advances the TLS handshake: true once done (and the certificate the pinned one), else
  // the poll() events it waits for are in `events`.
  bool handshake(const Tls& tls, short& events) {
    const int result = SSL_do_handshake(ssl);
    if (result == 1) {
      tls.checkPin(ssl);
      return true;
    }
    switch (SSL_get_error(ssl, result)) {
      case SSL_ERROR_WANT_READ: events = POLLIN; return false;
      case SSL_ERROR_WANT_WRITE: events = POLLOUT; return false;
      default: throw tlsError("TLS handshake");
    }
  }

  // A blocking handshake, for the keep-alive modes.
  void openAndHandshake(int port, const Tls* tls) {
    open(port, tls);
    short ignored = 0;
    if (ssl != nullptr && !handshake(*tls, ignored)) throw tlsError("TLS handshake");
  }

  void close() {
    if (ssl != nullptr) {
      SSL_shutdown(ssl);  // sends close_notify, does not wait for the server's
      SSL_free(ssl);
      ssl = nullptr;
    }
    ::close(fd);
    fd = -1;
    in.clear();
  }

  // Consumes one complete response from `in`; false when it is not complete yet.
  bool takeResponse() {
    const std::size_t headEnd = in.find("\r\n\r\n");
    if (headEnd == std::string::npos) return false;
    if (in.compare(0, 12, "HTTP/1.1 200") != 0) {
      throw std::runtime_error("unexpected answer: " + in.substr(0, in.find("\r\n")));
    }
    std::size_t length = 0;
    const std::size_t field = in.find("ontent-Length: ");
    if (field != std::string::npos && field < headEnd) {
      length = std::strtoul(in.c_str() + field + 15, nullptr, 10);
    }
    if (in.size() < headEnd + 4 + length) return false;
    in.erase(0, headEnd + 4 + length);
    return true;
  }

  // The request is small: one write takes it whole, even on a non-blocking socket.
  void send(const std::string& request) {
    if (ssl != nullptr) {
      if (SSL_write(ssl, request.data(), static_cast<int>(request.size())) <= 0) {
        throw tlsError("SSL_write");
      }
    } else {
      std::size_t done = 0;
      while (done < request.size()) {
        const ssize_t n = ::send(fd, request.data() + done, request.size() - done, MSG_NOSIGNAL);
        if (n <= 0) throw std::runtime_error("send failed");
        done += static_cast<std::size_t>(n);
      }
    }
    sent = Clock::now();
  }

  // Reads what has come: on a non-blocking TLS connection possibly nothing (a record not
  // whole yet, or only session tickets).
  void readSome() {
    char buffer[16384];
    if (ssl == nullptr) {
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) throw std::runtime_error("the server closed the connection");
      in.append(buffer, static_cast<std::size_t>(n));
      return;
    }
    do {
      const int n = SSL_read(ssl, buffer, sizeof buffer);
      if (n <= 0) {
        if (SSL_get_error(ssl, n) == SSL_ERROR_WANT_READ) return;
        throw tlsError("the server closed the connection");
      }
      in.append(buffer, static_cast<std::size_t>(n));
    } while (SSL_pending(ssl) > 0);
  }

  std::string describeTls() const {
    if (ssl == nullptr) return "";
    const char* group = SSL_group_to_name(ssl, SSL_get_negotiated_group(ssl));
    return std::string(" tls=") + SSL_get_version(ssl) + " cipher=" + SSL_get_cipher_name(ssl) +
           " group=" + (group != nullptr ? group : "?");
  }
};

double percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  const std::size_t index =
      std::min(values.size() - 1, static_cast<std::size_t>(p * values.size()));
  return values[index];
}

int latency(int port, const Tls* tls, const std::string& request, int requests) {
  Connection connection;
  connection.openAndHandshake(port, tls);
  std::vector<double> micros;
  micros.reserve(requests);
  for (int i = 0; i < requests + requests / 10; ++i) {  // the first tenth warms up
    connection.send(request);
    while (!connection.takeResponse()) connection.readSome();
    const double us =
        std::chrono::duration<double, std::micro>(Clock::now() - connection.sent).count();
    if (i >= requests / 10) micros.push_back(us);
  }
  const std::string described = connection.describeTls();
  connection.close();
  std::printf("latency requests=%d p50_us=%.1f p99_us=%.1f max_us=%.1f%s\n", requests,
              percentile(micros, 0.50), percentile(micros, 0.99), percentile(micros, 1.0),
              described.c_str());
  return 0;
}

// The poll() loop of the throughput and handshake modes: a warm-up of a tenth of `seconds`,
// then `seconds`, then the figures. start(i) sends connection i's first request (or opens
// it); step(i, sending) handles what poll() found on it and returns the requests it
// completed; once `sending` is false, it sets polls[i].fd to -1 when i is done.
template <class Start, class Step>
void drive(const char* mode, int connections, double seconds, std::vector<pollfd>& polls,
           const std::string& suffix, Start start, Step step) {
  const auto run = [&](double duration, long& completed) {
    completed = 0;
    for (int i = 0; i < connections; ++i) start(i);
    const auto end = Clock::now() + std::chrono::duration<double>(duration);
    int outstanding = connections;
    bool sending = true;
    while (outstanding > 0) {
      if (::poll(polls.data(), polls.size(), 1000) <= 0) throw std::runtime_error("poll stalled");
      if (sending && Clock::now() >= end) sending = false;
      for (int i = 0; i < connections; ++i) {
        if (polls[i].fd < 0 || polls[i].revents == 0) continue;
        completed += step(i, sending);
        if (polls[i].fd < 0) --outstanding;
      }
    }
  };
  long warmUp = 0;
  long completed = 0;
  run(seconds / 10, warmUp);
  const auto startTime = Clock::now();
  run(seconds, completed);
  const double elapsed = std::chrono::duration<double>(Clock::now() - startTime).count();
  // all= counts the warm-up too: the server's CPU time of the whole run is divided by it.
  std::printf("%s connections=%d requests=%ld all=%ld seconds=%.2f rps=%.0f%s\n", mode, connections,
              completed, warmUp + completed, elapsed, completed / elapsed, suffix.c_str());
}

// Keep-alive connections, each sending its next request when the last one's answer is in.
int throughput(int port, const Tls* tls, const std::string& request, int connections,
               double seconds) {
  std::vector<Connection> pool(connections);
  std::vector<pollfd> polls(connections);
  for (Connection& connection : pool) {
    connection.openAndHandshake(port, tls);
    if (tls != nullptr) setNonBlocking(connection.fd);  // poll() may see a partial record
  }
  const std::string described = pool[0].describeTls();
  drive(
      "throughput", connections, seconds, polls, described,
      [&](int i) {
        polls[i] = {pool[i].fd, POLLIN, 0};
        pool[i].send(request);
      },
      [&](int i, bool sending) {
        pool[i].readSome();
        if (!pool[i].takeResponse()) return 0;
        if (sending) {
          pool[i].send(request);
        } else {
          polls[i].fd = -1;  // this connection is done for this run
        }
        return 1;
      });
  for (Connection& connection : pool) connection.close();
  return 0;
}

// A new TLS connection for every request; the handshake is driven by the same poll() loop.
int handshakes(int port, const Tls& tls, const std::string& request, int clients, double seconds) {
  std::vector<Connection> pool(clients);
  std::vector<pollfd> polls(clients);
  std::vector<bool> handshaking(clients);
  std::string described;
  const auto handshake = [&](int i) {
    if (!pool[i].handshake(tls, polls[i].events)) return;
    handshaking[i] = false;
    if (described.empty()) described = pool[i].describeTls();
    pool[i].send(request);
    polls[i].events = POLLIN;
  };
  const auto open = [&](int i) {
    pool[i].open(port, &tls);
    setNonBlocking(pool[i].fd);
    handshaking[i] = true;
    polls[i] = {pool[i].fd, 0, 0};
    handshake(i);  // on loopback the server's answer may be in already
  };
  drive("handshakes", clients, seconds, polls, described, open, [&](int i, bool sending) {
    Connection& connection = pool[i];
    if (handshaking[i]) {
      handshake(i);
      return 0;
    }
    connection.readSome();
    if (!connection.takeResponse()) return 0;
    connection.close();
    if (sending) {
      open(i);
    } else {
      polls[i].fd = -1;
    }
    return 1;
  });
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr,
                 "usage: %s [tls-]latency PORT METHOD TARGET [BODY] [REQUESTS]\n"
                 "       %s [tls-]throughput PORT METHOD TARGET [BODY] [CONNECTIONS] [SECONDS]\n"
                 "       %s handshakes PORT METHOD TARGET [BODY] [CLIENTS] [SECONDS]\n"
                 "TLS modes take the server certificate's SHA-256 fingerprint in BENCH_PIN.\n",
                 argv[0], argv[0], argv[0]);
    return 2;
  }
  std::string mode = argv[1];
  const int port = std::atoi(argv[2]);
  const std::string body = argc > 5 ? argv[5] : "";
  const std::string request = buildRequest(argv[3], argv[4], body);
  const int count = argc > 6 ? std::atoi(argv[6]) : -1;
  const double seconds = argc > 7 ? std::atof(argv[7]) : 5.0;
  try {
    const bool overTls = mode.rfind("tls-", 0) == 0 || mode == "handshakes";
    if (mode.rfind("tls-", 0) == 0) mode.erase(0, 4);
    std::optional<Tls> tls;
    if (overTls) tls.emplace();
    const Tls* maybeTls = tls ? &*tls : nullptr;
    if (mode == "latency") return latency(port, maybeTls, request, count > 0 ? count : 20000);
    if (mode == "throughput") {
      return throughput(port, maybeTls, request, count > 0 ? count : 16, seconds);
    }
    if (mode == "handshakes") {
      return handshakes(port, *tls, request, count > 0 ? count : 16, seconds);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "broker_bench: %s\n", error.what());
    return 1;
  }
  std::fprintf(stderr, "broker_bench: unknown mode %s\n", mode.c_str());
  return 2;
}
