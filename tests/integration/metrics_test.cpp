// GET /metrics of a real tuqvu with the behavior manager, over loopback sockets: the same
// credentials and browser checks as /rpc, and counters that move by exactly what the
// test did.
#include <common/eventually.h>
#include <common/files.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

// The samples of a scrape: "name{labels}" as written, and its value.
using Samples = std::map<std::string, double>;

Samples parse(const std::string& text) {
  Samples samples;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') continue;
    const std::size_t space = line.rfind(' ');
    samples[line.substr(0, space)] = std::stod(line.substr(space + 1));
  }
  return samples;
}

class Metrics : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    sHome = std::make_unique<TempDir>();
    sTmp = std::make_unique<TempDir>();
    sPrefix = std::make_unique<TempDir>();
    // A system library with one behavior that runs until it is stopped.
    const std::string library = sPrefix->path() + "/share/tuqvu/behaviors";
    tuqvutest::writeFile(library + "/project.xml",
                         "<project><metadata key=\"Type\" value=\"BehaviorLibrary\"/></project>\n");
    tuqvutest::writeFile(library + "/loop/behavior.xar",
                         "<behavior><repeat><wait ms=\"50\"/></repeat></behavior>\n");
    tuqvutest::writeFile(library + "/loop/project.xml",
                         "<project><metadata key=\"Type\" value=\"Behavior\"/></project>\n");
    TuqvuProcess::Setup setup;
    setup.env["HOME"] = sHome->path();
    setup.env["TMPDIR"] = sTmp->path();
    setup.env["TUQVU_SDK_PREFIX"] = sPrefix->path();
    sBroker = std::make_unique<TuqvuProcess>(setup);
  }
  static void TearDownTestSuite() {
    sBroker.reset();
    sTmp.reset();
    sHome.reset();
    sPrefix.reset();
  }

  static int port() { return sBroker->port(); }
  static HttpReply get(const std::string& target,
                       const std::map<std::string, std::string>& headers = {}) {
    HttpConnection connection(port());
    return connection.request("GET", target, "", headers);
  }
  static Samples scrape() {
    const HttpReply reply = get("/metrics");
    EXPECT_EQ(200, reply.status) << reply.body;
    return parse(reply.body);
  }
  // The value of one sample; 0 when the scrape does not hold it.
  static double value(const Samples& samples, const std::string& series) {
    const auto found = samples.find(series);
    return found == samples.end() ? 0 : found->second;
  }
  static std::string calls(const std::string& method, const std::string& outcome) {
    return "tuqvu_rpc_calls_total{method=\"" + method + "\",outcome=\"" + outcome + "\"}";
  }

  static std::unique_ptr<TempDir> sHome;
  static std::unique_ptr<TempDir> sTmp;
  static std::unique_ptr<TempDir> sPrefix;
  static std::unique_ptr<TuqvuProcess> sBroker;
};

std::unique_ptr<TempDir> Metrics::sHome;
std::unique_ptr<TempDir> Metrics::sTmp;
std::unique_ptr<TempDir> Metrics::sPrefix;
std::unique_ptr<TuqvuProcess> Metrics::sBroker;

TEST_F(Metrics, AreServedOnlyWithTheSecretOrTheSessionCookie) {
  const HttpReply anonymous = get("/metrics", {{"Authorization", ""}});
  EXPECT_EQ(401, anonymous.status);
  EXPECT_EQ(1u, anonymous.headers.count("www-authenticate"));
  EXPECT_EQ(std::string::npos, anonymous.body.find("tuqvu_"));

  const HttpReply wrong = get("/metrics", {{"Authorization", "Basic Ondyb25n"}});  // ":wrong"
  EXPECT_EQ(401, wrong.status);

  const HttpReply signedIn = get("/metrics");
  ASSERT_EQ(200, signedIn.status);
  EXPECT_EQ("text/plain; version=0.0.4; charset=utf-8", signedIn.headers.at("content-type"));
  EXPECT_NE(std::string::npos, signedIn.body.find("# TYPE tuqvu_rpc_rejected_total counter"));

  // The cookie handed out with that answer is enough on its own.
  const std::string cookie = signedIn.headers.at("set-cookie");
  const HttpReply withCookie =
      get("/metrics", {{"Authorization", ""}, {"Cookie", cookie.substr(0, cookie.find(';'))}});
  EXPECT_EQ(200, withCookie.status);
}

TEST_F(Metrics, FollowTheBrowserRulesOfEveryOtherPage) {
  EXPECT_EQ(403, get("/metrics", {{"Origin", "http://elsewhere.example"}}).status);
  EXPECT_EQ(403, get("/metrics", {{"Host", "rebound.example"}}).status);
  EXPECT_EQ(403, get("/metrics", {{"Sec-Fetch-Site", "cross-site"}}).status);
  HttpConnection connection(port());
  EXPECT_EQ(405, connection.request("POST", "/metrics", "x").status);
}

