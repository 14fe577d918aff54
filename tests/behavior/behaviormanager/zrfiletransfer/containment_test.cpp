// What GET, PUT and DELETE may reach, against the real server over raw sockets: never
// outside a served folder (links, dangling links), never a served folder itself, nothing
// of the installation, no names with control characters, no body above the size limit.
#include <common/environment.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zrfiletransfer/zrfiletransfer.h>
#include <zrfiletransfer/zrhttphandlers.h>

#include <boost/filesystem/operations.hpp>
#include <cstdlib>
#include <string>
#include <vector>

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
using zrft_test::LogCapture;
using zrft_test::paths;
using zrft_test::put;
using zrft_test::RawConnection;
using zrft_test::readFile;
using zrft_test::Reply;
using zrft_test::writeFile;

namespace {

std::string get(const std::string& path) {
  return "GET " + path + " HTTP/1.1\nHost: robot\n\n";
}

// Makes the installation prefix look like a source tree while alive.
class SourceTreePrefix {
public:
  SourceTreePrefix() { writeFile(marker(), "project(tuqvu)\n"); }
  ~SourceTreePrefix() { fs::remove(marker()); }

private:
  static fs::path marker() { return paths().prefix / "CMakeLists.txt"; }
};

using Containment = zrft_test::SharedServerTest;

}  // namespace

TEST_F(Containment, DeleteOfAServedFolderItselfIs403AndRemovesNothing) {
  const std::vector<fs::path> markers = {
      paths().dataHome / "marker.txt",
      paths().dataHome / "tuqvu" / "marker.txt",
      paths().dataHome / "app" / "marker.txt",
      paths().home / ".tuqvu" / "behaviors" / "keep" / "behavior.xar",
      paths().home / ".tuqvu" / "boxlibraries" / "marker.txt",
      paths().tmp / "marker.txt",
      paths().prefix / "share" / "behaviors" / "sys" / "behavior.xar"};
  for (const fs::path& marker : markers) {
    writeFile(marker, "kept");
  }
  for (const char* path :
       {"/share/tuqvu", "/behaviors/User/", "/behaviors/User", "/behaviors", "/behaviors/",
        "/boxlibraries", "/tmp", "/tmp/", "/tmp/.", "/behaviors/System/"}) {
    bool closed = false;
    const std::string received = exchange(del(path), &closed);
    EXPECT_EQ(received.find("HTTP/1.1 403 Forbidden\nServer: TuqVu\nContent-Type: text/plain\n"),
              0u)
        << path << ": " << received;
    EXPECT_NE(received.find("403 - Forbidden: a served folder itself is never removed\n"),
              std::string::npos)
        << received;
  }
  // The data home itself and other applications' folders are not served at all.
  for (const char* path : {"/share", "/share/", "/share/app"}) {
    bool closed = false;
    const std::string received = exchange(del(path), &closed);
    EXPECT_EQ(received.find("HTTP/1.1 403 Forbidden\n"), 0u) << path << ": " << received;
  }
  for (const fs::path& marker : markers) {
    EXPECT_EQ(readFile(marker), "kept") << marker;
  }
}

TEST_F(Containment, OtherApplicationsDataIsNeitherReadNorWrittenNorRemoved) {
  writeFile(paths().dataHome / "keyrings" / "login.keyring", "private");
  writeFile(paths().dataHome / "tuqvu" / "own.txt", "own");
  for (const std::string& request :
       {get("/share/keyrings/login.keyring"), get("/share/keyrings/"), get("/share/"),
        put("/share/keyrings/login.keyring", "planted"),
        put("/share/systemd/user/dbus.service.d/zz.conf", "[Service]\nExecStart=/bin/sh\n"),
        del("/share/keyrings/login.keyring"), del("/share/keyrings")}) {
    bool closed = false;
    const std::string received = exchange(request, &closed);
    EXPECT_EQ(received.find("HTTP/1.1 403 Forbidden\n"), 0u) << request << ": " << received;
    EXPECT_NE(received.find("only the data of this robot's own applications"), std::string::npos)
        << received;
    EXPECT_EQ(received.find("private"), std::string::npos) << received;
  }
  EXPECT_EQ(readFile(paths().dataHome / "keyrings" / "login.keyring"), "private");
  EXPECT_FALSE(fs::exists(paths().dataHome / "systemd"));
  // This system's own data folder is served as before.
  bool closed = false;
  const std::string own = exchange(get("/share/tuqvu/own.txt"), &closed);
  EXPECT_EQ(own.find("HTTP/1.1 200 OK\n"), 0u) << own;
  EXPECT_NE(own.find("\n\nown"), std::string::npos) << own;
}

