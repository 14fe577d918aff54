// A broker started with --no-file-server: the behavior manager runs without its
// file-transfer server, which then listens nowhere, and says so through its port.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

// The inodes of the sockets the process holds open.
std::set<std::string> socketInodesOf(pid_t pid) {
  std::set<std::string> inodes;
  const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
  DIR* directory = ::opendir(folder.c_str());
  if (directory == nullptr) return inodes;
  while (const dirent* entry = ::readdir(directory)) {
    char target[256];
    const ssize_t length =
        ::readlink((folder + "/" + entry->d_name).c_str(), target, sizeof(target) - 1);
    if (length <= 0) continue;
    const std::string text(target, static_cast<std::size_t>(length));
    if (text.rfind("socket:[", 0) == 0) inodes.insert(text.substr(8, text.size() - 9));
  }
  ::closedir(directory);
  return inodes;
}

// How many TCP sockets of the process listen (state 0A in /proc/net/tcp and tcp6).
int listeningSocketsOf(pid_t pid) {
  const std::set<std::string> inodes = socketInodesOf(pid);
  int listening = 0;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream lines(table);
    std::string line;
    std::getline(lines, line);  // the column names
    while (std::getline(lines, line)) {
      std::istringstream fields(line);
      std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
      fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
          timeout >> inode;
      if (state == "0A" && inodes.count(inode) != 0) ++listening;
    }
  }
  return listening;
}

TEST(FileServerSwitchedOff, TheBrokerServesWithoutItAndItsPortIsZero) {
  TuqvuProcess on(std::vector<std::string>{});
  // With it: the broker's port and the file server's.
  EXPECT_EQ(2, listeningSocketsOf(on.pid()));
  EXPECT_EQ(0, on.terminate(SIGTERM)) << on.stderrText();

  TuqvuProcess off({"--no-file-server"});
  EXPECT_EQ(json(0),
            rpc(off.port(), "ZRBehaviorManager._httpFileTransferPort", json::array())["result"]);
  EXPECT_EQ(1, listeningSocketsOf(off.pid()));
  // The rest of the behavior manager works.
  EXPECT_TRUE(
      rpc(off.port(), "ZRBehaviorManager.getInstalledBehaviors", json::array()).contains("result"));
  EXPECT_NE(std::string::npos, off.stderrText().find("the file-transfer server is switched off"));
  EXPECT_EQ(0, off.terminate(SIGTERM)) << off.stderrText();
}

}  // namespace