TEST_F(Metrics, ACallCounterGoesUpByTheCallsMade) {
  const Samples before = scrape();
  constexpr int kCalls = 7;
  for (int i = 0; i < kCalls; ++i) {
    const json reply = rpc(port(), "ZRMemory.getData", {"TUQvuReady"});
    ASSERT_TRUE(reply.contains("result")) << reply.dump();
  }
  const Samples after = scrape();
  const std::string ok = calls("ZRMemory.getData", "ok");
  EXPECT_EQ(kCalls, value(after, ok) - value(before, ok));
  const std::string timed = "tuqvu_rpc_call_duration_seconds_count{method=\"ZRMemory.getData\"}";
  EXPECT_EQ(kCalls, value(after, timed) - value(before, timed));
  const std::string fastest =
      "tuqvu_rpc_call_duration_seconds_bucket{method=\"ZRMemory.getData\",le=\"+Inf\"}";
  EXPECT_EQ(value(after, timed), value(after, fastest));
}

TEST_F(Metrics, AFailingCallCountsAsAnErrorAndAWrongArityAsRefused) {
  const Samples before = scrape();
  const json failed = rpc(port(), "ZRMemory.getData", {"no such key, anywhere"});
  ASSERT_TRUE(failed.contains("error")) << failed.dump();
  ASSERT_EQ(-32000, failed["error"]["code"].get<int>()) << failed.dump();
  const json refused = rpc(port(), "ZRMemory.getData", json::array());
  ASSERT_EQ(-32602, refused["error"]["code"].get<int>()) << refused.dump();
  const Samples after = scrape();
  EXPECT_EQ(1, value(after, calls("ZRMemory.getData", "error")) -
                   value(before, calls("ZRMemory.getData", "error")));
  EXPECT_EQ(1, value(after, calls("ZRMemory.getData", "refused")) -
                   value(before, calls("ZRMemory.getData", "refused")));
}

