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
  std::string secret = readFile(home + "/.config/tuqvu/secret");
  while (!secret.empty() && secret.back() == '\n') secret.pop_back();
  return secret;
}

std::string secretOf(const TuqvuProcess& broker) {
  return secretIn(broker.home());
}

// One request on a connection of its own, with exactly these headers: no credentials
// unless they are among them.
HttpReply ask(int port, const std::string& method, const std::string& target,
              const std::map<std::string, std::string>& headers, const std::string& body = "") {
  std::map<std::string, std::string> exactly = headers;
  exactly.emplace("Authorization", "");
  HttpConnection connection(port);
  return connection.request(method, target, body, exactly);
}

// "tuqvu-session=..." as a browser keeps it after signing in with `authorization`.
std::string sessionCookie(int port, const std::string& authorization) {
  const HttpReply page = ask(port, "GET", "/", {{"Authorization", authorization}});
  EXPECT_EQ(200, page.status) << page.body;
  const std::string cookie = page.headers.count("set-cookie") ? page.headers.at("set-cookie") : "";
  return cookie.substr(0, cookie.find(';'));
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
  // The headers with the daemon's secret added.
  static std::map<std::string, std::string> withSecret(std::map<std::string, std::string> headers) {
    headers["Authorization"] = broker->authorization();
    return headers;
  }
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
      ask(port(), "POST", "/rpc", withSecret(with(kJson, {{"Origin", "http://127.0.0.1"}})), call);
  EXPECT_EQ(200, own.status);
  EXPECT_EQ(5, json::parse(own.body)["result"]);
}

TEST_F(OnLoopback, AnEvalThatABrowserMarksCrossSiteIsRefused) {
  const std::string target = "/TestModule/?eval=TestModule.add(2,3)";
  const std::string cookie = sessionCookie(port(), broker->authorization());
  EXPECT_EQ(
      403,
      ask(port(), "GET", target, {{"Sec-Fetch-Site", "cross-site"}, {"Cookie", cookie}}).status);
  EXPECT_EQ(
      403,
      ask(port(), "GET", target, {{"Sec-Fetch-Site", "same-site"}, {"Cookie", cookie}}).status);
  const HttpReply own =
      ask(port(), "GET", target, {{"Sec-Fetch-Site", "same-origin"}, {"Cookie", cookie}});
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
  EXPECT_EQ(200, ask(port(), "GET", "/", withSecret({{"Host", "localhost:9600"}})).status);
}

TEST_F(OnLoopback, ACallSentAsPlainTextIsRefused) {
  const std::string call = rpcRequest("TestModule.add", {2, 3});
  EXPECT_EQ(415,
            ask(port(), "POST", "/rpc", withSecret({{"Content-Type", "text/plain"}}), call).status);
  EXPECT_EQ(415, ask(port(), "POST", "/rpc",
                     withSecret({{"Content-Type", "application/x-www-form-urlencoded"}}), call)
                     .status);
}

TEST_F(OnLoopback, PagesCarryASecurityPolicy) {
  HttpReply page = httpGet(port(), "/");
  EXPECT_EQ(200, page.status);
  EXPECT_NE(std::string::npos, page.headers["content-security-policy"].find("default-src 'self'"));
  EXPECT_EQ("nosniff", page.headers["x-content-type-options"]);
  EXPECT_EQ("DENY", page.headers["x-frame-options"]);
}

// Every program of every account reaches loopback: it is asked for the secret as well.
TEST_F(OnLoopback, CallsEventsPagesAndEvalNeedTheSecret) {
  const std::string call = rpcRequest("TestModule.add", {2, 3});
  for (const char* target :
       {"/", "/TestModule/", "/TestModule/?eval=TestModule.add(2,3)", "/events"}) {
    const HttpReply refused = ask(port(), "GET", target, {});
    EXPECT_EQ(401, refused.status) << target;
    EXPECT_EQ("Basic realm=\"tuqvu\", charset=\"UTF-8\"", refused.headers.at("www-authenticate"));
  }
  EXPECT_EQ(401, ask(port(), "POST", "/rpc", kJson, call).status);
  EXPECT_EQ(401, ask(port(), "POST", "/rpc",
                     with(kJson, {{"Authorization", basic("tuqvu:not-the-secret")}}), call)
                     .status);
  const HttpReply own = ask(port(), "POST", "/rpc", withSecret(kJson), call);
  EXPECT_EQ(200, own.status);
  EXPECT_EQ(5, json::parse(own.body)["result"]);
}

