// The file API on the broker's own port (/files/...) of a real tuqvu with the behavior
// manager: what HTTP/1.1 clients expect of a file server (lengths, types, entity tags,
// dates, ranges, conditional requests, chunked and announced bodies, listings), the
// same folders, confinement and credentials as the file-transfer server, and no client
// holding up another.
#include <common/eventually.h>
#include <common/files.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;

namespace {

using tuqvutest::writeFile;

// One broker for the suite: its temporary folder is /files/tmp/, its user behaviors
// /files/behaviors/User/. Each test uses names of its own.
class FileApi : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    sHome = std::make_unique<TempDir>();
    sTmp = std::make_unique<TempDir>();
    TuqvuProcess::Setup setup;
    setup.env["HOME"] = sHome->path();
    setup.env["TMPDIR"] = sTmp->path();
    setup.env["TUQVU_FILE_PUT_MAX_BYTES"] = "100000";
    sBroker = std::make_unique<TuqvuProcess>(setup);
  }
  static void TearDownTestSuite() {
    sBroker.reset();
    sTmp.reset();
    sHome.reset();
  }

  static int port() { return sBroker->port(); }
  static fs::path tmp() { return fs::path(sTmp->path()); }
  static HttpReply request(const std::string& method, const std::string& target,
                           const std::string& body = "",
                           const std::map<std::string, std::string>& headers = {}) {
    HttpConnection connection(port());
    return connection.request(method, target, body, headers);
  }
  // The status line and headers of a raw exchange, for HEAD and interim answers.
  static std::string raw(const std::string& bytes) { return rawExchange(port(), bytes, 1500); }
  static std::string head(const std::string& method, const std::string& target,
                          const std::string& extra = "") {
    return method + " " + target +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: " + sBroker->authorization() +
           "\r\nConnection: close\r\n" + extra;
  }

  static std::unique_ptr<TempDir> sHome;
  static std::unique_ptr<TempDir> sTmp;
  static std::unique_ptr<TuqvuProcess> sBroker;
};

std::unique_ptr<TempDir> FileApi::sHome;
std::unique_ptr<TempDir> FileApi::sTmp;
std::unique_ptr<TuqvuProcess> FileApi::sBroker;

TEST_F(FileApi, AStoredFileIsReadBackWithItsLengthTypeEntityTagAndDate) {
  const HttpReply put = request("PUT", "/files/tmp/read-back.txt", "hello, robot");
  ASSERT_EQ(201, put.status) << put.body;
  ASSERT_EQ(1u, put.headers.count("etag"));
  EXPECT_EQ("hello, robot", tuqvutest::readFile(tmp() / "read-back.txt"));

  const HttpReply get = request("GET", "/files/tmp/read-back.txt");
  EXPECT_EQ(200, get.status);
  EXPECT_EQ("hello, robot", get.body);
  EXPECT_EQ("12", get.headers.at("content-length"));
  EXPECT_EQ("text/plain", get.headers.at("content-type"));
  EXPECT_EQ(put.headers.at("etag"), get.headers.at("etag"));
  EXPECT_EQ("bytes", get.headers.at("accept-ranges"));
  struct stat status;
  ASSERT_EQ(0, ::stat((tmp() / "read-back.txt").c_str(), &status));
  char date[64];
  std::tm parts{};
  ::gmtime_r(&status.st_mtim.tv_sec, &parts);
  std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  EXPECT_EQ(date, get.headers.at("last-modified"));
}

TEST_F(FileApi, AHeadAnswersTheHeadersOfAGetWithoutTheBody) {
  writeFile(tmp() / "head.bin", std::string(5000, 'x'));
  const std::string answer = raw(head("HEAD", "/files/tmp/head.bin") + "\r\n");
  EXPECT_EQ(0u, answer.find("HTTP/1.1 200 OK\r\n")) << answer;
  EXPECT_NE(std::string::npos, answer.find("Content-Length: 5000\r\n")) << answer;
  EXPECT_NE(std::string::npos, answer.find("ETag: \"")) << answer;
  // Nothing follows the blank line.
  EXPECT_EQ(answer.size(), answer.find("\r\n\r\n") + 4) << answer;
}