TEST_F(Containment, PutOfAServedFolderItselfIs403) {
  for (const char* path : {"/tmp/", "/share/tuqvu", "/behaviors/User/"}) {
    EXPECT_EQ(statusOf(put(path, "x")), "HTTP/1.1 403 Forbidden") << path;
  }
  EXPECT_TRUE(fs::is_directory(paths().tmp));
  EXPECT_TRUE(fs::is_directory(paths().home / ".tuqvu" / "behaviors"));
}

TEST_F(Containment, TheInstallationIsNeverWrittenNorRemoved) {
  const fs::path library = paths().prefix / "lib" / "libzrbehaviormanager.so";
  writeFile(library, "the loaded module");
  writeFile(paths().prefix / "share" / "behaviors" / "sys" / "behavior.xar", "system");
  LogCapture log;
  for (const std::string& request :
       {put("/lib/libzrbehaviormanager.so", "planted"), del("/lib/libzrbehaviormanager.so"),
        del("/lib/x.so"), put("/img.png", "new"), put("/behaviors/System/sys/behavior.xar", "x"),
        del("/behaviors/System/sys")}) {
    bool closed = false;
    const std::string received = exchange(request, &closed);
    EXPECT_EQ(received,
              "HTTP/1.1 403 Forbidden\nServer: TuqVu\nContent-Type: text/plain\n"
              "Content-Length: 51\nConnection: close\n\n"
              "403 - Forbidden: the installation is never changed\n")
        << request;
    EXPECT_TRUE(closed);
  }
  EXPECT_EQ(readFile(library), "the loaded module");
  EXPECT_FALSE(fs::exists(paths().prefix / "img.png"));
  EXPECT_EQ(readFile(paths().prefix / "share" / "behaviors" / "sys" / "behavior.xar"), "system");
  EXPECT_EQ(log.find("httpPut", "the installation is never changed").size(), 3u);
  EXPECT_EQ(log.find("httpDel", "the installation is never changed").size(), 3u);
  // Reading it stays as it was.
  EXPECT_EQ(zrft_test::request(port, get("/lib/libzrbehaviormanager.so")).body,
            "the loaded module");
}

TEST_F(Containment, ASourceTreePrefixServesNothingOutsideTheKnownFolders) {
  writeFile(paths().prefix / "CMakeCache.txt", "CMAKE_BUILD_TYPE:STRING=Release");
  writeFile(paths().prefix / "scripts" / "run.sh", "#!/bin/sh");
  writeFile(paths().prefix / "build" / "lib" / "libzrbehaviormanager.so", "built");
  writeFile(paths().prefix / "img.png", "png");
  writeFile(paths().prefix / "share" / "behaviors" / "src" / "behavior.xar", "sample");
  writeFile(paths().tmp / "tree.txt", "tmp");
  SourceTreePrefix sourceTree;
  LogCapture log;
  for (const char* path :
       {"/CMakeCache.txt", "/scripts/run.sh", "/build/lib/libzrbehaviormanager.so", "/img.png"}) {
    expectNoReply(get(path));
  }
  EXPECT_EQ(log.find("translateHttp", "the installation is a source tree").size(), 4u);
  EXPECT_EQ(zrft_test::request(port, get("/behaviors/System/src/behavior.xar")).body, "sample");
  EXPECT_EQ(zrft_test::request(port, get("/tmp/tree.txt")).body, "tmp");
}