TEST(TrustedLoopback, ServesWithoutTheSecretOnlyOnLoopbackAndOnlyWhenTold) {
  TuqvuProcess trusted({"--trust-loopback", "--module", "TestModule=" + testModulePath()});
  const std::string call = rpcRequest("TestModule.add", {2, 3});
  const HttpReply reply = ask(trusted.port(), "POST", "/rpc", kJson, call);
  EXPECT_EQ(200, reply.status) << reply.body;
  EXPECT_EQ(5, json::parse(reply.body)["result"]);
  EXPECT_EQ(200, ask(trusted.port(), "GET", "/TestModule/?eval=TestModule.add(2,3)", {}).status);
  EXPECT_EQ(0, trusted.terminate(SIGTERM)) << trusted.stderrText();

  TuqvuProcess::Setup open;
  open.args = {"--bind", "0.0.0.0", "--trust-loopback", "--module",
               "TestModule=" + testModulePath()};
  TuqvuProcess beyond(open);
  EXPECT_EQ(401, ask(beyond.port(), "POST", "/rpc", kJson, call).status);
  EXPECT_EQ(0, beyond.terminate(SIGTERM)) << beyond.stderrText();
}

TEST(FileServerOnLoopback, EveryMethodNeedsTheSecret) {
  TempDir tmp;
  TuqvuProcess::Setup setup;
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  const json filePort =
      rpc(broker.port(), "ZRBehaviorManager._httpFileTransferPort", json::array())["result"];
  ASSERT_TRUE(filePort.is_number_integer()) << broker.stderrText();
  std::ofstream(tmp.path() + "/kept.txt") << "kept";
  const auto exchange = [&](const std::string& head) {
    RawConnection connection(filePort.get<int>());
    connection.send(head + "Host: 127.0.0.1\r\nConnection: close\r\n\r\n");
    return connection.readUntilClosed(std::chrono::milliseconds(5000));
  };
  for (const std::string& request :
       {std::string("GET /tmp/kept.txt HTTP/1.1\r\n"),
        std::string("PUT /tmp/planted.txt HTTP/1.1\r\nContent-Length: 0\r\n"),
        std::string("DELETE /tmp/kept.txt HTTP/1.1\r\n")}) {
    EXPECT_EQ(0u, exchange(request).find("HTTP/1.1 401 Unauthorized\n")) << request;
  }
  EXPECT_EQ("kept", readFile(tmp.path() + "/kept.txt"));
  EXPECT_FALSE(fs::exists(tmp.path() + "/planted.txt"));
  const std::string signedIn =
      exchange("GET /tmp/kept.txt HTTP/1.1\r\nAuthorization: " + broker.authorization() + "\r\n");
  EXPECT_EQ(0u, signedIn.find("HTTP/1.1 200 OK\n")) << signedIn;
  EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
}

TEST_F(OnLoopback, TheFirstStartMakesAPrivateSecret) {
  struct stat status {};
  const std::string path = broker->home() + "/.config/tuqvu/secret";
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
  for (const char* target :
       {"/", "/ZRMemory/", "/ZRMemory/?eval=ZRMemory.getDataList('')", "/events"}) {
    HttpReply refused = ask(port, "GET", target, {});
    EXPECT_EQ(401, refused.status) << target;
    EXPECT_EQ("Basic realm=\"tuqvu\", charset=\"UTF-8\"", refused.headers["www-authenticate"]);
  }
  EXPECT_EQ(401, ask(port, "POST", "/rpc", kJson, call).status);
  EXPECT_EQ(401, ask(port, "POST", "/rpc",
                     with(kJson, {{"Authorization", basic("tuqvu:not-the-secret")}}), call)
                     .status);
  EXPECT_EQ(200, ask(port, "POST", "/rpc", with(kJson, signedIn()), call).status);
}