TEST_F(FileApi, PercentEncodedUtf8NamesAreDecodedToTheNamesOnDisk) {
  const HttpReply put = request("PUT", "/files/tmp/n%C3%A9%20x.txt", "accented");
  ASSERT_EQ(201, put.status) << put.body;
  EXPECT_EQ("accented", tuqvutest::readFile(tmp() / "n\xc3\xa9 x.txt"));
  EXPECT_FALSE(fs::exists(tmp() / "n%C3%A9%20x.txt"));
  writeFile(tmp() / "a b.txt", "spaced");
  EXPECT_EQ("spaced", request("GET", "/files/tmp/a%20b.txt").body);
}

TEST_F(FileApi, ReplacingAFileAnswersNoContentAndChangesItsEntityTag) {
  const HttpReply first = request("PUT", "/files/tmp/replaced.txt", "one");
  ASSERT_EQ(201, first.status);
  const HttpReply second = request("PUT", "/files/tmp/replaced.txt", "two, longer");
  EXPECT_EQ(204, second.status);
  EXPECT_NE(first.headers.at("etag"), second.headers.at("etag"));
  EXPECT_EQ("two, longer", tuqvutest::readFile(tmp() / "replaced.txt"));
}

TEST_F(FileApi, AWriteNamingAnOldVersionIsRefusedAndTheNewerChangeKept) {
  const HttpReply created = request("PUT", "/files/tmp/shared.txt", "base");
  const std::string base = created.headers.at("etag");
  // Two writers read the same version; the first to write wins.
  ASSERT_EQ(204, request("PUT", "/files/tmp/shared.txt", "first", {{"If-Match", base}}).status);
  const HttpReply late = request("PUT", "/files/tmp/shared.txt", "second", {{"If-Match", base}});
  EXPECT_EQ(412, late.status) << late.body;
  EXPECT_EQ("first", tuqvutest::readFile(tmp() / "shared.txt"));
  // If-None-Match: * creates only.
  EXPECT_EQ(412, request("PUT", "/files/tmp/shared.txt", "third", {{"If-None-Match", "*"}}).status);
  EXPECT_EQ(201, request("PUT", "/files/tmp/only-new.txt", "new", {{"If-None-Match", "*"}}).status);
  // If-Match on a file that does not exist fails.
  EXPECT_EQ(412, request("PUT", "/files/tmp/absent.txt", "x", {{"If-Match", base}}).status);
  EXPECT_FALSE(fs::exists(tmp() / "absent.txt"));
}

TEST_F(FileApi, ConditionalGetsAnswerNotModifiedWhileTheFileIsUnchanged) {
  const HttpReply put = request("PUT", "/files/tmp/cached.txt", "cache me");
  const std::string tag = put.headers.at("etag");
  const HttpReply byTag = request("GET", "/files/tmp/cached.txt", "", {{"If-None-Match", tag}});
  EXPECT_EQ(304, byTag.status);
  EXPECT_EQ("", byTag.body);
  const HttpReply got = request("GET", "/files/tmp/cached.txt");
  const HttpReply byDate = request("GET", "/files/tmp/cached.txt", "",
                                   {{"If-Modified-Since", got.headers.at("last-modified")}});
  EXPECT_EQ(304, byDate.status);
  EXPECT_EQ(200, request("GET", "/files/tmp/cached.txt", "",
                         {{"If-Modified-Since", "Mon, 01 Jan 2001 00:00:00 GMT"}})
                     .status);
  request("PUT", "/files/tmp/cached.txt", "changed");
  const HttpReply changed = request("GET", "/files/tmp/cached.txt", "", {{"If-None-Match", tag}});
  EXPECT_EQ(200, changed.status);
  EXPECT_EQ("changed", changed.body);
}

