// Attacks on a real tuqvu over loopback: pages of other sites and rebound DNS names must
// not reach the robot through a visitor's browser, and once the broker listens beyond
// loopback nothing is served without the installation's secret, the file-transfer
// server's writes included.
#include <arpa/inet.h>
#include <common/files.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/beast/core/detail/base64.hpp>
#include <boost/filesystem.hpp>
#include <fstream>
#include <sstream>
#include <string>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;

using tuqvutest::readFile;

namespace {

const std::map<std::string, std::string> kJson = {{"Content-Type", "application/json"}};

std::map<std::string, std::string> with(std::map<std::string, std::string> headers,
                                        const std::map<std::string, std::string>& more) {
  for (const auto& header : more) headers[header.first] = header.second;
  return headers;
}

std::string basic(const std::string& credentials) {
  std::string encoded(boost::beast::detail::base64::encoded_size(credentials.size()), '\0');
  encoded.resize(
      boost::beast::detail::base64::encode(encoded.data(), credentials.data(), credentials.size()));
  return "Basic " + encoded;
}

std::string secretIn(const std::string& home) {
  std::string secret = readFile(home + "/.local/share/tuqvu/secret");
  while (!secret.empty() && secret.back() == '\n') secret.pop_back();
  return secret;
}

std::string secretOf(const TuqvuProcess& broker) {
  return secretIn(broker.home());
}

// One request on a connection of its own, with exactly these headers.
HttpReply ask(int port, const std::string& method, const std::string& target,
              const std::map<std::string, std::string>& headers, const std::string& body = "") {
  HttpConnection connection(port);
  return connection.request(method, target, body, headers);
}

std::string put(int port, const std::string& path, const std::string& body,
                const std::string& authorization) {
  RawConnection connection(port);
  connection.send("PUT " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
                  (authorization.empty() ? "" : "Authorization: " + authorization + "\r\n") +
                  "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  return connection.readUntilClosed(std::chrono::milliseconds(2000));
}

class OnLoopback : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    broker = new TuqvuProcess({"--module", "TestModule=" + testModulePath()});
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(0, broker->terminate(SIGTERM)) << broker->stderrText();
    delete broker;
    broker = nullptr;
  }
  static int port() { return broker->port(); }
  static TuqvuProcess* broker;
};

TuqvuProcess* OnLoopback::broker = nullptr;

}  // namespace

TEST_F(OnLoopback, ACallFromAPageOfAnotherOriginIsRefused) {
  const std::string call = rpcRequest("TestModule.add", {2, 3});
  const HttpReply refused =
      ask(port(), "POST", "/rpc", with(kJson, {{"Origin", "http://attacker.example"}}), call);
  EXPECT_EQ(403, refused.status);
  EXPECT_EQ(std::string::npos, refused.body.find("result"));
  const HttpReply own =
      ask(port(), "POST", "/rpc", with(kJson, {{"Origin", "http://127.0.0.1"}}), call);
  EXPECT_EQ(200, own.status);
  EXPECT_EQ(5, json::parse(own.body)["result"]);
}

TEST_F(OnLoopback, AnEvalThatABrowserMarksCrossSiteIsRefused) {
  const std::string target = "/TestModule/?eval=TestModule.add(2,3)";
  EXPECT_EQ(403, ask(port(), "GET", target, {{"Sec-Fetch-Site", "cross-site"}}).status);
  EXPECT_EQ(403, ask(port(), "GET", target, {{"Sec-Fetch-Site", "same-site"}}).status);
  const HttpReply own = ask(port(), "GET", target, {{"Sec-Fetch-Site", "same-origin"}});
  EXPECT_EQ(200, own.status);
  EXPECT_EQ(5, json::parse(own.body)["result"]);
}

