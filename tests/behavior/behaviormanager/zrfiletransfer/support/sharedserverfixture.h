// A test against the program's shared file server, reading replies as they come over the
// wire.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "rawclient.h"
#include "requests.h"
#include "testenvironment.h"

namespace zrft_test {

class SharedServerTest : public ::testing::Test {
protected:
  void SetUp() override { port = sharedServerPort(); }

  // Sends one request on a new connection and returns the reply as it came over the wire
  // ("" when the server closed without one). `closed`, when given, tells whether the server
  // then closed the connection.
  std::string exchange(const std::string& request, bool* closed = nullptr) {
    RawConnection connection(port);
    connection.send(request);
    const Reply reply = connection.readReply(std::chrono::seconds(10));
    std::string received = reply.head.empty() ? reply.head : reply.head + "\n" + reply.body;
    if (closed != nullptr) {
      received += connection.readUntilClosed(std::chrono::seconds(5), closed);
    }
    return received;
  }

  std::string statusOf(const std::string& request) {
    return zrft_test::request(port, request).statusLine;
  }

  // The server drops `request` without a word.
  void expectNoReply(const std::string& request) {
    bool closed = false;
    EXPECT_EQ(exchange(request, &closed), "") << request;
    EXPECT_TRUE(closed) << request;
  }

  // The server the test talks to; a test may point it at its own server. Named like a
  // local, as the tests use it as their own.
  int port = 0;
};

}  // namespace zrft_test