TEST_F(FileApi, OneByteRangeIsAnsweredPartialAndOneBeyondTheEndUnsatisfiable) {
  writeFile(tmp() / "digits.txt", "0123456789");
  const HttpReply middle = request("GET", "/files/tmp/digits.txt", "", {{"Range", "bytes=2-4"}});
  EXPECT_EQ(206, middle.status);
  EXPECT_EQ("234", middle.body);
  EXPECT_EQ("bytes 2-4/10", middle.headers.at("content-range"));
  const HttpReply tail = request("GET", "/files/tmp/digits.txt", "", {{"Range", "bytes=-3"}});
  EXPECT_EQ("789", tail.body);
  const HttpReply rest = request("GET", "/files/tmp/digits.txt", "", {{"Range", "bytes=7-"}});
  EXPECT_EQ("789", rest.body);
  const HttpReply beyond = request("GET", "/files/tmp/digits.txt", "", {{"Range", "bytes=10-"}});
  EXPECT_EQ(416, beyond.status);
  EXPECT_EQ("bytes */10", beyond.headers.at("content-range"));
  // An If-Range naming an older version gets the whole file.
  const HttpReply stale = request("GET", "/files/tmp/digits.txt", "",
                                  {{"Range", "bytes=2-4"}, {"If-Range", "\"old\""}});
  EXPECT_EQ(200, stale.status);
  EXPECT_EQ("0123456789", stale.body);
}

TEST_F(FileApi, AChunkedBodyIsStoredWhole) {
  const std::string answer = raw(head("PUT", "/files/tmp/chunked.txt") +
                                 "Transfer-Encoding: chunked\r\n\r\n"
                                 "5\r\nhello\r\n7\r\n, world\r\n0\r\n\r\n");
  EXPECT_EQ(0u, answer.find("HTTP/1.1 201 Created\r\n")) << answer;
  EXPECT_EQ("hello, world", tuqvutest::readFile(tmp() / "chunked.txt"));
}

