// How the server treats connections: one at a time, keep-alive, pipelining, idle and
// misbehaving clients. The idle-client test waits for the server's 15 s time-out; it is
// the only test that does.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem/operations.hpp>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/files.h"
#include "support/rawclient.h"
#include "support/testenvironment.h"

namespace fs = boost::filesystem;
using namespace std::chrono_literals;
using zrft_test::paths;
using zrft_test::RawConnection;
using zrft_test::Reply;
using zrft_test::writeFile;

namespace {

const char* const kGetA = "GET /tmp/a.txt HTTP/1.1\nHost: robot\n\n";

class Connections : public ::testing::Test {
protected:
  void SetUp() override {
    fPort = zrft_test::sharedServerPort();
    writeFile(paths().tmp / "a.txt", "A");
  }

  // A fresh client can still get a file: the server is alive and free.
  void expectServing() {
    const Reply reply = zrft_test::request(fPort, kGetA);
    EXPECT_TRUE(reply.complete);
    EXPECT_EQ(reply.body, "A");
  }

  int fPort = 0;
};

}  // namespace

TEST_F(Connections, AKeepAliveConnectionStaysWhileNoOtherClientWaits) {
  RawConnection first(fPort);
  first.send(kGetA);
  ASSERT_EQ(first.readReply(10s).body, "A");
  // Idle for longer than a contested connection may be, with nobody waiting.
  std::this_thread::sleep_for(1500ms);
  first.send(kGetA);
  EXPECT_EQ(first.readReply(10s).body, "A");
}

TEST_F(Connections, AnIdleKeepAliveConnectionGivesWayToAWaitingClient) {
  RawConnection first(fPort);
  first.send(kGetA);
  ASSERT_EQ(first.readReply(10s).body, "A");  // the first connection is being served

  // One connection at a time: the second is served once the first, idle, is closed.
  RawConnection second(fPort);
  second.send(kGetA);
  const Reply reply = second.readReply(10s);
  EXPECT_TRUE(reply.complete);
  EXPECT_EQ(reply.body, "A");
  bool closed = false;
  EXPECT_EQ(first.readUntilClosed(1s, &closed), "");
  EXPECT_TRUE(closed) << "the idle connection was not closed";
}

TEST_F(Connections, ConnectionsThatSendNothingAreClosedTogetherWhileAClientWaits) {
  std::vector<std::unique_ptr<RawConnection>> silent;
  for (int i = 0; i < 300; ++i) silent.push_back(std::make_unique<RawConnection>(fPort));
  RawConnection waiting(fPort);
  waiting.send(kGetA);
  // They are let go in batches, not a fifth of a second each, which would take a minute;
  // the margin is for a loaded machine.
  const Reply reply = waiting.readReply(15s);
  EXPECT_TRUE(reply.complete);
  EXPECT_EQ(reply.body, "A");
  for (auto& connection : silent) {
    bool closed = false;
    connection->readUntilClosed(5s, &closed);
    EXPECT_TRUE(closed) << "a silent connection was not dropped";
  }
  expectServing();
}

TEST_F(Connections, ConnectionsWaitingForTheirTurnHoldNoServingBuffers) {
  // Each connection waits as its socket and address; a serving context with its buffers
  // (some 160 KiB) is made only for the one being served. A hundred connections waiting
  // together then cost a little, not 16 MiB that the allocator keeps afterwards.
  const auto heapInUse = [] {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;  // in the arenas, and mapped on their own
  };
  const std::size_t before = heapInUse();
  std::vector<std::unique_ptr<RawConnection>> silent;
  for (int i = 0; i < 100; ++i) silent.push_back(std::make_unique<RawConnection>(fPort));
  // They wait at least the 0.2 s a silent connection is given; the server's heap is this
  // process's, sampled throughout that time.
  std::size_t peak = before;
  const auto until = std::chrono::steady_clock::now() + 600ms;
  while (std::chrono::steady_clock::now() < until) {
    peak = std::max(peak, heapInUse());
    std::this_thread::sleep_for(2ms);
  }
  EXPECT_LT(peak - before, std::size_t{2} << 20)
      << "100 waiting connections took " << (peak - before) / 1024 << " KiB of heap";
  for (auto& connection : silent) {
    bool closed = false;
    connection->readUntilClosed(5s, &closed);
    EXPECT_TRUE(closed) << "a silent connection was not dropped";
  }
  expectServing();
}

TEST_F(Connections, AClientTricklingItsHeadersGivesWayToAWaitingClient) {
  RawConnection slow(fPort);
  slow.send("GET /tmp/a.txt HTTP/1.1\n");
  std::this_thread::sleep_for(100ms);  // being served now
  RawConnection waiting(fPort);
  waiting.send(kGetA);
  std::atomic<bool> done{false};
  std::thread trickle([&] {
    for (int i = 0; i < 100 && !done; ++i) {
      try {
        slow.send("X");
      } catch (const std::exception&) {
        break;  // closed by the server
      }
      std::this_thread::sleep_for(100ms);
    }
  });
  const Reply reply = waiting.readReply(20s);
  done = true;
  trickle.join();
  EXPECT_TRUE(reply.complete);
  EXPECT_EQ(reply.body, "A");
}

