// Bad input never crashes the daemon nor blocks other clients.
#include <gtest/gtest.h>
#include <signal.h>

#include "support/httpclient.h"
#include "support/shareddaemon.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

class DaemonBadInput : public SharedDaemonTest {
protected:
  void TearDown() override {
    // Whatever the test sent, the daemon still answers.
    ASSERT_TRUE(daemon->running()) << daemon->stderrText();
    EXPECT_EQ(json(3), rpc(port(), "TestModule.add", {1, 2})["result"]);
  }
  // The credentials header line of a raw request.
  static std::string credentials() { return "Authorization: " + daemon->authorization() + "\r\n"; }
  static int statusOf(const std::string& raw) {
    if (raw.compare(0, 9, "HTTP/1.1 ") != 0) return 0;
    return std::stoi(raw.substr(9, 3));
  }
};

}  // namespace

TEST_F(DaemonBadInput, OversizedBodyIs413) {
  const std::string body(2 * 1024 * 1024, 'x');
  const std::string raw = rawExchange(port(), "POST /rpc HTTP/1.1\r\nHost: x\r\nContent-Length: " +
                                                  std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_EQ(413, statusOf(raw)) << raw.substr(0, 200);
}

TEST_F(DaemonBadInput, OversizedChunkedBodyIs413) {
  std::string request = "POST /rpc HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::string chunk(64 * 1024, 'y');
  for (int i = 0; i < 20; ++i) request += "10000\r\n" + chunk + "\r\n";
  request += "0\r\n\r\n";
  EXPECT_EQ(413, statusOf(rawExchange(port(), request)));
}

TEST_F(DaemonBadInput, OversizedHeaderIs431) {
  const std::string raw = rawExchange(
      port(), "GET / HTTP/1.1\r\nHost: x\r\nX-Big: " + std::string(100 * 1024, 'h') + "\r\n\r\n");
  EXPECT_EQ(431, statusOf(raw)) << raw.substr(0, 200);
}

TEST_F(DaemonBadInput, InvalidUtf8IsAParseError) {
  const HttpReply reply = httpPost(
      port(), "/rpc",
      "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"TestModule.echo\",\"params\":[\"\xc3\x28\"]}");
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ(-32700, json::parse(reply.body)["error"]["code"]);
}

TEST_F(DaemonBadInput, DeeplyNestedJsonIsAParseError) {
  const std::string deep = std::string(500000, '[') + std::string(500000, ']');
  const HttpReply reply = httpPost(port(), "/rpc", deep);
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ(-32700, json::parse(reply.body)["error"]["code"]);
}

TEST_F(DaemonBadInput, UnknownPathsAre404) {
  EXPECT_EQ(404, httpGet(port(), "/no/such/page").status);
  EXPECT_EQ(404, httpGet(port(), "/../../etc/passwd").status);
  EXPECT_EQ(404, httpPost(port(), "/elsewhere", "{}").status);
}

TEST_F(DaemonBadInput, OtherMethodsAre405) {
  for (const char* method : {"PUT", "DELETE", "PATCH", "OPTIONS"}) {
    HttpConnection connection(port());
    connection.send(method, "/rpc", "");
    const HttpReply reply = connection.readReply();
    EXPECT_EQ(405, reply.status) << method;
    EXPECT_EQ("GET, POST", reply.headers.at("allow")) << method;
  }
  // An answer to HEAD carries no body, so the next answer on the connection follows it
  // directly.
  const std::string raw =
      rawExchange(port(), "HEAD / HTTP/1.1\r\nHost: 127.0.0.1\r\n" + credentials() +
                              "\r\nGET / HTTP/1.1\r\nHost: 127.0.0.1\r\n" + credentials() +
                              "Connection: close\r\n\r\n");
  EXPECT_EQ(405, statusOf(raw)) << raw;
  const std::size_t second = raw.find("\r\n\r\n") + 4;
  EXPECT_EQ(200, statusOf(raw.substr(second))) << raw;
}

TEST_F(DaemonBadInput, GarbageIs400AndTheConnectionCloses) {
  for (const std::string& bytes :
       {std::string("NOT HTTP AT ALL\r\n\r\n"), std::string("GET / HTTP/1.1\r\nBad Header\r\n\r\n"),
        std::string("POST /rpc HTTP/1.1\r\nContent-Length: zz\r\n\r\n"),
        std::string("\x00\x01\x02\xff\r\n\r\n", 8)}) {
    EXPECT_EQ(400, statusOf(rawExchange(port(), bytes))) << bytes;
  }
}

// Two lengths for one body let a proxy and the broker cut the stream in different places
// (request smuggling): such a request is refused and its connection closed, and so is a
// length beside a chunked body.
TEST_F(DaemonBadInput, ConflictingBodyLengthsAre400AndTheConnectionCloses) {
  const std::string body = R"({"jsonrpc":"2.0","id":1,"method":"ZRBroker.getModules"})";
  const std::string start = "POST /rpc HTTP/1.1\r\nHost: 127.0.0.1\r\n" + credentials() +
                            "Content-Type: application/json\r\n";
  const std::string length = std::to_string(body.size());
  for (const std::string& headers :
       {"Content-Length: " + length + "\r\nContent-Length: 4\r\n",
        "Content-Length: 4\r\nContent-Length: " + length + "\r\n",
        "Content-Length: " + length + ", 4\r\n",
        "Transfer-Encoding: chunked\r\nContent-Length: " + length + "\r\n"}) {
    const std::string raw = rawExchange(port(), start + headers + "\r\n" + body);
    EXPECT_EQ(400, statusOf(raw)) << headers << raw.substr(0, 300);
    // Nothing after the refusal: the rest of the stream was not taken for a request.
    EXPECT_EQ(std::string::npos, raw.find("HTTP/1.1", 5)) << raw;
  }
}

TEST_F(DaemonBadInput, AClientThatSendsHalfARequestDoesNotBlockOthers) {
  RawConnection halfway(port());
  halfway.send("POST /rpc HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n{");
  // Its request waits for the rest of its body; everyone else goes on.
  EXPECT_EQ(json(5), rpc(port(), "TestModule.add", {2, 3})["result"]);
  bool closed = false;
  EXPECT_EQ("", halfway.readUntilClosed(std::chrono::milliseconds(100), &closed));
  EXPECT_FALSE(closed);
}

TEST_F(DaemonBadInput, ExpectContinueIsHonoured) {
  const std::string body = rpcRequest("TestModule.add", {20, 22});
  RawConnection connection(port());
  connection.send("POST /rpc HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n" +
                  credentials() + "Expect: 100-continue\r\nContent-Length: " +
                  std::to_string(body.size()) + "\r\n\r\n");
  EXPECT_EQ(0u, connection.readUntil("\r\n\r\n").find("HTTP/1.1 100 Continue\r\n"));
  connection.send(body);
  const std::string answer = connection.readUntil("}");
  EXPECT_EQ(200, statusOf(answer)) << answer;
  EXPECT_NE(std::string::npos, answer.find("\"result\":42")) << answer;
}
