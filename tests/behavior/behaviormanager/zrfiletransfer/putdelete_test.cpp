// PUT and DELETE against the real server over raw sockets.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <string>
#include <thread>

#include "support/files.h"
#include "support/logcapture.h"
#include "support/rawclient.h"
#include "support/requests.h"
#include "support/sharedserverfixture.h"
#include "support/testenvironment.h"

namespace fs = boost::filesystem;
using namespace std::chrono_literals;
using zrft_test::del;
using zrft_test::kOk;
using zrft_test::paths;
using zrft_test::put;
using zrft_test::RawConnection;
using zrft_test::readFile;
using zrft_test::Reply;
using zrft_test::writeFile;

namespace {

using PutDelete = zrft_test::SharedServerTest;

}  // namespace

TEST_F(PutDelete, PutCreatesMissingParentsAndAnswersOk) {
  fs::remove_all(paths().home / ".tuqvu" / "boxlibraries" / "a");
  EXPECT_EQ(exchange(put("/boxlibraries/a/b/c.txt", "content")), kOk);
  EXPECT_TRUE(fs::is_directory(paths().home / ".tuqvu" / "boxlibraries" / "a" / "b"));
  EXPECT_EQ(readFile(paths().home / ".tuqvu" / "boxlibraries" / "a" / "b" / "c.txt"), "content");
}

TEST_F(PutDelete, PutReplacesAnExistingFile) {
  writeFile(paths().tmp / "replace.txt", "a much longer old content");
  EXPECT_EQ(exchange(put("/tmp/replace.txt", "new")), kOk);
  EXPECT_EQ(readFile(paths().tmp / "replace.txt"), "new");
}

TEST_F(PutDelete, PutWithNeitherBodyNorLengthWritesAnEmptyFile) {
  writeFile(paths().tmp / "empty.txt", "old");
  EXPECT_EQ(exchange("PUT /tmp/empty.txt HTTP/1.1\nHost: robot\n\n"), kOk);
  EXPECT_EQ(readFile(paths().tmp / "empty.txt"), "");
}

TEST_F(PutDelete, PutOfABodyWithoutLengthIs411AndWritesNothing) {
  fs::remove(paths().tmp / "nolength.txt");
  bool closed = false;
  EXPECT_EQ(exchange("PUT /tmp/nolength.txt HTTP/1.1\nHost: robot\n\nhello", &closed),
            "HTTP/1.1 411 Length Required\nServer: TuqVu\nContent-Type: text/plain\n"
            "Content-Length: 22\n\n411 - Length Required\n");
  EXPECT_TRUE(closed);  // the unread body cannot be taken for a next request
  EXPECT_FALSE(fs::exists(paths().tmp / "nolength.txt"));
}

TEST_F(PutDelete, ChunkedPutIs411) {
  fs::remove(paths().tmp / "chunked.txt");
  bool closed = false;
  const std::string received = exchange(
      "PUT /tmp/chunked.txt HTTP/1.1\nHost: robot\nTransfer-Encoding: chunked\n\n"
      "5\r\nhello\r\n0\r\n\r\n",
      &closed);
  EXPECT_EQ(received.find("HTTP/1.1 411 Length Required\n"), 0u) << received;
  EXPECT_TRUE(closed);
  EXPECT_FALSE(fs::exists(paths().tmp / "chunked.txt"));
}

