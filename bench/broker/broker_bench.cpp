// An HTTP/1.1 load client for the broker benchmark. It sends one fixed request over
// keep-alive connections and measures:
//   latency     one connection, requests one after the other: p50, p99 of the round trip
//   throughput  N connections driven by one poll() loop: requests per second
// The same client measures tuqvu and nginx, so the two figures compare like with like.
//
//   broker_bench latency    PORT METHOD TARGET [BODY] [REQUESTS]
//   broker_bench throughput PORT METHOD TARGET [BODY] [CONNECTIONS] [SECONDS]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
  }
  const int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

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

// One connection's parser: complete when the head and Content-Length bytes are in.
struct Connection {
  int fd = -1;
  std::string in;
  Clock::time_point sent;

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

  void send(const std::string& request) {
    std::size_t done = 0;
    while (done < request.size()) {
      const ssize_t n = ::send(fd, request.data() + done, request.size() - done, MSG_NOSIGNAL);
      if (n <= 0) throw std::runtime_error("send failed");
      done += static_cast<std::size_t>(n);
    }
    sent = Clock::now();
  }

  void readSome() {
    char buffer[16384];
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) throw std::runtime_error("the server closed the connection");
    in.append(buffer, static_cast<std::size_t>(n));
  }
};

double percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  const std::size_t index =
      std::min(values.size() - 1, static_cast<std::size_t>(p * values.size()));
  return values[index];
}

int latency(int port, const std::string& request, int requests) {
  Connection connection;
  connection.fd = connectTo(port);
  std::vector<double> micros;
  micros.reserve(requests);
  for (int i = 0; i < requests + requests / 10; ++i) {  // the first tenth warms up
    connection.send(request);
    while (!connection.takeResponse()) connection.readSome();
    const double us =
        std::chrono::duration<double, std::micro>(Clock::now() - connection.sent).count();
    if (i >= requests / 10) micros.push_back(us);
  }
  ::close(connection.fd);
  std::printf("latency requests=%d p50_us=%.1f p99_us=%.1f max_us=%.1f\n", requests,
              percentile(micros, 0.50), percentile(micros, 0.99), percentile(micros, 1.0));
  return 0;
}

int throughput(int port, const std::string& request, int connections, double seconds) {
  std::vector<Connection> pool(connections);
  std::vector<pollfd> polls(connections);
  for (int i = 0; i < connections; ++i) {
    pool[i].fd = connectTo(port);
    polls[i] = {pool[i].fd, POLLIN, 0};
  }
  const auto run = [&](double duration, long& completed) {
    completed = 0;
    for (Connection& connection : pool) connection.send(request);
    const auto end = Clock::now() + std::chrono::duration<double>(duration);
    long outstanding = connections;
    bool sending = true;
    while (outstanding > 0) {
      if (::poll(polls.data(), polls.size(), 1000) <= 0) throw std::runtime_error("poll stalled");
      if (sending && Clock::now() >= end) sending = false;
      for (int i = 0; i < connections; ++i) {
        if ((polls[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
        pool[i].readSome();
        while (pool[i].takeResponse()) {
          ++completed;
          --outstanding;
          if (sending) {
            pool[i].send(request);
            ++outstanding;
          }
        }
      }
    }
  };
  long warmUp = 0;
  long completed = 0;
  run(seconds / 10, warmUp);
  const auto start = Clock::now();
  run(seconds, completed);
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  for (Connection& connection : pool) ::close(connection.fd);
  // all= counts the warm-up too: the server's CPU time of the whole run is divided by it.
  std::printf("throughput connections=%d requests=%ld all=%ld seconds=%.2f rps=%.0f\n", connections,
              completed, warmUp + completed, elapsed, completed / elapsed);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr,
                 "usage: %s latency PORT METHOD TARGET [BODY] [REQUESTS]\n"
                 "       %s throughput PORT METHOD TARGET [BODY] [CONNECTIONS] [SECONDS]\n",
                 argv[0], argv[0]);
    return 2;
  }
  const std::string mode = argv[1];
  const int port = std::atoi(argv[2]);
  const std::string body = argc > 5 ? argv[5] : "";
  const std::string request = buildRequest(argv[3], argv[4], body);
  try {
    if (mode == "latency") return latency(port, request, argc > 6 ? std::atoi(argv[6]) : 20000);
    if (mode == "throughput") {
      return throughput(port, request, argc > 6 ? std::atoi(argv[6]) : 16,
                        argc > 7 ? std::atof(argv[7]) : 5.0);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "broker_bench: %s\n", error.what());
    return 1;
  }
  std::fprintf(stderr, "broker_bench: unknown mode %s\n", mode.c_str());
  return 2;
}
