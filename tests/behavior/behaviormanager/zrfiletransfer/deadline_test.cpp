// Slow clients against a server whose header deadline is 2 s: one that dribbles its
// headers or its body is cut off at its deadline, and the client waiting behind it is
// served then, not when the slow one would have finished.
#include <common/environment.h>
#include <common/eventually.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <zrfiletransfer/zrfiletransfer.h>
#include <zrfiletransfer/zrrequestdeadline.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "support/files.h"
#include "support/logcapture.h"
#include "support/rawclient.h"
#include "support/testenvironment.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using zrft_test::LogCapture;
using zrft_test::paths;
using zrft_test::RawConnection;

namespace {

using Setting = tuqvutest::ScopedEnvironment;

// Sends `bytes` one piece every `pause` until done or the server closes; returns how
// many bytes went out.
std::size_t dribble(RawConnection& connection, const std::string& bytes, std::size_t piece,
                    std::chrono::milliseconds pause) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    if (connection.readable(0ms)) break;  // closed (or answered) by the server
    const std::size_t count = std::min(piece, bytes.size() - sent);
    connection.send(bytes.data() + sent, count);
    sent += count;
    std::this_thread::sleep_for(pause);
  }
  return sent;
}

class Deadlines : public ::testing::Test {
protected:
  void SetUp() override { zrft_test::paths(); }
  Setting fHeaders{"TUQVU_FILE_HEADER_DEADLINE_S", "2"};
  Setting fRate{"TUQVU_FILE_BODY_MIN_RATE", "5000"};
};

}  // namespace

TEST_F(Deadlines, HeadersSentAByteAtATimeAreCutOffAndTheNextClientIsServed) {
  LogCapture log;
  ZR::ZRFileTransfer server;
  const int port = server.httpFileTransferPort();
  const std::string request =
      "GET /tmp/slow.txt HTTP/1.1\nHost: robot\nX-Padding: " + std::string(60, 'p') +
      "\n\n";  // 100 bytes: 20 s at 5 bytes/s

  const auto start = Clock::now();
  RawConnection slow(port);
  auto slowSender =
      std::async(std::launch::async, [&] { return dribble(slow, request, 1, 200ms); });
  std::this_thread::sleep_for(300ms);  // the slow client is under way before the other comes
  const zrft_test::Reply waiting =
      zrft_test::request(port, "GET /tmp/none.txt HTTP/1.1\nHost: robot\n\n", 15s);
  const auto servedAfter = Clock::now() - start;

  EXPECT_EQ("HTTP/1.1 404 Not Found", waiting.statusLine);
  EXPECT_LT(servedAfter, 8s) << "the waiting client was served only when the slow one ended";
  bool closed = false;
  EXPECT_EQ("", slow.readUntilClosed(5s, &closed));
  EXPECT_TRUE(closed);
  EXPECT_LT(slowSender.get(), request.size());
  // Cut before its deadline: another client waited.
  EXPECT_EQ(1u, log.find("receive", "Another client waits").size());
}

TEST_F(Deadlines, HeadersSentAByteAtATimeAreCutOffAtTheDeadlineWhenNobodyWaits) {
  LogCapture log;
  ZR::ZRFileTransfer server;
  const int port = server.httpFileTransferPort();
  const std::string request =
      "GET /tmp/slow.txt HTTP/1.1\nHost: robot\nX-Padding: " + std::string(60, 'p') + "\n\n";
  RawConnection slow(port);
  auto slowSender =
      std::async(std::launch::async, [&] { return dribble(slow, request, 1, 200ms); });
  bool closed = false;
  EXPECT_EQ("", slow.readUntilClosed(15s, &closed));
  EXPECT_TRUE(closed);
  EXPECT_LT(slowSender.get(), request.size());
  EXPECT_EQ(1u, log.find("receive", "did not arrive in time").size());
}

