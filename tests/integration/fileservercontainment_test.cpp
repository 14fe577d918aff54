// Attacks on the file-transfer server of a real tuqvu over loopback: removing or
// overwriting what holds the robot's data and installation, writing outside a served
// folder through a link or a rename race, reading the build configuration of a run from
// a source tree, and the CORS preflight of a page of another site.
#include <common/files.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;

using tuqvutest::readFile;

namespace {

using tuqvutest::writeFile;

std::size_t entriesIn(const fs::path& directory) {
  std::size_t count = 0;
  for (fs::directory_iterator it(directory), end; it != end; ++it) ++count;
  return count;
}

class FileServerOfTuqvu : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    tmp = new TempDir();
    TuqvuProcess::Setup setup;
    setup.env["TMPDIR"] = tmp->path();
    broker = new TuqvuProcess(setup);
    HttpConnection connection(broker->port());
    const HttpReply reply = connection.request(
        "POST", "/rpc", rpcRequest("ZRBehaviorManager._httpFileTransferPort", json::array()),
        {{"Content-Type", "application/json"}});
    const json port = json::parse(reply.body)["result"];
    ASSERT_TRUE(port.is_number_integer()) << reply.body << broker->stderrText();
    filePort = port.get<int>();
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(0, broker->terminate(SIGTERM)) << broker->stderrText();
    delete broker;
    broker = nullptr;
    delete tmp;
    tmp = nullptr;
  }

  // The whole answer to one request on a connection of its own ("" when none came); the
  // server closes the connection after it.
  static std::string ask(const std::string& method, const std::string& path,
                         const std::string& body = "", const std::string& moreHeaders = "") {
    RawConnection connection(filePort);
    connection.send(method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: " +
                    broker->authorization() + "\r\n" + moreHeaders +
                    (method == "PUT" ? "Content-Length: " + std::to_string(body.size()) + "\r\n"
                                     : std::string()) +
                    "Connection: close\r\n\r\n" + body);
    return connection.readUntilClosed(std::chrono::milliseconds(5000));
  }
  static std::string statusOf(const std::string& reply) {
    return reply.substr(0, reply.find('\n'));
  }

  static fs::path home() { return broker->home(); }
  static fs::path prefix() { return broker->prefix(); }
  static fs::path temporary() { return tmp->path(); }

  static TempDir* tmp;
  static TuqvuProcess* broker;
  static int filePort;
};

TempDir* FileServerOfTuqvu::tmp = nullptr;
TuqvuProcess* FileServerOfTuqvu::broker = nullptr;
int FileServerOfTuqvu::filePort = 0;

TEST_F(FileServerOfTuqvu, DeletingTheDataFoldersLibraryOrTemporaryFolderIsRefused) {
  writeFile(home() / ".local/share/other/settings.xml", "<kept/>");
  writeFile(home() / ".tuqvu/behaviors/dance/behavior.xar", "<behavior/>");
  writeFile(temporary() / "upload.zip", "zip");

  for (const std::string& path :
       {"/share", "/share/", "/share/other", "/behaviors/User/", "/behaviors/User", "/behaviors",
        "/tmp", "/tmp/", "/boxlibraries/"}) {
    EXPECT_EQ("HTTP/1.1 403 Forbidden", statusOf(ask("DELETE", path))) << path;
  }
  EXPECT_EQ("<kept/>", readFile(home() / ".local/share/other/settings.xml"));
  EXPECT_EQ("<behavior/>", readFile(home() / ".tuqvu/behaviors/dance/behavior.xar"));
  EXPECT_EQ("zip", readFile(temporary() / "upload.zip"));
  EXPECT_TRUE(fs::exists(home() / ".config/tuqvu/secret"));

  // What lies inside them is still removed as before.
  EXPECT_EQ("HTTP/1.1 200 OK", statusOf(ask("DELETE", "/behaviors/User/dance")));
  EXPECT_FALSE(fs::exists(home() / ".tuqvu/behaviors/dance"));
}

