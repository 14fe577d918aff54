// The listener when accepting fails: with every descriptor of the process taken, a
// waiting client cannot be accepted; the listener logs that once, backs off, and serves
// the client as soon as a descriptor is free again.
#include <arpa/inet.h>
#include <common/eventually.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zrfiletransfer/zracceptbackoff.h>
#include <zrfiletransfer/zrfiletransfer.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/logcapture.h"
#include "support/rawclient.h"
#include "support/testenvironment.h"

using namespace std::chrono_literals;
using zrft_test::LogCapture;

namespace {

// Lowers the soft limit of descriptors and takes all that are left; gives them back and
// restores the limit when it goes.
class DescriptorExhaustion {
public:
  DescriptorExhaustion() {
    ::getrlimit(RLIMIT_NOFILE, &fSaved);
    rlimit lowered = fSaved;
    lowered.rlim_cur = std::min<rlim_t>(fSaved.rlim_cur, openDescriptors() + 64);
    ::setrlimit(RLIMIT_NOFILE, &lowered);
    for (;;) {
      const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
        fExhausted = errno == EMFILE;
        break;
      }
      fTaken.push_back(fd);
    }
  }
  ~DescriptorExhaustion() {
    release();
    ::setrlimit(RLIMIT_NOFILE, &fSaved);
  }
  bool exhausted() const { return fExhausted; }
  void release() {
    for (const int fd : fTaken) ::close(fd);
    fTaken.clear();
  }

private:
  static rlim_t openDescriptors() {
    rlim_t count = 0;
    for (int fd = 0; fd < 65536; ++fd) {
      if (::fcntl(fd, F_GETFD) != -1) ++count;
    }
    return count;
  }

  rlimit fSaved{};
  std::vector<int> fTaken;
  bool fExhausted = false;
};

}  // namespace

TEST(AcceptFailures, TheListenerOutlivesDescriptorExhaustionAndServesTheWaitingClient) {
  zrft_test::paths();
  LogCapture log;
  ZR::ZRFileTransfer server;
  const int port = server.httpFileTransferPort();

  // The client's socket exists before the descriptors run out; it connects after, so
  // that only the server's accept lacks a descriptor.
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(client, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  {
    DescriptorExhaustion exhaustion;
    ASSERT_TRUE(exhaustion.exhausted());
    ASSERT_EQ(0, ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)));

    // Several failed accepts (the back-off reaches 160 ms within 310 ms), one log line.
    EXPECT_TRUE(tuqvutest::eventually(
        [&] { return !log.find("listenRequest", "accepting connections failed").empty(); }, 5s));
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(1u, log.find("listenRequest", "accepting connections failed").size());
    EXPECT_NE(std::string::npos,
              log.find("listenRequest", "accepting connections failed")[0].text.find(
                  "Too many open files"));
  }

  const std::string request = "GET /tmp/not-there.txt HTTP/1.1\nHost: robot\n\n";
  ASSERT_EQ(static_cast<ssize_t>(request.size()),
            ::send(client, request.data(), request.size(), MSG_NOSIGNAL));
  std::string received;
  char buffer[4096];
  const auto end = std::chrono::steady_clock::now() + 10s;
  while (received.find("404 - Not Found\n") == std::string::npos &&
         std::chrono::steady_clock::now() < end) {
    timeval wait{0, 100000};
    ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    const ssize_t count = ::recv(client, buffer, sizeof(buffer), 0);
    if (count > 0) received.append(buffer, static_cast<std::size_t>(count));
    if (count == 0) break;
  }
  ::close(client);
  EXPECT_EQ(0u, received.find("HTTP/1.1 404 Not Found\n")) << received;
  const auto again = log.find("listenRequest", "accepting connections again after");
  ASSERT_EQ(1u, again.size());
}

TEST(AcceptBackOff, WaitsTwiceAsLongAfterEachFailureUpToASecondAndStartsOverAfterASuccess) {
  LogCapture log;
  ZR::detail::AcceptBackOff backOff;
  std::vector<int> delays;
  for (int i = 0; i < 9; ++i) delays.push_back(backOff.failed(EMFILE));
  EXPECT_EQ((std::vector<int>{10, 20, 40, 80, 160, 320, 640, 1000, 1000}), delays);
  EXPECT_EQ(9, backOff.failures());
  EXPECT_EQ(1u, log.find("listenRequest", "accepting connections failed").size());

  backOff.succeeded();
  EXPECT_EQ(0, backOff.failures());
  ASSERT_EQ(1u, log.find("listenRequest", "again after 9 failed attempts").size());
  backOff.succeeded();
  EXPECT_EQ(1u, log.find("listenRequest", "again after").size());
  EXPECT_EQ(10, backOff.failed(ENFILE));
  EXPECT_EQ(2u, log.find("listenRequest", "accepting connections failed").size());
}
