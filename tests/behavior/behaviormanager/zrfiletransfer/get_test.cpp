// GET against the real server over raw sockets: files, listings, 404, content types, and
// the paths that get no reply at all.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/logcapture.h"
#include "support/rawclient.h"
#include "support/testenvironment.h"

namespace fs = boost::filesystem;
using namespace std::chrono_literals;
using zrft_test::paths;
using zrft_test::RawConnection;
using zrft_test::Reply;
using zrft_test::writeFile;

namespace {

class Get : public ::testing::Test {
protected:
  void SetUp() override { fPort = zrft_test::sharedServerPort(); }

  Reply get(const std::string& path) {
    return zrft_test::request(fPort, "GET " + path + " HTTP/1.1\nHost: robot\n\n");
  }

  // Sends the GET and expects the server to close without a byte.
  void expectNoReply(const std::string& path) {
    bool closed = false;
    const std::string received =
        zrft_test::requestUntilClosed(fPort, "GET " + path + " HTTP/1.1\nHost: robot\n\n", &closed);
    EXPECT_TRUE(closed) << path;
    EXPECT_EQ(received, "") << path;
  }

  static fs::path userBehaviors() { return paths().home / ".tuqvu" / "behaviors"; }

  int fPort = 0;
};

void expectFileReply(const Reply& reply, const std::string& body, const std::string& type) {
  ASSERT_TRUE(reply.complete);
  EXPECT_EQ(
      reply.headLines(),
      (std::vector<std::string>{"HTTP/1.1 200 OK", "Server: TuqVu", "Tuqvu-File-Type: regular-file",
                                "Content-Length: " + std::to_string(body.size()),
                                "Content-Type: " + type, "Connection: keep-alive"}));
  EXPECT_EQ(reply.head.find('\r'), std::string::npos);
  EXPECT_EQ(reply.body, body);
}

}  // namespace

TEST_F(Get, UserBehaviorFileWithHeadersInOrderAndLineFeedsOnly) {
  writeFile(userBehaviors() / "x" / "behavior.xar", "<xar version=\"3\"/>\n");
  expectFileReply(get("/behaviors/User/x/behavior.xar"), "<xar version=\"3\"/>\n", "text/plain");
}

TEST_F(Get, BehaviorWithoutLibraryPrefixIsAUserBehavior) {
  writeFile(userBehaviors() / "walk" / "behavior.xar", "walk");
  expectFileReply(get("/behaviors/walk/behavior.xar"), "walk", "text/plain");
}

TEST_F(Get, EmptyUserBehaviorsDirectoryIsCreatedAndListedEmpty) {
  fs::remove_all(userBehaviors());
  const Reply reply = get("/behaviors/User/");
  ASSERT_TRUE(reply.complete);
  EXPECT_EQ(reply.head,
            "HTTP/1.1 200 OK\nServer: TuqVu\nTuqvu-File-Type: directory\n"
            "Content-Type: text/plain\nContent-Length: 0\n");
  EXPECT_EQ(reply.body, "");
  EXPECT_TRUE(fs::is_directory(userBehaviors()));
}

TEST_F(Get, DirectoryListsFilesAndMarksDirectoriesInFileSystemOrder) {
  const fs::path directory = paths().tmp / "listing";
  fs::remove_all(directory);
  writeFile(directory / "a", "a");
  fs::create_directories(directory / "b");
  std::string expected;
  for (fs::directory_iterator it(directory), end; it != end; ++it) {
    expected += it->path().filename().string() + (fs::is_directory(it->status()) ? "/\n" : "\n");
  }
  ASSERT_TRUE(expected == "a\nb/\n" || expected == "b/\na\n");

  const Reply reply = get("/tmp/listing");
  ASSERT_TRUE(reply.complete);
  EXPECT_EQ(reply.headerNames(), (std::vector<std::string>{"Server", "Tuqvu-File-Type",
                                                           "Content-Type", "Content-Length"}));
  EXPECT_EQ(reply.header("Tuqvu-File-Type"), "directory");
  EXPECT_EQ(reply.header("Content-Length"), "5");
  EXPECT_EQ(reply.body, expected);
}

TEST_F(Get, MissingFileIs404WithItsExactBody) {
  RawConnection connection(fPort);
  connection.send("GET /behaviors/User/none/behavior.xar HTTP/1.1\nHost: robot\n\n");
  bool closed = false;
  const std::string received = connection.readUntilClosed(1000ms, &closed);
  EXPECT_EQ(received,
            "HTTP/1.1 404 Not Found\nServer: TuqVu\nContent-Type: text/plain\n"
            "Content-Length: 16\n\n404 - Not Found\n");
  EXPECT_FALSE(closed);  // the connection stays open for the next request
}

TEST_F(Get, RefusedExtensionsOutsideTheKnownRootsGetNoReply) {
  for (const char* name : {"x.html", "x.css", "x.js", "x.xml", "x.xsl", "noextension"}) {
    writeFile(paths().prefix / name, "present");
    expectNoReply(std::string("/") + name);
  }
}