// An <img> of any page makes a browser send the Basic credentials it holds, never the
// SameSite=Strict cookie: "?eval=" runs only with the cookie of a signed-in page.
TEST_F(BeyondLoopback, AnEvalWithBasicCredentialsAloneIsRefusedAndRunsWithTheSessionCookie) {
  const int port = broker->port();
  const std::string eval = "/ZRMemory/?eval=ZRMemory.insertData('planted',1)";
  const HttpReply basicOnly = ask(port, "GET", eval, signedIn());
  EXPECT_EQ(403, basicOnly.status);
  EXPECT_NE(std::string::npos, basicOnly.body.find("sign in")) << basicOnly.body;
  EXPECT_EQ(std::string::npos, basicOnly.body.find("result"));
  const json before = json::parse(ask(port, "POST", "/rpc", with(kJson, signedIn()),
                                      rpcRequest("ZRMemory.getDataList", {"planted"}))
                                      .body);
  EXPECT_EQ(json::array(), before["result"]) << before;

  // The page signs in once; its own requests carry the cookie (and the credentials).
  const HttpReply page = ask(port, "GET", "/ZRMemory/", signedIn());
  ASSERT_EQ(200, page.status);
  const std::string cookie = page.headers.at("set-cookie");
  const std::string session = cookie.substr(0, cookie.find(';'));
  EXPECT_EQ(200, ask(port, "GET", eval, {{"Cookie", session}}).status);
  EXPECT_EQ(200, ask(port, "GET", eval, with(signedIn(), {{"Cookie", session}})).status);
  const json after = json::parse(ask(port, "POST", "/rpc", with(kJson, signedIn()),
                                     rpcRequest("ZRMemory.getDataList", {"planted"}))
                                     .body);
  EXPECT_EQ(json::array({"planted"}), after["result"]) << after;
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
                 {{"HOME", broker->home()}, {"XDG_CONFIG_HOME", broker->home() + "/.config"}});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_NE(std::string::npos, result.out.find("ZRMemory")) << result.out;
  const CommandResult stranger =
      runCommand({tuqvuCallPath(), "--url", url, "ZRBroker.getModules"},
                 {{"HOME", tmp.path()}, {"XDG_CONFIG_HOME", tmp.path() + "/.config"}});
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