TEST_F(OnLoopback, ARequestForAReboundHostNameIsRefused) {
  const HttpReply rebound = ask(port(), "GET", "/", {{"Host", "attacker.example:9600"}});
  EXPECT_EQ(403, rebound.status);
  EXPECT_NE(std::string::npos, rebound.body.find("attacker.example")) << rebound.body;
  EXPECT_EQ(403, ask(port(), "POST", "/rpc", with(kJson, {{"Host", "attacker.example"}}),
                     rpcRequest("TestModule.add", {2, 3}))
                     .status);
  EXPECT_EQ(200, ask(port(), "GET", "/", {{"Host", "localhost:9600"}}).status);
}

TEST_F(OnLoopback, ACallSentAsPlainTextIsRefused) {
  const std::string call = rpcRequest("TestModule.add", {2, 3});
  EXPECT_EQ(415, ask(port(), "POST", "/rpc", {{"Content-Type", "text/plain"}}, call).status);
  EXPECT_EQ(415, ask(port(), "POST", "/rpc",
                     {{"Content-Type", "application/x-www-form-urlencoded"}}, call)
                     .status);
}

TEST_F(OnLoopback, PagesCarryASecurityPolicy) {
  HttpReply page = httpGet(port(), "/");
  EXPECT_EQ(200, page.status);
  EXPECT_NE(std::string::npos, page.headers["content-security-policy"].find("default-src 'self'"));
  EXPECT_EQ("nosniff", page.headers["x-content-type-options"]);
  EXPECT_EQ("DENY", page.headers["x-frame-options"]);
}