TEST_F(Get, OtherFilesComeFromThePrefixTypedByTheLowerCasedExtension) {
  writeFile(paths().prefix / "img.PNG", "png bytes");
  expectFileReply(get("/img.PNG"), "png bytes", "image/png");

  const std::vector<std::pair<std::string, std::string>> types = {
      {"a.jpg", "image/jpeg"},
      {"a.gif", "image/gif"},
      {"a.mp3", "audio/mp3"},
      {"a.wav", "audio/x-wav"},
      {"a.txt", "text/plain"},
      {"a.vkp", "application/octet-stream"},
      {"a.zip", "application/octet-stream"}};
  for (const auto& entry : types) {
    writeFile(paths().prefix / "media" / entry.first, entry.first);
    const Reply reply = get("/media/" + entry.first);
    EXPECT_EQ(reply.header("Content-Type"), entry.second) << entry.first;
    EXPECT_EQ(reply.body, entry.first);
  }
  // .xml is refused outside the known roots but typed inside them.
  writeFile(paths().tmp / "a.xml", "<a/>");
  EXPECT_EQ(get("/tmp/a.xml").header("Content-Type"), "text/plain");
}

TEST_F(Get, EvalPathsGetNoReply) {
  writeFile(userBehaviors() / "x" / "behavior.xar", "x");
  expectNoReply("/behaviors/User/x/behavior.xar?eval=1");
  expectNoReply("/?eval=ZRBehaviorManager.runBehavior('x')");
}

TEST_F(Get, RootPathGetsNoReply) {
  expectNoReply("/");
}

TEST_F(Get, SystemBehaviorsComeFromTheInstallation) {
  writeFile(paths().prefix / "share" / "behaviors" / "sys" / "behavior.xar", "system");
  expectFileReply(get("/behaviors/System/sys/behavior.xar"), "system", "text/plain");
  expectNoReply("/behaviors/System/absent/behavior.xar");
}

TEST_F(Get, TmpShareAndBoxLibrariesAreMapped) {
  writeFile(paths().tmp / "t.txt", "tmp");
  writeFile(paths().dataHome / "tuqvu" / "s.txt", "share");
  writeFile(paths().home / ".tuqvu" / "boxlibraries" / "lib" / "b.txt", "box");
  EXPECT_EQ(get("/tmp/t.txt").body, "tmp");
  EXPECT_EQ(get("/share/tuqvu/s.txt").body, "share");
  EXPECT_EQ(get("/boxlibraries/lib/b.txt").body, "box");
}

TEST_F(Get, EscapesAreNotDecoded) {
  writeFile(paths().tmp / "a.txt", "a");
  EXPECT_EQ(get("/tmp/a%2Etxt").statusLine, "HTTP/1.1 404 Not Found");
  // "%2E%2E" stays a plain name for GET: not found, and not refused.
  EXPECT_EQ(get("/tmp/%2E%2E/a.txt").statusLine, "HTTP/1.1 404 Not Found");
}

TEST_F(Get, ParentComponentsAreRefusedAndLogged) {
  writeFile(paths().home / ".tuqvu" / "secret.txt", "secret");
  writeFile(paths().tmp / "inside.txt", "inside");
  zrft_test::LogCapture log;
  expectNoReply("/behaviors/User/../secret.txt");
  expectNoReply("/tmp/sub/../inside.txt");
  expectNoReply("/media/../../etc/passwd.png");
  const auto lines = log.find("translateHttp", "Refused request path: ");
  ASSERT_EQ(lines.size(), 3u);
  for (const auto& line : lines) {
    EXPECT_EQ(line.level, 3);
    EXPECT_EQ(line.category, "core.common.network");
  }
}

TEST_F(Get, ALinkLeadingOutOfTheTreeIsRefused) {
  writeFile(paths().scratch / "outside" / "secret.txt", "secret");
  fs::create_directories(userBehaviors());
  fs::remove(userBehaviors() / "out");
  fs::create_directory_symlink(paths().scratch / "outside", userBehaviors() / "out");
  zrft_test::LogCapture log;
  expectNoReply("/behaviors/User/out/secret.txt");
  EXPECT_EQ(log.find("translateHttp", "behaviors/User/out/secret.txt").size(), 1u);
}

TEST_F(Get, SeveralRequestsOnOneConnection) {
  writeFile(paths().tmp / "one.txt", "1");
  writeFile(paths().tmp / "two.txt", "22");
  RawConnection connection(fPort);
  connection.send("GET /tmp/one.txt HTTP/1.1\nHost: robot\n\n");
  EXPECT_EQ(connection.readReply(10s).body, "1");
  connection.send("GET /tmp/missing.txt HTTP/1.1\nHost: robot\n\n");
  EXPECT_EQ(connection.readReply(10s).statusLine, "HTTP/1.1 404 Not Found");
  connection.send("GET /tmp HTTP/1.1\nHost: robot\n\n");
  EXPECT_EQ(connection.readReply(10s).header("Tuqvu-File-Type"), "directory");
  connection.send("GET /tmp/two.txt HTTP/1.1\nHost: robot\n\n");
  EXPECT_EQ(connection.readReply(10s).body, "22");
}

TEST_F(Get, AFifoIsNotFoundAndDoesNotBlockTheServer) {
  const fs::path fifo = paths().tmp / "pipe.txt";
  fs::remove(fifo);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(get("/tmp/pipe.txt").statusLine, "HTTP/1.1 404 Not Found");
  writeFile(paths().tmp / "after.txt", "after");
  EXPECT_EQ(get("/tmp/after.txt").body, "after");
}
