// The server's life: choosing its port, answering on it, and stopping. Each test builds
// its own ZRFileTransfer (the program runs alone, so port 15000 is free unless another
// program holds it).
#include <gtest/gtest.h>
#include <zrfiletransfer/zrfiletransfer.h>
#include <zrfiletransfer/zrfiletransferprivate.h>

#include <chrono>
#include <future>
#include <memory>

#include "support/ports.h"
#include "support/rawclient.h"
#include "support/testenvironment.h"

using namespace std::chrono_literals;
using zrft_test::PortHolder;
using zrft_test::portIsFree;
using zrft_test::RawConnection;
using zrft_test::Reply;

namespace {

// A request every server answers the same way: 404 for a file that is not there.
const char* const kProbeRequest = "GET /tmp/not-there.txt HTTP/1.1\nHost: robot\n\n";

bool answersAsFileServer(int port) {
  const Reply reply = zrft_test::request(port, kProbeRequest);
  return reply.complete && reply.statusLine == "HTTP/1.1 404 Not Found" &&
         reply.header("Server") == "TuqVu";
}

}  // namespace

TEST(ServerPort, IsThePreferredPortWhenItIsFree) {
  if (!portIsFree(15000)) {
    GTEST_SKIP() << "another program holds port 15000";
  }
  ZR::ZRFileTransfer server;
  EXPECT_EQ(server.httpFileTransferPort(), 15000);
  EXPECT_TRUE(answersAsFileServer(15000));
}

TEST(ServerPort, IsTheNextPortWhen15000IsTaken) {
  PortHolder taken(15000);
  // Held by us or by another program: either way the server must move on.
  ASSERT_TRUE(taken.held() || !portIsFree(15000));
  if (!portIsFree(15001)) {
    GTEST_SKIP() << "another program holds port 15001";
  }
  ZR::ZRFileTransfer server;
  EXPECT_EQ(server.httpFileTransferPort(), 15001);
  EXPECT_TRUE(answersAsFileServer(15001));
}

TEST(ServerPort, TwoServersInOneProcessTakeConsecutivePorts) {
  if (!portIsFree(15000) || !portIsFree(15001)) {
    GTEST_SKIP() << "another program holds port 15000 or 15001";
  }
  ZR::ZRFileTransfer first;
  ZR::ZRFileTransfer second;
  EXPECT_EQ(first.httpFileTransferPort(), 15000);
  EXPECT_EQ(second.httpFileTransferPort(), 15001);
  EXPECT_TRUE(answersAsFileServer(15000));
  EXPECT_TRUE(answersAsFileServer(15001));
}

TEST(FindFreePort, SkipsEveryTakenPortUpward) {
  PortHolder a(15000);
  PortHolder b(15001);
  PortHolder c(15002);
  for (int port : {15000, 15001, 15002}) {
    ASSERT_FALSE(portIsFree(port)) << port;  // held by us, or already by another program
  }
  if (!portIsFree(15003)) {
    GTEST_SKIP() << "another program holds port 15003";
  }
  ZR::ZRFileTransferPrivate server;
  EXPECT_EQ(server.findFreePort(15000), 15003);
  EXPECT_EQ(server.findFreePort(15003), 15003);
  // The probe frees the port again.
  EXPECT_TRUE(portIsFree(15003));
}

TEST(ServerStop, AnIdleServerStopsWithinTheAcceptTimeout) {
  auto server = std::make_unique<ZR::ZRFileTransfer>();
  const int port = server->httpFileTransferPort();
  ASSERT_TRUE(answersAsFileServer(port));

  const auto before = std::chrono::steady_clock::now();
  server.reset();
  const auto elapsed = std::chrono::steady_clock::now() - before;
  // The listener wakes from accept every second; a generous bound, far below the 15 s
  // connection time-out it would show if it waited on a client.
  EXPECT_LT(elapsed, 5s);
  // Nothing listens any more.
  EXPECT_THROW(RawConnection{port}, std::runtime_error);
}

TEST(ServerStop, ImmediatelyAfterConstructionDoesNotHang) {
  auto future = std::async(std::launch::async, [] { ZR::ZRFileTransfer server; });
  EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
}

TEST(ServerStop, WaitsForTheConnectionBeingServed) {
  auto server = std::make_unique<ZR::ZRFileTransfer>();
  const int port = server->httpFileTransferPort();
  RawConnection open(port);
  // One exchange proves the connection is the one being served.
  open.send(kProbeRequest);
  ASSERT_TRUE(open.readReply(10s).complete);

  auto stopping = std::async(std::launch::async, [&server] { server.reset(); });
  EXPECT_EQ(stopping.wait_for(1500ms), std::future_status::timeout);
  open.close();
  EXPECT_EQ(stopping.wait_for(10s), std::future_status::ready);
}