TEST_F(OnLoopback, TheFirstStartMakesAPrivateSecret) {
  struct stat status {};
  const std::string path = broker->home() + "/.local/share/tuqvu/secret";
  ASSERT_EQ(0, ::stat(path.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  EXPECT_EQ(32u, secretOf(*broker).size());
}

// The broker on every interface, with the behavior manager and its file server.
class BeyondLoopback : public ::testing::Test {
protected:
  void SetUp() override {
    TuqvuProcess::Setup setup;
    setup.args = {"--bind", "0.0.0.0"};
    setup.env["TMPDIR"] = tmp.path();
    broker = std::make_unique<TuqvuProcess>(setup);
    secret = secretOf(*broker);
    ASSERT_EQ(32u, secret.size()) << broker->stderrText();
  }
  std::map<std::string, std::string> signedIn() const {
    return {{"Authorization", basic("tuqvu:" + secret)}};
  }

  TempDir tmp;
  std::unique_ptr<TuqvuProcess> broker;
  std::string secret;
};

TEST_F(BeyondLoopback, CallsEventsPagesAndEvalNeedTheSecret) {
  const int port = broker->port();
  const std::string call = rpcRequest("ZRMemory.getDataList", {""});
  for (const std::string& target :
       {"/", "/ZRMemory/", "/ZRMemory/?eval=ZRMemory.getDataList('')", "/events"}) {
    HttpReply refused = ask(port, "GET", target, {});
    EXPECT_EQ(401, refused.status) << target;
    EXPECT_EQ("Basic realm=\"tuqvu\", charset=\"UTF-8\"", refused.headers["www-authenticate"]);
  }
  EXPECT_EQ(401, ask(port, "POST", "/rpc", kJson, call).status);
  EXPECT_EQ(401, ask(port, "POST", "/rpc",
                     with(kJson, {{"Authorization", basic("tuqvu:not-the-secret")}}), call)
                     .status);
  EXPECT_EQ(200, ask(port, "GET", "/ZRMemory/?eval=ZRMemory.getDataList('')", signedIn()).status);
  EXPECT_EQ(200, ask(port, "POST", "/rpc", with(kJson, signedIn()), call).status);
}

TEST_F(BeyondLoopback, ABrowserSignsInOnceAndKeepsAStrictHttpOnlyCookie) {
  const int port = broker->port();
  HttpReply first = ask(port, "GET", "/", signedIn());
  ASSERT_EQ(200, first.status);
  const std::string cookie = first.headers["set-cookie"];
  EXPECT_NE(std::string::npos, cookie.find("HttpOnly")) << cookie;
  EXPECT_NE(std::string::npos, cookie.find("SameSite=Strict")) << cookie;
  EXPECT_EQ(std::string::npos, cookie.find(secret)) << "the cookie must not carry the secret";
  const std::string session = cookie.substr(0, cookie.find(';'));
  EXPECT_EQ(200, ask(port, "GET", "/ZRMemory/", {{"Cookie", session}}).status);
  EXPECT_EQ(200, ask(port, "POST", "/rpc", with(kJson, {{"Cookie", session}}),
                     rpcRequest("ZRMemory.getDataList", {""}))
                     .status);
  EXPECT_EQ(401, ask(port, "GET", "/ZRMemory/", {{"Cookie", "tuqvu-session=guessed"}}).status);
}

TEST_F(BeyondLoopback, TheFileServerWritesAndDeletesOnlyWithTheSecret) {
  const int port = broker->port();
  const json filePort =
      json::parse(ask(port, "POST", "/rpc", with(kJson, signedIn()),
                      rpcRequest("ZRBehaviorManager._httpFileTransferPort", json::array()))
                      .body)["result"];
  ASSERT_TRUE(filePort.is_number_integer());
  const std::string file = broker->home() + "/.tuqvu/behaviors/planted/behavior.xar";

  const std::string refused =
      put(filePort.get<int>(), "/behaviors/User/planted/behavior.xar", "<behavior/>", "");
  EXPECT_EQ(0u, refused.find("HTTP/1.1 401 Unauthorized\n")) << refused;
  EXPECT_NE(std::string::npos, refused.find("WWW-Authenticate: Basic realm=\"tuqvu\"\n"));
  EXPECT_FALSE(fs::exists(file));
  const std::string wrong = put(filePort.get<int>(), "/behaviors/User/planted/behavior.xar",
                                "<behavior/>", basic("tuqvu:wrong"));
  EXPECT_EQ(0u, wrong.find("HTTP/1.1 401 Unauthorized\n")) << wrong;
  EXPECT_FALSE(fs::exists(file));

  const std::string accepted = put(filePort.get<int>(), "/behaviors/User/planted/behavior.xar",
                                   "<behavior/>", basic("tuqvu:" + secret));
  EXPECT_EQ(0u, accepted.find("HTTP/1.1 200 OK\n")) << accepted;
  EXPECT_EQ("<behavior/>", readFile(file));

  RawConnection remover(filePort.get<int>());
  remover.send("DELETE /behaviors/User/planted HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  EXPECT_EQ(
      0u,
      remover.readUntilClosed(std::chrono::milliseconds(2000)).find("HTTP/1.1 401 Unauthorized\n"));
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(BeyondLoopback, TuqvuCallSendsTheSecretOfItsUser) {
  const std::string url = "http://127.0.0.1:" + std::to_string(broker->port());
  const CommandResult result =
      runCommand({tuqvuCallPath(), "--url", url, "ZRBroker.getModules"},
                 {{"HOME", broker->home()}, {"XDG_DATA_HOME", broker->home() + "/.local/share"}});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_NE(std::string::npos, result.out.find("ZRMemory")) << result.out;
  const CommandResult stranger =
      runCommand({tuqvuCallPath(), "--url", url, "ZRBroker.getModules"},
                 {{"HOME", tmp.path()}, {"XDG_DATA_HOME", tmp.path() + "/.local/share"}});
  EXPECT_NE(0, stranger.status);
  EXPECT_NE(std::string::npos, stranger.err.find("401")) << stranger.err;
}

TEST(SecretAcrossStarts, TheSameHomeKeepsTheSameSecret) {
  TempDir home;
  std::string first, second;
  for (std::string* secret : {&first, &second}) {
    TuqvuProcess::Setup setup;
    setup.args = {"--module", "TestModule=" + testModulePath()};
    setup.env["HOME"] = home.path();
    TuqvuProcess broker(setup);
    *secret = secretIn(home.path());
    EXPECT_EQ(0, broker.terminate(SIGTERM));
  }
  EXPECT_EQ(32u, first.size());
  EXPECT_EQ(first, second);
}

TEST(InternalMethods, TheUserLibraryCannotBePointedAtTheInstallationOrTheSystem) {
  TempDir tmp;
  TuqvuProcess::Setup setup;
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  fs::create_directories(broker.prefix() + "/lib");
  fs::create_directories(broker.prefix() + "/share/tuqvu/behaviors");
  const std::string home = broker.home();
  for (const std::string& path :
       {broker.prefix(), broker.prefix() + "/lib", broker.prefix() + "/share",
        fs::path(broker.prefix()).parent_path().string(), std::string("/"), home, home + "/",
        home + "/../" + fs::path(home).filename().string()}) {
    const json reply = rpc(broker.port(), "ZRBehaviorManager._setBehaviorsPath", {path});
    ASSERT_TRUE(reply.contains("error")) << path << ": " << reply;
    EXPECT_NE(std::string::npos,
              reply["error"]["data"]["description"].get<std::string>().find("is refused"))
        << path << ": " << reply;
  }
  // A library of its own below the home directory is fine.
  fs::create_directories(home + "/elsewhere");
  const json accepted =
      rpc(broker.port(), "ZRBehaviorManager._setBehaviorsPath", {home + "/elsewhere"});
  EXPECT_FALSE(accepted.contains("error")) << accepted;
}

namespace {

// One whole exchange with 127.0.0.x:port over a plain socket; "" when the connection is
// refused.
std::string exchangeWith(const std::string& address, int port, const std::string& request) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<uint16_t>(port));
  ::inet_pton(AF_INET, address.c_str(), &peer.sin_addr);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) != 0) {
    ::close(fd);
    return "";
  }
  ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  std::string reply;
  char buffer[4096];
  timeval wait{5, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
  for (ssize_t count; (count = ::recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
    reply.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(fd);
  return reply;
}

}  // namespace

TEST(FileServerAddress, FollowsTheBrokersBindAddress) {
  TuqvuProcess::Setup setup;
  setup.args = {"--bind", "127.0.0.2"};
  TuqvuProcess broker(setup);
  const std::string call = rpcRequest("ZRBehaviorManager._httpFileTransferPort", json::array());
  const std::string reply =
      exchangeWith("127.0.0.2", broker.port(),
                   "POST /rpc HTTP/1.1\r\nHost: 127.0.0.2\r\nContent-Type: application/json\r\n"
                   "Connection: close\r\nContent-Length: " +
                       std::to_string(call.size()) + "\r\n\r\n" + call);
  const std::size_t body = reply.find("\r\n\r\n");
  ASSERT_NE(std::string::npos, body) << reply;
  const json port = json::parse(reply.substr(body + 4))["result"];
  ASSERT_TRUE(port.is_number_integer()) << reply;

  const std::string get =
      "GET /tmp/none.txt HTTP/1.1\r\nHost: 127.0.0.2\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(0u, exchangeWith("127.0.0.2", port.get<int>(), get).find("HTTP/1.1 404 Not Found"));
  EXPECT_EQ("", exchangeWith("127.0.0.1", port.get<int>(), get))
      << "the file server listens beyond the broker's address";
  EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
}

TEST(StatusPage, AHostileBehaviorNameIsShownEscapedByARealTuqvu) {
  TempDir home;
  const std::string hostile = "x<img src=x onerror=alert(1)>";
  const fs::path folder = fs::path(home.path()) / ".tuqvu/behaviors" / hostile;
  fs::create_directories(folder);
  std::ofstream((folder / "behavior.xar").string()) << "<behavior><wait ms=\"1\"/></behavior>";

  TuqvuProcess::Setup setup;
  setup.env["HOME"] = home.path();
  TuqvuProcess broker(setup);
  const HttpReply page = ask(broker.port(), "GET", "/ZRBehaviorManager/", {});
  ASSERT_EQ(200, page.status) << page.body;
  EXPECT_NE(std::string::npos, page.body.find("x&lt;img src=x onerror=alert(1)&gt;")) << page.body;
  EXPECT_EQ(std::string::npos, page.body.find("<img")) << page.body;
  EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
}