TEST_F(Containment, PutThroughADanglingLinkCreatesNothingOutside) {
  const fs::path planted = paths().scratch / "planted.txt";
  const fs::path plantedDirectory = paths().scratch / "planted-dir";
  fs::remove(planted);
  fs::remove_all(plantedDirectory);
  fs::remove(paths().tmp / "dangling");
  fs::remove(paths().tmp / "dangling-dir");
  fs::create_symlink(planted, paths().tmp / "dangling");
  fs::create_directory_symlink(plantedDirectory, paths().tmp / "dangling-dir");

  expectNoReply(put("/tmp/dangling", "planted"));
  expectNoReply(put("/tmp/dangling-dir/x.txt", "planted"));
  EXPECT_FALSE(fs::exists(planted));
  EXPECT_FALSE(fs::exists(plantedDirectory));
  EXPECT_TRUE(fs::is_symlink(paths().tmp / "dangling"));
}

TEST_F(Containment, ALinkOnTheWayIsNotFollowedEvenInsideTheFolder) {
  writeFile(paths().tmp / "real" / "x.txt", "real");
  fs::remove(paths().tmp / "inner");
  fs::create_directory_symlink(paths().tmp / "real", paths().tmp / "inner");
  LogCapture log;
  expectNoReply(get("/tmp/inner/x.txt"));
  expectNoReply(put("/tmp/inner/y.txt", "y"));
  expectNoReply(del("/tmp/inner/x.txt"));
  EXPECT_EQ(readFile(paths().tmp / "real" / "x.txt"), "real");
  EXPECT_FALSE(fs::exists(paths().tmp / "real" / "y.txt"));
  EXPECT_EQ(log.find("httpGetFile", "a symbolic link on the way").size(), 1u);
  EXPECT_EQ(log.find("httpPut", "a symbolic link on the way").size(), 1u);
  EXPECT_EQ(log.find("httpDel", "a symbolic link on the way").size(), 1u);
}

TEST_F(Containment, DeleteOfALinkRemovesTheLinkAndNotWhatItPointsTo) {
  writeFile(paths().tmp / "target-dir" / "x.txt", "kept");
  fs::remove(paths().tmp / "alias");
  fs::create_directory_symlink(paths().tmp / "target-dir", paths().tmp / "alias");
  EXPECT_EQ(exchange(del("/tmp/alias")), kOk);
  EXPECT_FALSE(fs::exists(fs::symlink_status(paths().tmp / "alias")));
  EXPECT_EQ(readFile(paths().tmp / "target-dir" / "x.txt"), "kept");
}

TEST_F(Containment, DeleteOfATreeLeavesWhatItsLinksPointToOutside) {
  writeFile(paths().scratch / "kept" / "file.txt", "outside");
  writeFile(paths().tmp / "tree" / "a.txt", "a");
  fs::create_directory_symlink(paths().scratch / "kept", paths().tmp / "tree" / "out");
  fs::create_symlink(paths().scratch / "kept" / "file.txt", paths().tmp / "tree" / "out.txt");
  EXPECT_EQ(exchange(del("/tmp/tree")), kOk);
  EXPECT_FALSE(fs::exists(fs::symlink_status(paths().tmp / "tree")));
  EXPECT_EQ(readFile(paths().scratch / "kept" / "file.txt"), "outside");
}

TEST_F(Containment, PutOfANameWithAControlCharacterIs400AndCreatesNothing) {
  LogCapture log;
  for (const char* path :
       {"/tmp/bad\x01name.txt", "/tmp/esc\x1b/x.txt", "/tmp/del\x7f.txt", "/tmp/tab\tname.txt"}) {
    bool closed = false;
    const std::string received = exchange(put(path, "x"), &closed);
    EXPECT_EQ(received,
              "HTTP/1.1 400 Bad Request\nServer: TuqVu\nContent-Type: text/plain\n"
              "Content-Length: 64\nConnection: close\n\n"
              "400 - Bad Request: a name in the path holds a control character\n")
        << path;
    EXPECT_TRUE(closed);
  }
  for (fs::directory_iterator it(paths().tmp), end; it != end; ++it) {
    const std::string name = it->path().filename().string();
    EXPECT_EQ(name.find_first_of("\x01\x1b\x7f\t"), std::string::npos) << name;
  }
  EXPECT_EQ(log.find("httpPut", "a control character").size(), 4u);
}