TEST_F(PutDelete, PutBodyArrivingInPiecesIsWrittenWhole) {
  std::string body;
  for (int i = 0; i < 200000; ++i) {
    body += static_cast<char>('a' + i % 26);
  }
  RawConnection connection(port);
  const std::string request = put("/tmp/pieces.bin", body);
  const std::size_t header = request.size() - body.size();
  connection.send(request.substr(0, header));
  std::this_thread::sleep_for(50ms);
  for (std::size_t offset = header; offset < request.size(); offset += 70000) {
    connection.send(request.substr(offset, 70000));
    std::this_thread::sleep_for(20ms);
  }
  const Reply reply = connection.readReply(10s);
  EXPECT_EQ(reply.statusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(reply.body, "ok\n");
  EXPECT_EQ(readFile(paths().tmp / "pieces.bin"), body);
}

TEST_F(PutDelete, PutDecodesTheUpperCaseDotEscapeOnly) {
  fs::remove(paths().tmp / "upper.txt");
  EXPECT_EQ(exchange(put("/tmp/upper%2Etxt", "U")), kOk);
  EXPECT_EQ(readFile(paths().tmp / "upper.txt"), "U");
  EXPECT_EQ(exchange(put("/tmp/lower%2etxt", "L")), kOk);
  EXPECT_EQ(readFile(paths().tmp / "lower%2etxt"), "L");
}

TEST_F(PutDelete, PutTruncatedByTheClientLeavesTheOldFileWholeAndNoReply) {
  ASSERT_EQ(exchange(put("/tmp/cut-over/truncated.bin", "the old content")), kOk);
  const std::string sent(5000, 'p');
  RawConnection connection(port);
  connection.send(
      "PUT /tmp/cut-over/truncated.bin HTTP/1.1\nHost: robot\nContent-Length: 100000\n\n" + sent);
  connection.shutdownWrite();
  bool closed = false;
  EXPECT_EQ(connection.readUntilClosed(10s, &closed), "");
  EXPECT_TRUE(closed);

  // The server goes on serving; the old file is as it was and nothing else is left.
  EXPECT_EQ(exchange(put("/tmp/cut-over/after.txt", "after")), kOk);
  EXPECT_EQ(readFile(paths().tmp / "cut-over" / "truncated.bin"), "the old content");
  std::vector<std::string> names;
  for (fs::directory_iterator it(paths().tmp / "cut-over"), end; it != end; ++it) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"after.txt", "truncated.bin"}));
}

TEST_F(PutDelete, PutTruncatedByTheClientCreatesNothing) {
  RawConnection connection(port);
  connection.send("PUT /tmp/cut-new/new.bin HTTP/1.1\nHost: robot\nContent-Length: 100000\n\n" +
                  std::string(5000, 'p'));
  connection.shutdownWrite();
  bool closed = false;
  EXPECT_EQ(connection.readUntilClosed(10s, &closed), "");
  EXPECT_TRUE(closed);
  // The folder on the way is made before the body arrives; the file never is.
  EXPECT_TRUE(fs::is_empty(paths().tmp / "cut-new"));
}

TEST_F(PutDelete, PutOverAFileKeepsItsMode) {
  ASSERT_EQ(exchange(put("/tmp/script.sh", "#!/bin/sh\n")), kOk);
  fs::permissions(paths().tmp / "script.sh", fs::perms(0750));
  ASSERT_EQ(exchange(put("/tmp/script.sh", "#!/bin/sh\necho new\n")), kOk);
  EXPECT_EQ(fs::status(paths().tmp / "script.sh").permissions(), fs::perms(0750));
  EXPECT_EQ(readFile(paths().tmp / "script.sh"), "#!/bin/sh\necho new\n");
}

TEST_F(PutDelete, PutToPathsThatAreNotServedGetsNoReply) {
  expectNoReply(put("/", "x"));
  expectNoReply(put("/page.html", "x"));
  expectNoReply(put("/tmp/x.txt?eval=1", "x"));
  EXPECT_FALSE(fs::exists(paths().prefix / "page.html"));
}

TEST_F(PutDelete, PutThroughParentComponentsIsRefusedAndLogged) {
  zrft_test::LogCapture log;
  expectNoReply(put("/tmp/%2E%2E/escaped.txt", "x"));
  expectNoReply(put("/tmp/../escaped2.txt", "x"));
  EXPECT_FALSE(fs::exists(paths().root / "escaped.txt"));
  EXPECT_FALSE(fs::exists(paths().root / "escaped2.txt"));
  EXPECT_EQ(log.find("translateHttp", "tmp/../escaped.txt").size(), 1u);
  EXPECT_EQ(log.find("translateHttp", "tmp/../escaped2.txt").size(), 1u);
}