TEST_F(FileApi, TheClientIsAskedForItsBodyOnlyWhenTheWriteMayGoAhead) {
  RawConnection allowed(port());
  allowed.send(head("PUT", "/files/tmp/continued.txt") +
               "Content-Length: 4\r\nExpect: 100-continue\r\n\r\n");
  const std::string interim = allowed.readUntil("\r\n\r\n", std::chrono::milliseconds(5000));
  EXPECT_EQ(0u, interim.find("HTTP/1.1 100 Continue\r\n")) << interim;
  allowed.send("body");
  const std::string final = allowed.readUntil("\r\n\r\n", std::chrono::milliseconds(5000));
  EXPECT_NE(std::string::npos, final.find("201 Created")) << final;
  EXPECT_EQ("body", tuqvutest::readFile(tmp() / "continued.txt"));

  // A refused write is answered at once, without asking for the body.
  const std::string refused = raw(head("PUT", "/files/tmp/too-big.bin") +
                                  "Content-Length: 200000\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(0u, refused.find("HTTP/1.1 413 Payload Too Large\r\n")) << refused;
  EXPECT_NE(std::string::npos, refused.find("TUQVU_FILE_PUT_MAX_BYTES")) << refused;
  EXPECT_FALSE(fs::exists(tmp() / "too-big.bin"));
}

TEST_F(FileApi, AChunkedBodyAboveTheLimitIsRefusedAndNothingIsWritten) {
  writeFile(tmp() / "kept.txt", "old content");
  std::string chunks;
  for (int i = 0; i < 30; ++i) chunks += "1000\r\n" + std::string(4096, 'y') + "\r\n";
  const std::string answer = raw(head("PUT", "/files/tmp/kept.txt") +
                                 "Transfer-Encoding: chunked\r\n\r\n" + chunks + "0\r\n\r\n");
  EXPECT_EQ(0u, answer.find("HTTP/1.1 413")) << answer.substr(0, 200);
  EXPECT_EQ("old content", tuqvutest::readFile(tmp() / "kept.txt"));
}

TEST_F(FileApi, DeleteRemovesFilesAndFoldersAndSaysWhenNothingWasThere) {
  writeFile(tmp() / "gone" / "a" / "b.txt", "b");
  writeFile(tmp() / "gone.txt", "x");
  EXPECT_EQ(204, request("DELETE", "/files/tmp/gone.txt").status);
  EXPECT_EQ(204, request("DELETE", "/files/tmp/gone").status);
  EXPECT_FALSE(fs::exists(tmp() / "gone.txt"));
  EXPECT_FALSE(fs::exists(tmp() / "gone"));
  EXPECT_EQ(404, request("DELETE", "/files/tmp/gone").status);
  // A served folder itself stays.
  EXPECT_EQ(403, request("DELETE", "/files/tmp/").status);
  EXPECT_TRUE(fs::exists(tmp()));
}

TEST_F(FileApi, AFolderIsListedAsJsonForProgramsAndAsLinksForPeople) {
  writeFile(tmp() / "listed" / "one.txt", "1");
  writeFile(tmp() / "listed" / "sub folder" / "two.txt", "22");
  const HttpReply asJson =
      request("GET", "/files/tmp/listed/", "", {{"Accept", "application/json"}});
  ASSERT_EQ(200, asJson.status) << asJson.body;
  const json entries = json::parse(asJson.body);
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("one.txt", entries[0]["name"]);
  EXPECT_EQ("file", entries[0]["type"]);
  EXPECT_EQ(1, entries[0]["size"]);
  EXPECT_EQ(request("GET", "/files/tmp/listed/one.txt").headers.at("etag"), entries[0]["etag"]);
  EXPECT_EQ("sub folder", entries[1]["name"]);
  EXPECT_EQ("directory", entries[1]["type"]);

  const HttpReply page = request("GET", "/files/tmp/listed/");
  EXPECT_EQ("text/html; charset=utf-8", page.headers.at("content-type"));
  EXPECT_NE(std::string::npos, page.body.find("href=\"./sub%20folder/\"")) << page.body;
  EXPECT_NE(std::string::npos, page.body.find("href=\"./one.txt\"")) << page.body;

  // Without its slash a folder is sent to its own URL, so that relative links work.
  const HttpReply moved = request("GET", "/files/tmp/listed");
  EXPECT_EQ(301, moved.status);
  EXPECT_EQ("/files/tmp/listed/", moved.headers.at("location"));
}

TEST_F(FileApi, PathsOutsideTheServedFoldersAndLinksOnTheWayAreRefused) {
  writeFile(tmp() / "inside.txt", "in");
  EXPECT_EQ(404, request("GET", "/files/tmp/../tmp/inside.txt").status);
  EXPECT_EQ(404, request("GET", "/files/tmp/%2E%2E/tmp/inside.txt").status);
  EXPECT_EQ(404, request("GET", "/files/etc/passwd").status);
  const TempDir outside;
  writeFile(fs::path(outside.path()) / "secret.txt", "not yours");
  fs::create_symlink(outside.path(), tmp() / "escape");
  EXPECT_NE(200, request("GET", "/files/tmp/escape/secret.txt").status);
  EXPECT_NE(201, request("PUT", "/files/tmp/escape/planted.txt", "x").status);
  EXPECT_FALSE(fs::exists(fs::path(outside.path()) / "planted.txt"));
  EXPECT_NE(204, request("DELETE", "/files/tmp/escape/secret.txt").status);
  EXPECT_TRUE(fs::exists(fs::path(outside.path()) / "secret.txt"));
  fs::remove(tmp() / "escape");
}

TEST_F(FileApi, NothingIsReadOrChangedWithoutTheSecret) {
  writeFile(tmp() / "private.txt", "private");
  for (const char* method : {"GET", "PUT", "DELETE"}) {
    const HttpReply reply =
        request(method, "/files/tmp/private.txt", "overwritten", {{"Authorization", ""}});
    EXPECT_EQ(401, reply.status) << method;
    EXPECT_EQ(std::string::npos, reply.body.find("private")) << method;
  }
  EXPECT_EQ("private", tuqvutest::readFile(tmp() / "private.txt"));
}

TEST_F(FileApi, PagesOfOtherSitesCannotChangeFiles) {
  writeFile(tmp() / "guarded.txt", "guarded");
  EXPECT_EQ(
      403,
      request("PUT", "/files/tmp/guarded.txt", "evil", {{"Origin", "http://evil.example"}}).status);
  EXPECT_EQ(
      403,
      request("DELETE", "/files/tmp/guarded.txt", "", {{"Sec-Fetch-Site", "cross-site"}}).status);
  EXPECT_EQ("guarded", tuqvutest::readFile(tmp() / "guarded.txt"));
}

TEST_F(FileApi, AStoredPageIsServedSandboxedWithoutTypeSniffing) {
  request("PUT", "/files/tmp/page.html", "<script>alert(1)</script>");
  const HttpReply page = request("GET", "/files/tmp/page.html");
  EXPECT_EQ("nosniff", page.headers.at("x-content-type-options"));
  EXPECT_NE(std::string::npos, page.headers.at("content-security-policy").find("sandbox"));
  EXPECT_NE("text/html", page.headers.at("content-type"));
}

TEST_F(FileApi, AFifoInAFolderIsRefusedWithoutHoldingTheServer) {
  ASSERT_EQ(0, ::mkfifo((tmp() / "pipe").c_str(), 0600));
  EXPECT_EQ(403, request("GET", "/files/tmp/pipe").status);
  EXPECT_EQ(409, request("PUT", "/files/tmp/pipe", "x").status);
  fs::remove(tmp() / "pipe");
}

TEST_F(FileApi, IdleAndSlowClientsHoldUpNobody) {
  writeFile(tmp() / "wanted.txt", "wanted");
  // A keep-alive connection that stays idle, and a PUT whose body stops half-way.
  HttpConnection idle(port());
  ASSERT_EQ(200, idle.request("GET", "/files/tmp/wanted.txt").status);
  RawConnection slow(port());
  slow.send(head("PUT", "/files/tmp/slow.txt") + "Content-Length: 1000\r\n\r\nonly a part");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("wanted", request("GET", "/files/tmp/wanted.txt").body);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  // The unfinished write has left nothing.
  EXPECT_FALSE(fs::exists(tmp() / "slow.txt"));
}

TEST_F(FileApi, AConnectionGoesOnWithCallsAfterAFileRequest) {
  HttpConnection connection(port());
  EXPECT_EQ(201, connection.request("PUT", "/files/tmp/then-call.txt", "x").status);
  EXPECT_EQ(200, connection.request("GET", "/files/tmp/then-call.txt").status);
  const HttpReply call =
      connection.request("POST", "/rpc", rpcRequest("ZRBroker.getModules", json::array()),
                         {{"Content-Type", "application/json"}});
  EXPECT_EQ(200, call.status);
  EXPECT_NE(std::string::npos, call.body.find("ZRBehaviorManager"));
}

TEST_F(FileApi, UserBehaviorsAreReachedThroughTheSamePathsAsTheFileTransferServer) {
  const HttpReply put =
      request("PUT", "/files/behaviors/User/api-made/behavior.xar", "<behavior/>");
  ASSERT_EQ(201, put.status) << put.body;
  EXPECT_EQ("<behavior/>", tuqvutest::readFile(fs::path(sHome->path()) / ".tuqvu" / "behaviors" /
                                               "api-made" / "behavior.xar"));
  EXPECT_EQ(405, request("POST", "/files/tmp/x.txt", "x").status);
}

}  // namespace