// Earlier versions kept the secret in the data folder, which the file server serves.
TEST(SecretAcrossStarts, ASecretInTheServedDataFolderMovesOutAndStaysTheSame) {
  TempDir home;
  const std::string old = home.path() + "/.local/share/tuqvu/secret";
  fs::create_directories(fs::path(old).parent_path());
  const std::string secret = "00112233445566778899aabbccddeeff";
  std::ofstream(old) << secret << "\n";
  ASSERT_EQ(0, ::chmod(old.c_str(), 0600));
  TuqvuProcess::Setup setup;
  setup.args = {"--module", "TestModule=" + testModulePath()};
  setup.env["HOME"] = home.path();
  TuqvuProcess broker(setup);
  EXPECT_EQ(secret, secretIn(home.path()));
  EXPECT_FALSE(fs::exists(old));
  struct stat status {};
  ASSERT_EQ(0, ::stat((home.path() + "/.config/tuqvu/secret").c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  EXPECT_EQ(0, broker.terminate(SIGTERM));
}

TEST(SecretAcrossStarts, AWeakSecretStopsAStartBeyondLoopback) {
  TempDir home;
  const std::string file = home.path() + "/.config/tuqvu/secret";
  fs::create_directories(fs::path(file).parent_path());
  std::ofstream(file) << "0\n";
  ASSERT_EQ(0, ::chmod(file.c_str(), 0600));
  TuqvuProcess::Setup setup;
  setup.args = {"--bind", "0.0.0.0", "--module", "TestModule=" + testModulePath()};
  setup.env["HOME"] = home.path();
  setup.waitUntilListening = false;
  TuqvuProcess broker(setup);
  EXPECT_EQ(1, broker.waitExit());
  EXPECT_NE(std::string::npos, broker.stderrText().find("too weak")) << broker.stderrText();
}

TEST(InternalMethods, TheUserLibraryCannotBePointedAtTheInstallationOrTheSystem) {
  TempDir tmp;
  TuqvuProcess::Setup setup;
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  fs::create_directories(broker.prefix() + "/lib");
  fs::create_directories(broker.prefix() + "/share/tuqvu/behaviors");
  const std::string home = broker.home();
  // Links and ".." that reach the installation from elsewhere.
  fs::create_directories(home + "/spellings");
  fs::create_directory_symlink(broker.prefix(), home + "/spellings/prefix-link");
  fs::create_directory_symlink("/usr/lib", home + "/spellings/lib-link");
  const std::string prefixName = fs::path(broker.prefix()).filename().string();
  for (const std::string& path : {broker.prefix(),
                                  broker.prefix() + "/lib",
                                  broker.prefix() + "/share",
                                  fs::path(broker.prefix()).parent_path().string(),
                                  std::string("/"),
                                  home,
                                  home + "/",
                                  home + "/../" + fs::path(home).filename().string(),
                                  std::string("//"),
                                  std::string("///"),
                                  std::string("/lib/.."),
                                  std::string("/bin/.."),
                                  std::string("/usr"),
                                  std::string("/etc/tuqvu"),
                                  "/bin/.." + broker.prefix(),
                                  broker.prefix() + "/../" + prefixName + "/lib",
                                  home + "/spellings/prefix-link",
                                  home + "/spellings/prefix-link/lib",
                                  home + "/spellings/lib-link/..",
                                  home + "/spellings/lib-link/../../" + broker.prefix()}) {
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

TEST(InternalMethods, TheUserLibraryIsTheFolderThatWasChecked) {
  TempDir tmp;
  TuqvuProcess::Setup setup;
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  const std::string home = broker.home();
  // "jump" leads elsewhere, so "jump/../library" is checked and used as that elsewhere's
  // library, not as home/library.
  fs::create_directories(home + "/real/inner");
  fs::create_directories(home + "/library");
  fs::create_directories(home + "/real/library");
  fs::create_directory_symlink(home + "/real/inner", home + "/jump");
  const json accepted =
      rpc(broker.port(), "ZRBehaviorManager._setBehaviorsPath", {home + "/jump/../library"});
  ASSERT_FALSE(accepted.contains("error")) << accepted;
  fs::create_directories(tmp.path() + "/source/hello");
  std::ofstream(tmp.path() + "/source/hello/behavior.xar") << "<behavior/>";
  const json installed = rpc(broker.port(), "ZRBehaviorManager.installBehavior",
                             {tmp.path() + "/source/hello", "hello", false});
  ASSERT_FALSE(installed.contains("error")) << installed;
  EXPECT_TRUE(fs::exists(home + "/real/library/hello/behavior.xar"));
  EXPECT_FALSE(fs::exists(home + "/library/hello"));
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
  TempDir tmp;
  TuqvuProcess::Setup setup;
  setup.args = {"--bind", "127.0.0.2"};
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  // A file only this broker serves: another test's file server may hold the same port
  // number on 127.0.0.1 (the two addresses do not collide), and must not be taken for it.
  const std::string marker = "served by the broker on 127.0.0.2 only";
  std::ofstream(tmp.path() + "/marker.txt") << marker;
  const std::string call = rpcRequest("ZRBehaviorManager._httpFileTransferPort", json::array());
  const std::string reply =
      exchangeWith("127.0.0.2", broker.port(),
                   "POST /rpc HTTP/1.1\r\nHost: 127.0.0.2\r\nContent-Type: application/json\r\n"
                   "Authorization: " +
                       broker.authorization() + "\r\nConnection: close\r\nContent-Length: " +
                       std::to_string(call.size()) + "\r\n\r\n" + call);
  const std::size_t body = reply.find("\r\n\r\n");
  ASSERT_NE(std::string::npos, body) << reply;
  const json port = json::parse(reply.substr(body + 4))["result"];
  ASSERT_TRUE(port.is_number_integer()) << reply;

  const std::string get = "GET /tmp/marker.txt HTTP/1.1\r\nHost: 127.0.0.2\r\nAuthorization: " +
                          broker.authorization() + "\r\nConnection: close\r\n\r\n";
  const std::string own = exchangeWith("127.0.0.2", port.get<int>(), get);
  EXPECT_EQ(0u, own.find("HTTP/1.1 200 OK")) << own;
  EXPECT_NE(std::string::npos, own.find(marker)) << own;
  EXPECT_EQ(std::string::npos, exchangeWith("127.0.0.1", port.get<int>(), get).find(marker))
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
  const HttpReply page =
      ask(broker.port(), "GET", "/ZRBehaviorManager/", {{"Authorization", broker.authorization()}});
  ASSERT_EQ(200, page.status) << page.body;
  EXPECT_NE(std::string::npos, page.body.find("x&lt;img src=x onerror=alert(1)&gt;")) << page.body;
  EXPECT_EQ(std::string::npos, page.body.find("<img")) << page.body;
  EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
}