TEST_F(FileServerOfTuqvu, TheInstallationIsNeitherOverwrittenNorRemoved) {
  const fs::path library = prefix() / "lib" / "libzrbehaviormanager.so";
  writeFile(library, "the loaded module");
  EXPECT_EQ("HTTP/1.1 403 Forbidden",
            statusOf(ask("PUT", "/lib/libzrbehaviormanager.so", "planted")));
  EXPECT_EQ("HTTP/1.1 403 Forbidden", statusOf(ask("DELETE", "/lib/libzrbehaviormanager.so")));
  EXPECT_EQ("HTTP/1.1 403 Forbidden", statusOf(ask("PUT", "/lib/planted.so", "planted")));
  EXPECT_EQ("the loaded module", readFile(library));
  EXPECT_FALSE(fs::exists(prefix() / "lib" / "planted.so"));
  // Reading it stays as it was.
  EXPECT_EQ("HTTP/1.1 200 OK", statusOf(ask("GET", "/lib/libzrbehaviormanager.so")));
}

// The secret lives where nothing is served; other programs of the robot's account keep
// their data to themselves (a planted unit drop-in would run code at their next start).
TEST_F(FileServerOfTuqvu, NeitherTheSecretNorOtherApplicationsDataCanBeReachedOrWritten) {
  const fs::path secretFile = home() / ".config/tuqvu/secret";
  const std::string secret = readFile(secretFile);
  ASSERT_EQ(33u, secret.size());
  for (const std::string& path : {"/share/tuqvu/secret", "/share/tuqvu/../../.config/tuqvu/secret",
                                  "/share/.config/tuqvu/secret"}) {
    ask("PUT", path, "0");
    EXPECT_EQ(std::string::npos, ask("GET", path).find(secret.substr(0, 32))) << path;
  }
  EXPECT_EQ(secret, readFile(secretFile));

  writeFile(home() / ".local/share/keyrings/login.keyring", "private");
  const std::string dropIn = "/share/systemd/user/dbus.service.d/zz.conf";
  EXPECT_EQ("HTTP/1.1 403 Forbidden", statusOf(ask("PUT", dropIn, "[Service]\n")));
  EXPECT_FALSE(fs::exists(home() / ".local/share/systemd"));
  EXPECT_EQ("HTTP/1.1 403 Forbidden", statusOf(ask("GET", "/share/keyrings/login.keyring")));
  EXPECT_EQ("HTTP/1.1 403 Forbidden", statusOf(ask("DELETE", "/share/keyrings")));
  EXPECT_EQ("private", readFile(home() / ".local/share/keyrings/login.keyring"));
  // This system's own data folder is still served.
  EXPECT_EQ("HTTP/1.1 200 OK", statusOf(ask("PUT", "/share/tuqvu/notes.txt", "kept")));
  EXPECT_EQ("kept", readFile(home() / ".local/share/tuqvu/notes.txt"));
}

TEST_F(FileServerOfTuqvu, ARunFromASourceTreeServesNoneOfIt) {
  writeFile(prefix() / "CMakeCache.txt", "CMAKE_BUILD_TYPE:STRING=Release\n");
  writeFile(prefix() / "run.sh", "#!/bin/sh\n");
  EXPECT_EQ("HTTP/1.1 200 OK", statusOf(ask("GET", "/CMakeCache.txt")));

  writeFile(prefix() / "CMakeLists.txt", "project(tuqvu)\n");
  EXPECT_EQ("", ask("GET", "/CMakeCache.txt"));
  EXPECT_EQ("", ask("PUT", "/run.sh", "rm -rf ~"));
  EXPECT_EQ("#!/bin/sh\n", readFile(prefix() / "run.sh"));
  fs::remove(prefix() / "CMakeLists.txt");
}