TEST_F(PutDelete, PutWhoseParentCannotBeCreatedGetsNoReplyAndIsLogged) {
  writeFile(paths().tmp / "blocker", "a file where a directory is needed");
  zrft_test::LogCapture log;
  expectNoReply(put("/tmp/blocker/sub/x.txt", "x"));
  EXPECT_EQ(log.find("httpPut", "Write file error: ").size(), 1u);
}

TEST_F(PutDelete, DeleteRemovesAWholeTree) {
  writeFile(paths().tmp / "tree" / "a" / "b.txt", "b");
  writeFile(paths().tmp / "tree" / "c.txt", "c");
  EXPECT_EQ(exchange(del("/tmp/tree")), kOk);
  EXPECT_FALSE(fs::exists(paths().tmp / "tree"));
}

TEST_F(PutDelete, DeleteOfAMissingPathStillAnswersOk) {
  EXPECT_EQ(exchange(del("/behaviors/User/never-there")), kOk);
}

TEST_F(PutDelete, DeleteDecodesTheUpperCaseDotEscapeOnly) {
  writeFile(paths().tmp / "gone.txt", "x");
  writeFile(paths().tmp / "kept.txt", "x");
  EXPECT_EQ(exchange(del("/tmp/gone%2Etxt")), kOk);
  EXPECT_EQ(exchange(del("/tmp/kept%2etxt")), kOk);
  EXPECT_FALSE(fs::exists(paths().tmp / "gone.txt"));
  EXPECT_TRUE(fs::exists(paths().tmp / "kept.txt"));
}

TEST_F(PutDelete, DeleteOfPathsThatAreNotServedGetsNoReply) {
  writeFile(paths().prefix / "page.html", "x");
  expectNoReply(del("/"));
  expectNoReply(del("/page.html"));
  expectNoReply(del("/tmp/kept.txt?eval"));
  EXPECT_TRUE(fs::exists(paths().prefix / "page.html"));
}

TEST_F(PutDelete, DeleteThroughParentComponentsIsRefusedAndRemovesNothing) {
  writeFile(paths().home / ".tuqvu" / "behaviors" / "keep" / "behavior.xar", "x");
  zrft_test::LogCapture log;
  expectNoReply(del("/boxlibraries/%2E%2E/behaviors"));
  expectNoReply(del("/tmp/../home"));
  EXPECT_TRUE(fs::exists(paths().home / ".tuqvu" / "behaviors" / "keep" / "behavior.xar"));
  EXPECT_EQ(log.find("translateHttp", "Refused request path: ").size(), 2u);
}

TEST_F(PutDelete, PutThenGetThenDeleteOnOneConnection) {
  RawConnection connection(port);
  connection.send(put("/behaviors/User/roundtrip/behavior.xar", "<xar/>"));
  EXPECT_EQ(connection.readReply(10s).body, "ok\n");
  connection.send("GET /behaviors/User/roundtrip/behavior.xar HTTP/1.1\nHost: robot\n\n");
  EXPECT_EQ(connection.readReply(10s).body, "<xar/>");
  connection.send(del("/behaviors/User/roundtrip"));
  EXPECT_EQ(connection.readReply(10s).body, "ok\n");
  EXPECT_FALSE(fs::exists(paths().home / ".tuqvu" / "behaviors" / "roundtrip"));
}

TEST_F(PutDelete, PutOntoAFifoOrADirectoryGetsNoReplyAndIsLogged) {
  const fs::path fifo = paths().tmp / "put-pipe";
  fs::remove(fifo);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  fs::create_directories(paths().tmp / "put-dir");
  zrft_test::LogCapture log;
  expectNoReply(put("/tmp/put-pipe", "x"));
  expectNoReply(put("/tmp/put-dir", "x"));
  EXPECT_EQ(log.find("httpPut", "not a regular file").size(), 2u);
  EXPECT_TRUE(fs::is_other(fs::status(fifo)));
  EXPECT_TRUE(fs::is_directory(paths().tmp / "put-dir"));
  EXPECT_EQ(exchange(del("/tmp/put-pipe")), kOk);
  EXPECT_FALSE(fs::exists(fifo));
}