TEST_F(Metrics, AMadeUpMethodAddsNoSeries) {
  const Samples before = scrape();
  for (int i = 0; i < 5; ++i) {
    rpc(port(), "ZRMemory.madeUp" + std::to_string(i), json::array());
    rpc(port(), "Invented.method" + std::to_string(i), json::array());
  }
  const HttpReply reply = get("/metrics");
  const Samples after = parse(reply.body);
  EXPECT_EQ(std::string::npos, reply.body.find("madeUp")) << reply.body;
  EXPECT_EQ(std::string::npos, reply.body.find("Invented")) << reply.body;
  const std::string notFound = "tuqvu_rpc_rejected_total{reason=\"method_not_found\"}";
  EXPECT_EQ(10, value(after, notFound) - value(before, notFound));
  // The scrape in between is a new series neither.
  std::size_t callSeries = 0;
  for (const auto& sample : after) {
    callSeries += sample.first.rfind("tuqvu_rpc_calls_total{", 0) == 0 ? 1 : 0;
  }
  std::size_t callSeriesBefore = 0;
  for (const auto& sample : before) {
    callSeriesBefore += sample.first.rfind("tuqvu_rpc_calls_total{", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(callSeriesBefore, callSeries);
}

TEST_F(Metrics, ARunningBehaviorIsCountedWhileItRuns) {
  const std::string running = "tuqvu_behavior_state_changes_total{state=\"running\"}";
  const Samples before = scrape();
  EXPECT_EQ(0, value(before, "tuqvu_behaviors_running"));
  HttpConnection runner(port());  // runBehavior answers when the run ends
  runner.send("POST", "/rpc", rpcRequest("ZRBehaviorManager.runBehavior", {"System/loop"}));
  EXPECT_TRUE(tuqvutest::eventually([] { return value(scrape(), "tuqvu_behaviors_running") == 1; }))
      << sBroker->stderrText();
  EXPECT_EQ(1, value(scrape(), running) - value(before, running));
  rpc(port(), "ZRBehaviorManager.stopBehavior", {"System/loop"});
  EXPECT_EQ(200, runner.readReply().status);
  EXPECT_EQ(0, value(scrape(), "tuqvu_behaviors_running"));
  EXPECT_EQ(1, value(scrape(), running) - value(before, running));
}

TEST_F(Metrics, AFailedInstallIsCountedAsSuch) {
  const Samples before = scrape();
  const json install =
      rpc(port(), "ZRBehaviorManager.installBehavior", {"/nowhere/at/all.zip", "nowhere", true});
  ASSERT_EQ(false, install["result"]) << install.dump();
  const Samples after = scrape();
  const std::string failed = "tuqvu_behavior_installs_total{outcome=\"failed\"}";
  const std::string installed = "tuqvu_behavior_installs_total{outcome=\"installed\"}";
  EXPECT_EQ(1, value(after, failed) - value(before, failed));
  EXPECT_EQ(0, value(after, installed) - value(before, installed));
}

TEST_F(Metrics, TheFileAPICountsRequestsAndBytes) {
  const Samples before = scrape();
  const std::string body(1000, 'x');
  HttpConnection connection(port());
  ASSERT_EQ(201, connection.request("PUT", "/files/tmp/counted.txt", body).status);
  const HttpReply read = connection.request("GET", "/files/tmp/counted.txt");
  ASSERT_EQ(200, read.status);
  Samples after;
  const auto moved = [&](const std::string& series) {
    return value(after, series) - value(before, series);
  };
  const std::string sent = "tuqvu_file_bytes_total{server=\"files\",direction=\"sent\"}";
  // An answer is counted once its write has ended, which may come just after the client
  // has read it.
  EXPECT_TRUE(tuqvutest::eventually([&] {
    after = scrape();
    return moved(sent) > 1000;
  })) << moved(sent);
  EXPECT_EQ(1, moved("tuqvu_file_requests_total{server=\"files\",method=\"PUT\"}"));
  EXPECT_EQ(1, moved("tuqvu_file_requests_total{server=\"files\",method=\"GET\"}"));
  EXPECT_EQ(1000, moved("tuqvu_file_bytes_total{server=\"files\",direction=\"received\"}"));
  // The answer to the GET holds the body and its headers; the PUT's answer is counted too.
  EXPECT_GT(moved(sent), 1000);
}

TEST_F(Metrics, TheFileTransferServerCountsRequestsAndBytes) {
  const json portReply = rpc(port(), "ZRBehaviorManager._httpFileTransferPort", json::array());
  const int filePort = portReply["result"].get<int>();
  ASSERT_GT(filePort, 0);
  const Samples before = scrape();
  const std::string answer =
      rawExchange(filePort, "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", 1500);
  ASSERT_EQ(0u, answer.rfind("HTTP/1.1 ", 0)) << answer;
  const Samples after = scrape();
  EXPECT_EQ(
      1, value(after, "tuqvu_file_requests_total{server=\"file-transfer\",method=\"GET\"}") -
             value(before, "tuqvu_file_requests_total{server=\"file-transfer\",method=\"GET\"}"));
  // Everything the server sent, its status line and headers included.
  EXPECT_EQ(
      answer.size(),
      value(after, "tuqvu_file_bytes_total{server=\"file-transfer\",direction=\"sent\"}") -
          value(before, "tuqvu_file_bytes_total{server=\"file-transfer\",direction=\"sent\"}"));
}

TEST_F(Metrics, TheFileTransferServerCountsTheBodiesItReceives) {
  const int filePort =
      rpc(port(), "ZRBehaviorManager._httpFileTransferPort", json::array())["result"].get<int>();
  const auto series = [](const std::string& labels) {
    return "{server=\"file-transfer\"," + labels + "}";
  };
  const Samples before = scrape();
  const std::string body(500, 'y');
  const std::string answer = rawExchange(
      filePort,
      "PUT /tmp/transferred.txt HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: " +
          sBroker->authorization() + "\r\nContent-Length: " + std::to_string(body.size()) +
          "\r\nConnection: close\r\n\r\n" + body,
      1500);
  ASSERT_EQ(0u, answer.rfind("HTTP/1.1 2", 0)) << answer;
  const Samples after = scrape();
  const auto moved = [&](const std::string& name) {
    return value(after, name) - value(before, name);
  };
  EXPECT_EQ(1, moved("tuqvu_file_requests_total" + series("method=\"PUT\"")));
  EXPECT_EQ(500, moved("tuqvu_file_bytes_total" + series("direction=\"received\"")));
  EXPECT_EQ(answer.size(), moved("tuqvu_file_bytes_total" + series("direction=\"sent\"")));
}

TEST_F(Metrics, EventStreamSubscribersAreCountedWhileTheyAreOpen) {
  {
    EventStream stream(port(), "/events");
    ASSERT_NE(std::string::npos, stream.head().find("200")) << stream.head();
    EXPECT_EQ(1, value(scrape(), "tuqvu_event_stream_subscribers"));
  }
  EXPECT_TRUE(
      tuqvutest::eventually([] { return value(scrape(), "tuqvu_event_stream_subscribers") == 0; }));
}

TEST_F(Metrics, ConnectionsToThePortAreCountedWhileTheyAreOpen) {
  const std::string open = "tuqvu_http_connections_open";
  {
    // Three idle keep-alive connections, and the scrape's own.
    HttpConnection first(port());
    HttpConnection second(port());
    HttpConnection third(port());
    EXPECT_TRUE(tuqvutest::eventually([&] { return value(scrape(), open) == 4; }))
        << value(scrape(), open);
  }
  EXPECT_TRUE(tuqvutest::eventually([&] { return value(scrape(), open) == 1; }))
      << value(scrape(), open);
}

TEST_F(Metrics, TheProcessIsDescribed) {
  const Samples samples = scrape();
  EXPECT_GT(value(samples, "process_resident_memory_bytes"), 0);
  EXPECT_GE(value(samples, "process_threads"), 3);  // I/O threads at least
  EXPECT_GT(value(samples, "process_open_fds"), 0);
  EXPECT_GT(value(samples, "process_start_time_seconds"), 0);
  EXPECT_GE(value(samples, "tuqvu_uptime_seconds"), 0);
  // The descriptors counted are the broker's.
  EXPECT_NEAR(openDescriptors(sBroker->pid()), value(samples, "process_open_fds"), 8);
}

}  // namespace
