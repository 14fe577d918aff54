// Links in packages and in the user library against a real tuqvu: a link that stays in
// bounds of its package but climbs out once its folder is installed two dozen levels
// shallower is refused, the file server never serves what such a link points to, and a
// link planted in the library leads no install or removal outside it.
#include <common/files.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;
using tuqvutest::repeated;
namespace fs = boost::filesystem;

namespace {

const char* const kSecret = "outside-the-library: not to be read";

using tuqvutest::writeFile;

std::string projectOfType(const std::string& type) {
  return "<project>\n  <metadata key=\"Type\" value=\"" + type + "\"/>\n</project>\n";
}

// Zips the content of `folder` (links stored as links) into `zip`.
void zipFolder(const fs::path& folder, const fs::path& zip) {
  const std::string command = "cd '" + folder.string() + "' && zip -qry '" + zip.string() + "' .";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

std::size_t entriesIn(const fs::path& directory) {
  std::size_t count = 0;
  for (fs::directory_iterator it(directory), end; it != end; ++it) ++count;
  return count;
}

class PackageLinksOfTuqvu : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    tmp = new TempDir();
    outside = new TempDir();
    TuqvuProcess::Setup setup;
    setup.env["TMPDIR"] = tmp->path();
    broker = new TuqvuProcess(setup);
    const json port = call("ZRBehaviorManager._httpFileTransferPort", json::array());
    ASSERT_TRUE(port.is_number_integer()) << broker->stderrText();
    filePort = port.get<int>();
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(0, broker->terminate(SIGTERM)) << broker->stderrText();
    delete broker;
    broker = nullptr;
    delete outside;
    outside = nullptr;
    delete tmp;
    tmp = nullptr;
  }

  // The result of a remote call, or its error object.
  static json call(const std::string& method, const json& params) {
    const json answer = rpc(broker->port(), method, params);
    return answer.contains("error") ? answer["error"] : answer["result"];
  }
  // The whole answer of the file server to one GET.
  static std::string get(const std::string& path) {
    RawConnection connection(filePort);
    connection.send("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: " +
                    broker->authorization() + "\r\nConnection: close\r\n\r\n");
    return connection.readUntilClosed(std::chrono::milliseconds(5000));
  }

  static fs::path library() { return fs::path(broker->home()) / ".tuqvu" / "behaviors"; }
  static fs::path outsideDir() { return outside->path(); }
  static fs::path work() { return fs::path(tmp->path()) / "work"; }

  static TempDir* tmp;
  static TempDir* outside;
  static TuqvuProcess* broker;
  static int filePort;
};

TempDir* PackageLinksOfTuqvu::tmp = nullptr;
TempDir* PackageLinksOfTuqvu::outside = nullptr;
TuqvuProcess* PackageLinksOfTuqvu::broker = nullptr;
int PackageLinksOfTuqvu::filePort = 0;