TEST_F(Deadlines, AReaderBelowTheMinimumSendRateIsCutOff) {
  Setting sendRate("TUQVU_FILE_SEND_MIN_RATE", "4000000");
  LogCapture log;
  // 16 MB, more than the sockets' buffers hold, at 4 MB/s: the header time (2 s) plus
  // 4 s at most.
  zrft_test::writeFile(zrft_test::paths().tmp / "large.bin", std::string(16u << 20, 'l'));
  ZR::ZRFileTransfer server;
  const int port = server.httpFileTransferPort();
  RawConnection reader(port);
  const int small = 4096;
  ::setsockopt(reader.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
  reader.send("GET /tmp/large.bin HTTP/1.1\nHost: robot\n\n");
  // Reads 8 kB a second, far below the rate, until the server gives up.
  std::size_t received = 0;
  const auto start = Clock::now();
  char buffer[8192];
  while (Clock::now() - start < 60s) {
    const std::size_t got = reader.readSome(buffer, sizeof(buffer), 5000ms);
    if (got == 0) break;
    received += got;
    std::this_thread::sleep_for(1s);
  }
  EXPECT_LT(received, 16u << 20);
  EXPECT_LT(Clock::now() - start, 59s) << "the slow reader was never cut";
  EXPECT_TRUE(tuqvutest::eventually(
      [&] { return log.find("send", "takes the reply too slowly").size() == 1u; }, 30s));
}

TEST_F(Deadlines, ABodyBelowTheMinimumRateIsCutOffWithoutAReply) {
  ZR::ZRFileTransfer server;
  const int port = server.httpFileTransferPort();
  // 10,000 bytes at 5,000 bytes/s may take 2 + 2 s; sent at 100 bytes/s they would take 100.
  RawConnection slow(port);
  slow.send("PUT /tmp/slow-body.bin HTTP/1.1\nHost: robot\nContent-Length: 10000\n\n");
  const auto start = Clock::now();
  const std::size_t sent = dribble(slow, std::string(10000, 'b'), 10, 100ms);
  bool closed = false;
  EXPECT_EQ("", slow.readUntilClosed(5s, &closed));
  EXPECT_TRUE(closed);
  EXPECT_LT(sent, 10000u);
  EXPECT_LT(Clock::now() - start, 10s);

  // A body that keeps the rate is written whole.
  const std::string body(10000, 'f');
  const zrft_test::Reply fast = zrft_test::request(
      port, "PUT /tmp/fast-body.bin HTTP/1.1\nHost: robot\nContent-Length: 10000\n\n" + body);
  EXPECT_EQ("HTTP/1.1 200 OK", fast.statusLine);
  EXPECT_EQ(body, zrft_test::readFile(paths().tmp / "fast-body.bin"));
}

TEST_F(Deadlines, AKeptAliveConnectionGetsAFreshDeadlineForEachRequest) {
  ZR::ZRFileTransfer server;
  RawConnection connection(server.httpFileTransferPort());
  for (int i = 0; i < 3; ++i) {
    connection.send("GET /tmp/none.txt HTTP/1.1\nHost: robot\n\n");
    EXPECT_EQ("HTTP/1.1 404 Not Found", connection.readReply(5s).statusLine) << i;
    std::this_thread::sleep_for(1200ms);  // 3.6 s in all: more than one deadline
  }
}

TEST(ServerLimits, ComeFromTheEnvironmentWithTheirDefaults) {
  {
    Setting put("TUQVU_FILE_PUT_MAX_BYTES", nullptr);
    Setting headers("TUQVU_FILE_HEADER_DEADLINE_S", nullptr);
    Setting rate("TUQVU_FILE_BODY_MIN_RATE", "");
    const ZR::detail::ServerLimits limits = ZR::detail::ServerLimits::fromEnvironment();
    EXPECT_EQ(512ULL * 1024 * 1024, limits.putMaxBytes);
    EXPECT_EQ(15, limits.headerSeconds);
    EXPECT_EQ(32768u, limits.bodyBytesPerSecond);
  }
  Setting put("TUQVU_FILE_PUT_MAX_BYTES", "2048");
  Setting headers("TUQVU_FILE_HEADER_DEADLINE_S", "30");
  Setting rate("TUQVU_FILE_BODY_MIN_RATE", "1000");
  const ZR::detail::ServerLimits limits = ZR::detail::ServerLimits::fromEnvironment();
  EXPECT_EQ(2048u, limits.putMaxBytes);
  EXPECT_EQ(30, limits.headerSeconds);
  EXPECT_EQ(1000u, limits.bodyBytesPerSecond);
}

TEST(ServerLimits, AValueThatIsNoPositiveNumberIsLoggedByNameAndTheDefaultKept) {
  for (const char* value : {"abc", "0", "-1", "12x", " 12", "99999999999999999999999"}) {
    LogCapture log;
    Setting put("TUQVU_FILE_PUT_MAX_BYTES", value);
    Setting headers("TUQVU_FILE_HEADER_DEADLINE_S", value);
    Setting rate("TUQVU_FILE_BODY_MIN_RATE", value);
    const ZR::detail::ServerLimits limits = ZR::detail::ServerLimits::fromEnvironment();
    EXPECT_EQ(512ULL * 1024 * 1024, limits.putMaxBytes) << value;
    EXPECT_EQ(15, limits.headerSeconds) << value;
    EXPECT_EQ(32768u, limits.bodyBytesPerSecond) << value;
    for (const char* name :
         {"TUQVU_FILE_PUT_MAX_BYTES", "TUQVU_FILE_HEADER_DEADLINE_S", "TUQVU_FILE_BODY_MIN_RATE"}) {
      EXPECT_EQ(1u, log.find("wholeNumber", name).size()) << name << " = " << value;
    }
  }
}

TEST(ServerLimits, EachServerKeepsTheLimitsItWasMadeWith) {
  std::unique_ptr<ZR::ZRFileTransfer> strict;
  {
    Setting headers("TUQVU_FILE_HEADER_DEADLINE_S", "1");
    strict = std::make_unique<ZR::ZRFileTransfer>();
  }
  ZR::ZRFileTransfer lenient;  // made with the default of 15 s
  RawConnection toStrict(strict->httpFileTransferPort());
  RawConnection toLenient(lenient.httpFileTransferPort());
  toStrict.send("GET /tmp/none.txt HT");
  toLenient.send("GET /tmp/none.txt HT");
  bool closed = false;
  EXPECT_EQ("", toStrict.readUntilClosed(10s, &closed));
  EXPECT_TRUE(closed) << "the 1 s deadline of the first server did not end its connection";
  // The other connection, just as old, is still open and gets its answer.
  toLenient.send("TP/1.1\nHost: robot\n\n");
  EXPECT_EQ("HTTP/1.1 404 Not Found", toLenient.readReply(5s).statusLine);
}