TEST_F(Containment, AListingLeavesOutNamesWithControlCharactersAndStaysOneLinePerEntry) {
  const fs::path directory = paths().tmp / "odd-names";
  fs::remove_all(directory);
  writeFile(directory / "line\nfeed.txt", "x");
  writeFile(directory / "escape\x1b[2J", "x");
  writeFile(directory / "plain.txt", "x");
  LogCapture log;
  const Reply reply = zrft_test::request(port, get("/tmp/odd-names"));
  EXPECT_EQ(reply.header("Tuqvu-File-Type"), "directory");
  EXPECT_EQ(reply.body, "plain.txt\n");
  EXPECT_EQ(reply.header("Content-Length"), "10");
  EXPECT_EQ(log.find("httpGetFile", "2 name(s) holding control characters").size(), 1u);
  // Such a name can still be removed with its folder.
  EXPECT_EQ(exchange(del("/tmp/odd-names")), kOk);
  EXPECT_FALSE(fs::exists(directory));
}

TEST_F(Containment, APutAboveTheSizeLimitIs413AndWritesNothing) {
  // The limit is the server's own, read when it is made.
  tuqvutest::ScopedEnvironment limit("TUQVU_FILE_PUT_MAX_BYTES", "1000");
  ZR::ZRFileTransfer server;
  port = server.httpFileTransferPort();
  writeFile(paths().tmp / "limited.txt", "old");
  fs::remove_all(paths().tmp / "limit");
  bool closed = false;
  EXPECT_EQ(exchange(put("/tmp/limit/new/big.bin", std::string(1001, 'b')), &closed),
            "HTTP/1.1 413 Payload Too Large\nServer: TuqVu\nContent-Type: text/plain\n"
            "Content-Length: 107\nConnection: close\n\n"
            "413 - Payload Too Large: the body has 1001 bytes; this robot takes at most 1000 "
            "(TUQVU_FILE_PUT_MAX_BYTES)\n");
  EXPECT_TRUE(closed);
  EXPECT_FALSE(fs::exists(paths().tmp / "limit"));
  EXPECT_EQ(statusOf(put("/tmp/limited.txt", std::string(5000, 'b'))),
            "HTTP/1.1 413 Payload Too Large");
  EXPECT_EQ(readFile(paths().tmp / "limited.txt"), "old");

  EXPECT_EQ(exchange(put("/tmp/limited.txt", std::string(1000, 'a'))), kOk);
  EXPECT_EQ(readFile(paths().tmp / "limited.txt"), std::string(1000, 'a'));

  // The shared server, made without the setting, keeps its default of 512 MiB.
  port = zrft_test::sharedServerPort();
  EXPECT_EQ(exchange(put("/tmp/limited.txt", std::string(5000, 'c'))), kOk);
}

TEST_F(Containment, APutOverwritesTheFileInPlaceKeepingItsPermissions) {
  const fs::path script = paths().tmp / "modes" / "run.sh";
  writeFile(script, "old");
  fs::permissions(script, static_cast<fs::perms>(0750));
  EXPECT_EQ(exchange(put("/tmp/modes/run.sh", "#!/bin/sh\n")), kOk);
  EXPECT_EQ(readFile(script), "#!/bin/sh\n");
  EXPECT_EQ(fs::status(script).permissions() & 0777, 0750);
}

TEST_F(Containment, APutOverAFifoIsRefusedWithoutBlockingTheServer) {
  const fs::path fifo = paths().tmp / "fifos" / "pipe";
  fs::create_directories(fifo.parent_path());
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  RawConnection connection(port);
  connection.send(put("/tmp/fifos/pipe", "data"));
  bool closed = false;
  EXPECT_EQ(connection.readUntilClosed(10s, &closed), "");
  EXPECT_TRUE(closed);
  EXPECT_EQ(exchange(put("/tmp/fifos/after.txt", "after")), kOk);
  fs::remove(fifo);
}
