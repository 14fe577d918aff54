// GET /log of a real tuqvu over loopback sockets: the latest warnings and errors, behind
// the same credentials and browser checks as every other page, with the reason of a
// refused install that the dashboard shows.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

class RecentLogPage : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    sHome = std::make_unique<TempDir>();
    sTmp = std::make_unique<TempDir>();
    TuqvuProcess::Setup setup;
    setup.env["HOME"] = sHome->path();
    setup.env["TMPDIR"] = sTmp->path();
    sBroker = std::make_unique<TuqvuProcess>(setup);
  }
  static void TearDownTestSuite() {
    sBroker.reset();
    sTmp.reset();
    sHome.reset();
  }

  static int port() { return sBroker->port(); }
  static HttpReply get(const std::string& target,
                       const std::map<std::string, std::string>& headers = {}) {
    HttpConnection connection(port());
    return connection.request("GET", target, "", headers);
  }
  static json log(const std::string& query = "") {
    const HttpReply reply = get("/log" + query);
    EXPECT_EQ(200, reply.status) << reply.body;
    return json::parse(reply.body);
  }

  static std::unique_ptr<TempDir> sHome;
  static std::unique_ptr<TempDir> sTmp;
  static std::unique_ptr<TuqvuProcess> sBroker;
};

std::unique_ptr<TempDir> RecentLogPage::sHome;
std::unique_ptr<TempDir> RecentLogPage::sTmp;
std::unique_ptr<TuqvuProcess> RecentLogPage::sBroker;

TEST_F(RecentLogPage, IsServedOnlyWithTheSecretAndToPagesOfItsOwnOrigin) {
  const HttpReply anonymous = get("/log", {{"Authorization", ""}});
  EXPECT_EQ(401, anonymous.status);
  EXPECT_EQ(std::string::npos, anonymous.body.find("entries"));
  EXPECT_EQ(403, get("/log", {{"Origin", "http://elsewhere.example"}}).status);
  EXPECT_EQ(403, get("/log", {{"Sec-Fetch-Site", "cross-site"}}).status);
  HttpConnection connection(port());
  EXPECT_EQ(405, connection.request("POST", "/log", "x").status);
  const HttpReply signedIn = get("/log");
  ASSERT_EQ(200, signedIn.status);
  EXPECT_EQ("no-store", signedIn.headers.at("cache-control"));
}

TEST_F(RecentLogPage, ARefusedInstallLeavesItsReasonAfterTheLastEntrySeenBefore) {
  const std::uint64_t before = log()["last"].get<std::uint64_t>();
  const json refused = rpc(port(), "ZRBehaviorManager.installBehavior", {"/etc", "stolen", true});
  ASSERT_EQ(false, refused["result"]) << refused.dump();

  const json after = log("?after=" + std::to_string(before));
  ASSERT_GT(after["last"].get<std::uint64_t>(), before);
  bool found = false;
  for (const json& entry : after["entries"]) {
    EXPECT_GT(entry["sequence"].get<std::uint64_t>(), before);
    EXPECT_LE(entry["level"].get<int>(), 3);  // warnings and errors only
    if (entry["function"] == "installBehavior" &&
        entry["text"].get<std::string>().find("/etc") != std::string::npos &&
        entry["text"].get<std::string>().find("outside the folders") != std::string::npos) {
      found = true;
      EXPECT_EQ("behavior.manager", entry["category"]);
      EXPECT_EQ('Z', entry["time"].get<std::string>().back());
    }
  }
  EXPECT_TRUE(found) << after.dump(1);
  // Nothing newer than the latest entry.
  EXPECT_TRUE(
      log("?after=" + std::to_string(after["last"].get<std::uint64_t>()))["entries"].empty());
}

TEST_F(RecentLogPage, AnAfterThatIsNoSequenceNumberIsABadRequest) {
  for (const std::string query :
       {"?after=", "?after=-1", "?after=1e3", "?after=99999999999999999999"}) {
    EXPECT_EQ(400, get("/log" + query).status) << query;
  }
}

}  // namespace
