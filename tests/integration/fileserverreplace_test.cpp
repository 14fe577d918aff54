// A PUT over a file of a real tuqvu that does not finish: the broker killed mid-body, a
// disk that fills up. The old file stays as it was, nothing half-written is left beside
// it, and a full disk is answered with 507.
#include <common/files.h>
#include <common/tmpfs.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
namespace fs = boost::filesystem;

namespace {

using tuqvutest::writeFile;

std::vector<std::string> namesIn(const fs::path& directory) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(directory), end; it != end; ++it) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

int fileServerPort(const TuqvuProcess& broker) {
  const json port =
      rpc(broker.port(), "ZRBehaviorManager._httpFileTransferPort", json::array())["result"];
  if (!port.is_number_integer()) throw std::runtime_error("no file server: " + port.dump());
  return port.get<int>();
}

std::string putHead(const TuqvuProcess& broker, const std::string& path, std::size_t length) {
  return "PUT " + path +
         " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: " + broker.authorization() +
         "\r\nConnection: close\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

// Sends a whole PUT and returns the reply's status line ("" when none came).
std::string put(const TuqvuProcess& broker, int port, const std::string& path,
                const std::string& body) {
  RawConnection connection(port);
  try {
    connection.send(putHead(broker, path, body.size()) + body);
  } catch (const std::runtime_error&) {
    // A server that refuses the body part-way closes the connection; its reply still
    // waits to be read.
  }
  const std::string reply = connection.readUntilClosed(std::chrono::seconds(30));
  return reply.substr(0,
                      reply.find('\r') == std::string::npos ? reply.find('\n') : reply.find('\r'));
}

TEST(FileServerReplacement, ABrokerKilledDuringAPutOverAFileLeavesTheOldOneWhole) {
  TempDir tmp;
  const fs::path folder = fs::path(tmp.path()) / "takes";
  const std::string old(2 << 20, 'o');
  writeFile(folder / "take.bin", old);
  TuqvuProcess::Setup setup;
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  const int port = fileServerPort(broker);

  // 40 MiB announced, 8 MiB sent: the server is writing the new content when it dies.
  RawConnection connection(port);
  connection.send(putHead(broker, "/tmp/takes/take.bin", 40u << 20));
  connection.send(std::string(8u << 20, 'n'));
  EXPECT_EQ(128 + SIGKILL, broker.terminate(SIGKILL));

  EXPECT_EQ(old, tuqvutest::readFile(folder / "take.bin"));
  EXPECT_EQ(namesIn(folder), std::vector<std::string>{"take.bin"});
}

TEST(FileServerReplacement, AFullDiskIsAnswered507AndTheOldFileStays) {
  TempDir tmp;
  const fs::path disk = fs::path(tmp.path()) / "disk";
  tuqvutest::Tmpfs small(disk, 4u << 20);
  if (!small.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here: " << small.reason();
  TuqvuProcess::Setup setup;
  setup.env["TMPDIR"] = tmp.path();
  TuqvuProcess broker(setup);
  const int port = fileServerPort(broker);

  const std::string old(1u << 20, 'o');
  ASSERT_EQ("HTTP/1.1 200 OK", put(broker, port, "/tmp/disk/take.bin", old));
  // The new content does not fit beside the old one.
  EXPECT_EQ("HTTP/1.1 507 Insufficient Storage",
            put(broker, port, "/tmp/disk/take.bin", std::string(5u << 20, 'n')));
  EXPECT_EQ(old, tuqvutest::readFile(disk / "take.bin"));
  EXPECT_EQ(namesIn(disk), std::vector<std::string>{"take.bin"});

  // The disk is as free as before: the next PUT that fits is taken.
  EXPECT_EQ("HTTP/1.1 200 OK", put(broker, port, "/tmp/disk/take.bin", "new"));
  EXPECT_EQ("new", tuqvutest::readFile(disk / "take.bin"));
  EXPECT_EQ(0, broker.terminate(SIGTERM)) << broker.stderrText();
}

}  // namespace
