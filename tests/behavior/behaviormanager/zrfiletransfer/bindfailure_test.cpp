// Failures of the system calls around binding, injected by replacing bind() and close()
// for this program: libgsoap++ and the port probe call the definitions below, which pass
// through to the C library unless a test armed a failure.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zr/zrerror.h>
#include <zrfiletransfer/zrfiletransfer.h>

#include <atomic>

#include "support/logcapture.h"
#include "support/ports.h"
#include "support/rawclient.h"
#include "support/testenvironment.h"

namespace {

// Armed: the first socket bound afterwards (the port probe's) binds normally; once it is
// closed, binding (the server's own socket, which may reuse its number) fails with
// EADDRINUSE.
constexpr int kNoProbeYet = -1;
constexpr int kProbeClosed = -2;
std::atomic<bool> gFailServerBind{false};
std::atomic<int> gProbeSocket{kNoProbeYet};
// Armed: the next close() closes the descriptor but reports a failure.
std::atomic<bool> gFailNextClose{false};

using BindFunction = int (*)(int, const sockaddr*, socklen_t);
using CloseFunction = int (*)(int);

}  // namespace

extern "C" int bind(int fd, const sockaddr* address, socklen_t length) {
  static const auto real = reinterpret_cast<BindFunction>(dlsym(RTLD_NEXT, "bind"));
  if (gFailServerBind) {
    int expected = kNoProbeYet;
    gProbeSocket.compare_exchange_strong(expected, fd);
    if (gProbeSocket != fd) {
      errno = EADDRINUSE;
      return -1;
    }
  }
  return real(fd, address, length);
}

extern "C" int close(int fd) {
  static const auto real = reinterpret_cast<CloseFunction>(dlsym(RTLD_NEXT, "close"));
  int probe = fd;
  gProbeSocket.compare_exchange_strong(probe, kProbeClosed);
  if (gFailNextClose.exchange(false)) {
    real(fd);
    errno = EIO;
    return -1;
  }
  return real(fd);
}

namespace {

class BindFailure : public ::testing::Test {
protected:
  void armServerBindFailure() {
    gProbeSocket = kNoProbeYet;
    gFailServerBind = true;
  }
  void TearDown() override {
    gFailServerBind = false;
    gFailNextClose = false;
  }
};

}  // namespace

TEST_F(BindFailure, ThrowsZRErrorNamingThePreferredPort) {
  if (!zrft_test::portIsFree(15000)) {
    GTEST_SKIP() << "another program holds port 15000";
  }
  armServerBindFailure();
  try {
    ZR::ZRFileTransfer server;
    FAIL() << "the constructor did not throw";
  } catch (const ZR::ZRError& error) {
    EXPECT_EQ(error.module(), "ZRFileTransfer");
    EXPECT_EQ(error.method(), "Run server");
    EXPECT_EQ(error.description(), "Port 15000 is not free. Could not bind to this port.");
    EXPECT_EQ(error.file(), "behavior/behaviormanager/src/zrfiletransfer");
    EXPECT_GT(error.line(), 0);
  }
  gFailServerBind = false;

  // Nothing of the failed attempt lingers: the next server gets the port.
  ZR::ZRFileTransfer server;
  EXPECT_EQ(server.httpFileTransferPort(), 15000);
}

TEST_F(BindFailure, NamesThePreferredPortEvenWhenTheProbeFoundAnother) {
  zrft_test::PortHolder taken(15000);
  // Held by us or by another program: either way the probe moves on.
  ASSERT_TRUE(taken.held() || !zrft_test::portIsFree(15000));
  if (!zrft_test::portIsFree(15001)) {
    GTEST_SKIP() << "another program holds port 15001";
  }
  armServerBindFailure();
  try {
    ZR::ZRFileTransfer server;
    FAIL() << "the constructor did not throw";
  } catch (const ZR::ZRError& error) {
    EXPECT_EQ(error.description(), "Port 15000 is not free. Could not bind to this port.");
  }
}

TEST_F(BindFailure, AFailingProbeCloseIsLoggedAndThePortStillUsed) {
  if (!zrft_test::portIsFree(15000)) {
    GTEST_SKIP() << "another program holds port 15000";
  }
  zrft_test::LogCapture log;
  gFailNextClose = true;
  ZR::ZRFileTransfer server;
  EXPECT_FALSE(gFailNextClose);  // the probe's close was the one that failed

  const auto lines = log.find("findFreePort", "");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 2);
  EXPECT_EQ(lines[0].category, "core.common.network");
  EXPECT_EQ(lines[0].text, "findFreePort Socket Close Last Error: -1\n");

  EXPECT_EQ(server.httpFileTransferPort(), 15000);
  const zrft_test::Reply reply =
      zrft_test::request(15000, "GET /tmp/none.txt HTTP/1.1\nHost: robot\n\n");
  EXPECT_EQ(reply.statusLine, "HTTP/1.1 404 Not Found");
}