TEST_F(PackageLinksOfTuqvu, AFolderOfAPackageInstalledShallowerKeepsNoLinkLeadingOutside) {
  writeFile(outsideDir() / "secret", kSecret);
  // The package: a behavior at its top, and 24 levels down a behavior and a resource
  // whose link "leak" climbs 24 levels, then descends to the outside file: in bounds of
  // the package, out of bounds of the folder it sits in.
  const fs::path src = work() / "relocated";
  const std::string climb = repeated("..", 24) + outsideDir().string() + "/secret";
  writeFile(src / "behavior.xar", "<behavior/>");
  writeFile(src / "project.xml", projectOfType("Behavior"));
  for (const std::string top : {"a", "b"}) {
    const fs::path deep = src / repeated(top, 24);
    writeFile(deep / "behavior.xar", "<behavior/>");
    writeFile(deep / "project.xml", projectOfType(top == "a" ? "Behavior" : "Resource"));
    fs::create_symlink(climb, deep / "leak");
  }
  const fs::path zip = work() / "relocated.zip";
  zipFolder(src, zip);

  ASSERT_EQ(call("ZRBehaviorManager.installBehavior", json::array({zip.string(), "pkg", true})),
            json(true))
      << broker->stderrText();
  ASSERT_TRUE(fs::is_symlink(library() / "pkg" / repeated("a", 24) / "leak"));

  // The behavior folder installed at the top of the library.
  const fs::path behavior = library() / "pkg" / repeated("a", 24);
  EXPECT_EQ(call("ZRBehaviorManager.installBehavior", json::array({behavior.string(), "ra", true})),
            json(false));
  EXPECT_FALSE(fs::exists(fs::symlink_status(library() / "ra" / "leak")));
  // The resource folder, which is copied by the module itself.
  const fs::path resource = library() / "pkg" / repeated("b", 24);
  EXPECT_EQ(
      call("ZRBehaviorManager.installBehavior", json::array({resource.string(), "loot", true})),
      json(false));
  EXPECT_FALSE(fs::exists(fs::symlink_status(library() / "loot" / "leak")));

  for (const std::string& path :
       std::vector<std::string>{"/behaviors/User/ra/leak", "/behaviors/User/loot/leak",
                                "/behaviors/User/pkg/" + repeated("a", 24) + "/leak"}) {
    EXPECT_EQ(std::string::npos, get(path).find(kSecret)) << path;
  }
  // The same reader gets what does lie inside.
  EXPECT_EQ(0u, get("/behaviors/User/pkg/behavior.xar").find("HTTP/1.1 200 OK\n"));
  // The refusal names the link, not where it leads.
  const std::string log = broker->stderrText();
  const std::size_t refusal = log.find("\"leak\"");
  ASSERT_NE(std::string::npos, refusal) << log;
  const std::size_t lineStart = log.rfind('\n', refusal) + 1;
  const std::string line = log.substr(lineStart, log.find('\n', refusal) - lineStart);
  EXPECT_NE(std::string::npos, line.find("leads outside")) << line;
  EXPECT_EQ(std::string::npos, line.find(outsideDir().string())) << line;
  EXPECT_NE(std::string::npos, log.find("\"leak\" of the resource leads outside its folder"))
      << log;
}

TEST_F(PackageLinksOfTuqvu, ALinkPlantedInTheLibraryLeadsNoInstallOrRemovalOutside) {
  const fs::path victim = outsideDir() / "planted-victim";
  writeFile(victim / "project.xml", projectOfType("Resource"));
  writeFile(victim / "data.txt", "kept");
  fs::create_directories(library() / "rb");
  fs::create_directory_symlink(outsideDir(), library() / "rb" / "root");
  const std::size_t before = entriesIn(outsideDir());

  for (const std::string type : {"Behavior", "Resource"}) {
    const fs::path src = work() / ("planted-" + type);
    writeFile(src / "behavior.xar", "<behavior/>");
    writeFile(src / "project.xml", projectOfType(type));
    const fs::path zip = work() / ("planted-" + type + ".zip");
    zipFolder(src, zip);
    for (const char* local : {"rb/root/lib", "rb/root/new/lib", "rb/root/planted-victim"}) {
      EXPECT_EQ(call("ZRBehaviorManager.installBehavior", json::array({zip.string(), local, true})),
                json(false))
          << type << " " << local;
    }
  }
  EXPECT_EQ(before, entriesIn(outsideDir()));
  EXPECT_FALSE(fs::exists(outsideDir() / "lib"));
  EXPECT_FALSE(fs::exists(outsideDir() / "new"));

  // Removing the outside resource through the link is refused and removes nothing.
  const json removal =
      call("ZRBehaviorManager.removeBehavior", json::array({"rb/root/planted-victim"}));
  EXPECT_TRUE(removal.is_object()) << removal.dump();
  EXPECT_EQ("kept", tuqvutest::readFile(victim / "data.txt"));
  EXPECT_EQ(std::string::npos, removal.dump().find(outsideDir().string())) << removal.dump();
}

TEST_F(PackageLinksOfTuqvu, AnInstallFromOutsideTheServedFoldersCopiesNothingToServeBack) {
  const fs::path loot = outsideDir() / "loot";
  writeFile(loot / "behavior.xar", std::string("<behavior/><!-- ") + kSecret + " -->");
  for (const std::string source :
       {loot.string(), std::string("/etc"),
        (fs::path(tmp->path()) / ".." / outsideDir().filename() / "loot").string()}) {
    EXPECT_EQ(call("ZRBehaviorManager.installBehavior", json::array({source, "loot", true})),
              json(false))
        << source;
  }
  EXPECT_FALSE(fs::exists(library() / "loot"));
  const std::string reply = get("/behaviors/User/loot/behavior.xar");
  EXPECT_EQ(0u, reply.find("HTTP/1.1 404")) << reply;
  EXPECT_EQ(std::string::npos, reply.find(kSecret));
}

}  // namespace