TEST_F(Connections, IdleClientIsDroppedWhenAnotherWaitsAndTheNextIsServed) {
  // The listen queue hands connections to accept in the order they were made.
  RawConnection idle(fPort);
  RawConnection waiting(fPort);
  waiting.send(kGetA);

  const Reply reply = waiting.readReply(40s);
  EXPECT_TRUE(reply.complete);
  EXPECT_EQ(reply.body, "A");
  bool closed = false;
  EXPECT_EQ(idle.readUntilClosed(1s, &closed), "");
  EXPECT_TRUE(closed) << "the idle client was not dropped by the server";
}

TEST_F(Connections, PipelinedRequestsAreAnsweredInOrder) {
  writeFile(paths().tmp / "b.txt", "BB");
  RawConnection connection(fPort);
  connection.send(
      "GET /tmp/a.txt HTTP/1.1\nHost: robot\n\n"
      "GET /tmp/missing HTTP/1.1\nHost: robot\n\n"
      "PUT /tmp/c.txt HTTP/1.1\nHost: robot\nContent-Length: 3\n\nCCC"
      "GET /tmp/b.txt HTTP/1.1\nHost: robot\n\n"
      "DELETE /tmp/c.txt HTTP/1.1\nHost: robot\n\n"
      "GET /tmp/b.txt HTTP/1.1\nHost: robot\n\n");
  EXPECT_EQ(connection.readReply(10s).body, "A");
  EXPECT_EQ(connection.readReply(10s).body, "404 - Not Found\n");
  EXPECT_EQ(connection.readReply(10s).body, "ok\n");
  EXPECT_EQ(connection.readReply(10s).body, "BB");
  EXPECT_EQ(connection.readReply(10s).body, "ok\n");
  EXPECT_EQ(connection.readReply(10s).body, "BB");
  EXPECT_FALSE(fs::exists(paths().tmp / "c.txt"));
}

TEST_F(Connections, Http10RequestIsAnsweredAndTheConnectionClosed) {
  RawConnection connection(fPort);
  connection.send("GET /tmp/a.txt HTTP/1.0\n\n");
  bool closed = false;
  const std::string received = connection.readUntilClosed(10s, &closed);
  EXPECT_TRUE(closed);
  EXPECT_NE(received.find("\n\nA"), std::string::npos) << received;
}

TEST_F(Connections, ConnectionCloseHeaderEndsTheConnectionAfterTheReply) {
  RawConnection connection(fPort);
  connection.send("GET /tmp/a.txt HTTP/1.1\nHost: robot\nConnection: close\n\n");
  EXPECT_EQ(connection.readReply(10s).body, "A");
  bool closed = false;
  EXPECT_EQ(connection.readUntilClosed(10s, &closed), "");
  EXPECT_TRUE(closed);
}

TEST_F(Connections, PostIsRefusedWith405AndTheConnectionClosed) {
  RawConnection connection(fPort);
  connection.send("POST /tmp/a.txt HTTP/1.1\nHost: robot\nContent-Length: 5\n\nhello");
  const Reply reply = connection.readReply(10s);
  EXPECT_EQ(reply.headLines(),
            (std::vector<std::string>{"HTTP/1.1 405 Method Not Allowed", "Server: TuqVu",
                                      "Allow: GET, PUT, DELETE", "Content-Type: text/plain",
                                      "Content-Length: 25"}));
  EXPECT_EQ(reply.body, "405 - Method Not Allowed\n");
  bool closed = false;
  connection.readUntilClosed(10s, &closed);
  EXPECT_TRUE(closed);
  expectServing();
}

TEST_F(Connections, GarbageRequestsDoNotStopTheServer) {
  const std::string garbage[] = {
      "garbage\r\n\r\n",
      std::string("\x00\x01\x02\xff ffff\n\n", 11),
      "GET\n\n",
      "GET /tmp/a.txt HTTP/9.9 extra words\n\n",
      "PUT /tmp/x.txt HTTP/1.1\nContent-Length: -5\n\n",
      "PUT /tmp/y.txt HTTP/1.1\nContent-Length: 99999999999999999999999\n\nabc",
      "GET /" + std::string(5000, 'a') + ".txt HTTP/1.1\n\n",
      std::string(3000, '\n'),
  };
  for (const std::string& request : garbage) {
    RawConnection connection(fPort);
    connection.send(request);
    connection.shutdownWrite();
    bool closed = false;
    connection.readUntilClosed(20s, &closed);
    EXPECT_TRUE(closed) << "connection left open after: " << request.substr(0, 40);
    expectServing();
  }
}

TEST_F(Connections, ClientLeavingDuringALargeReplyDoesNotStopTheServer) {
  std::string large(20 * 1024 * 1024, 'x');
  writeFile(paths().tmp / "large.bin", large);
  {
    RawConnection connection(fPort);
    connection.send("GET /tmp/large.bin HTTP/1.1\nHost: robot\n\n");
    char buffer[4096];
    ASSERT_GT(connection.readSome(buffer, sizeof(buffer), 10s), 0u);
  }  // closed with most of the body unsent
  expectServing();
}