TEST_F(FileServerOfTuqvu, APreflightOfAnotherSiteGetsNoCorsAnd405) {
  const std::string reply =
      ask("OPTIONS", "/behaviors/User/x/behavior.xar", "",
          "Origin: http://evil.example\r\nAccess-Control-Request-Method: PUT\r\n");
  EXPECT_EQ("HTTP/1.1 405 Method Not Allowed", statusOf(reply));
  EXPECT_EQ(std::string::npos, reply.find("Access-Control")) << reply;

  const std::string put =
      ask("PUT", "/tmp/from-a-page.txt", "x", "Origin: http://evil.example\r\n");
  EXPECT_EQ("HTTP/1.1 403 Forbidden", statusOf(put));
  EXPECT_EQ(std::string::npos, put.find("Access-Control")) << put;
  EXPECT_FALSE(fs::exists(temporary() / "from-a-page.txt"));
}

TEST_F(FileServerOfTuqvu, ADanglingLinkInTheLibraryLeadsNowhereOutside) {
  TempDir outside;
  const fs::path target = fs::path(outside.path()) / "planted.xar";
  fs::create_directories(home() / ".tuqvu/behaviors");
  fs::create_symlink(target, home() / ".tuqvu/behaviors/trap.xar");
  fs::create_directory_symlink(outside.path(), home() / ".tuqvu/behaviors/trapdir");

  EXPECT_EQ("", ask("PUT", "/behaviors/User/trap.xar", "planted"));
  EXPECT_EQ("", ask("PUT", "/behaviors/User/trapdir/new/behavior.xar", "planted"));
  EXPECT_EQ("", ask("GET", "/behaviors/User/trapdir/"));
  EXPECT_EQ(0u, entriesIn(outside.path()));

  // A link that leads outside is not served at all, not even to remove it: what it
  // points to stays whole.
  writeFile(fs::path(outside.path()) / "kept.txt", "kept");
  EXPECT_EQ("", ask("DELETE", "/behaviors/User/trapdir"));
  EXPECT_EQ("", ask("DELETE", "/behaviors/User/trapdir/kept.txt"));
  EXPECT_EQ("kept", readFile(fs::path(outside.path()) / "kept.txt"));
  fs::remove(home() / ".tuqvu/behaviors/trapdir");
  fs::remove(home() / ".tuqvu/behaviors/trap.xar");
}

// A folder of the served tree and a link to a folder outside swap names again and again
// (rename exchange) while PUTs write beneath the folder's name: each write lands inside or
// is refused, never outside. Bounded to 400 writes or 20 s.
TEST_F(FileServerOfTuqvu, AFolderSwappedWithALinkDuringWritesNeverLetsOneOutside) {
  TempDir outside;
  const fs::path race = temporary() / "race";
  fs::create_directories(race / "folder");
  fs::create_directory_symlink(outside.path(), race / "link");

  std::atomic<bool> stop{false};
  std::atomic<long> swaps{0};
  std::thread swapper([&] {
    const std::string folder = (race / "folder").string();
    const std::string link = (race / "link").string();
    while (!stop.load()) {
      if (::renameat2(AT_FDCWD, folder.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE) == 0) {
        ++swaps;
      }
    }
  });

  int written = 0;
  int refused = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (int i = 0; i < 400 && std::chrono::steady_clock::now() < deadline; ++i) {
    const std::string reply = ask("PUT", "/tmp/race/folder/w" + std::to_string(i), "w");
    if (statusOf(reply) == "HTTP/1.1 200 OK") {
      ++written;
    } else {
      ++refused;
    }
  }
  stop = true;
  swapper.join();

  EXPECT_EQ(0u, entriesIn(outside.path())) << written << " written, " << refused << " refused";
  std::cout << written << " writes inside, " << refused << " refused, " << swaps.load()
            << " swaps\n";
  EXPECT_GT(swaps.load(), 0);
  EXPECT_GT(written, 0) << "no write went through: the race was not exercised";
  // What was written is inside, under whichever of the two names the folder has now.
  const fs::path folderNow = fs::is_symlink(race / "link") ? race / "folder" : race / "link";
  EXPECT_EQ(static_cast<std::size_t>(written), entriesIn(folderNow));
}

}  // namespace
