// GET /events and the platform modules of a real tuqvu process.
#include <common/eventually.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <memory>
#include <thread>

#include "support/httpclient.h"
#include "support/shareddaemon.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
using nlohmann::json;

namespace {

class DaemonEvents : public SharedDaemonTest {
protected:
  static void raise(const std::string& key, const json& value) {
    const json reply = rpc(port(), "ZRMemory.raiseMicroEvent", {key, value});
    ASSERT_TRUE(reply.contains("result")) << reply;
  }
  static void insert(const std::string& key, const json& value) {
    const json reply = rpc(port(), "ZRMemory.insertData", {key, value});
    ASSERT_TRUE(reply.contains("result")) << reply;
  }
};

json event(const std::string& key, const json& value) {
  return {{"key", key}, {"value", value}};
}

}  // namespace

TEST_F(DaemonEvents, ThePlatformModulesAreHostedFirstAndReadyIsAnnounced) {
  const json modules = rpc(port(), "ZRBroker.getModules", json::array())["result"];
  EXPECT_EQ(json::parse(R"(["ZRMemory","ZRPreferences","ZRFrameManager","TestModule"])"), modules);
  EXPECT_EQ(json(1), rpc(port(), "ZRMemory.getData", {"TUQvuReady"})["result"]);
}

TEST_F(DaemonEvents, StreamDeliversTheChosenKeysInRaiseOrder) {
  EventStream stream(port(), "/events?key=Test/A&key=Test%2FB");
  EXPECT_EQ(0u, stream.head().find("HTTP/1.1 200 OK\r\n"));
  EXPECT_NE(std::string::npos, stream.head().find("Content-Type: text/event-stream\r\n"));
  std::vector<json> expected;
  for (int i = 0; i < 100; ++i) {
    raise("Test/A", i);
    raise("Test/Other", i);  // not asked for
    expected.push_back(event("Test/A", i));
    if (i % 10 == 0) {
      insert("Test/B", {"inserted", i});
      expected.push_back(event("Test/B", {"inserted", i}));
    }
  }
  for (const json& want : expected) {
    const std::string got = stream.next();
    ASSERT_FALSE(got.empty()) << "the stream stopped before " << want;
    EXPECT_EQ(want, json::parse(got));
  }
}

TEST_F(DaemonEvents, AClientThatReconnectsWithTheLastIdGetsTheEventsRaisedMeanwhile) {
  std::string lastId;
  {
    EventStream first(port(), "/events?key=Test/Replay");
    raise("Test/Replay", 0);
    ASSERT_EQ(event("Test/Replay", 0), json::parse(first.next()));
    EXPECT_EQ("2000", first.retry());
    lastId = first.lastId();
    ASSERT_FALSE(lastId.empty());
  }  // the connection is cut
  for (int i = 1; i <= 3; ++i) raise("Test/Replay", i);
  raise("Test/NotFollowed", 9);
  EventStream again(port(), "/events?key=Test/Replay", lastId);
  raise("Test/Replay", 4);
  for (int i = 1; i <= 4; ++i) {
    const std::string got = again.next();
    ASSERT_FALSE(got.empty()) << "nothing for " << i;
    EXPECT_EQ(event("Test/Replay", i), json::parse(got));
  }
}

TEST_F(DaemonEvents, AnIdThisBrokerDidNotGiveIsAnsweredWithALostEventNotASilentGap) {
  EventStream again(port(), "/events?key=Test/Replay", "0badc0de.17");
  const json lost = json::parse(again.next());
  EXPECT_EQ(0u,
            lost["reason"].get<std::string>().find("the broker restarted since event 0badc0de.17"))
      << lost;
  raise("Test/Replay", "after");
  EXPECT_EQ(event("Test/Replay", "after"), json::parse(again.next()));
}

TEST_F(DaemonEvents, WithoutKeysEveryKeyArrives) {
  EventStream stream(port(), "/events");
  raise("Any/One", "first");
  insert("Any/Two", json::array({1.5, true}));
  // The broker's own start-up data ("TUQvuReady") may still be on its way to a stream
  // that opened early; only this test's keys are compared.
  const auto nextOfTest = [&stream]() {
    for (;;) {
      const std::string got = stream.next();
      if (got.empty()) return json();
      json parsed = json::parse(got);
      if (parsed.value("key", std::string()).rfind("Any/", 0) == 0) return parsed;
    }
  };
  EXPECT_EQ(event("Any/One", "first"), nextOfTest());
  EXPECT_EQ(event("Any/Two", {1.5, true}), nextOfTest());
}

TEST_F(DaemonEvents, EventsRaisedByModulesArriveToo) {
  EventStream stream(port(), "/events?key=From/Module");
  ASSERT_TRUE(rpc(port(), "TestModule.raise", {"From/Module", "by the module"}).contains("result"));
  EXPECT_EQ(event("From/Module", "by the module"), json::parse(stream.next()));
}

TEST_F(DaemonEvents, ASlowClientIsDisconnectedWhileOthersKeepUp) {
  // The slow client reads nothing while 400 events of 64 KiB (25 MiB, more than the
  // socket buffers and the broker's queue hold) are raised.
  EventStream slow(port(), "/events?key=Flood");
  EventStream reader(port(), "/events?key=Flood/Mark");
  const std::string payload(64 * 1024, 'x');
  constexpr int kRaised = 400;
  for (int i = 0; i < kRaised; ++i) raise("Flood", payload);
  raise("Flood/Mark", "still here");
  // Others are served meanwhile...
  EXPECT_EQ(event("Flood/Mark", "still here"), json::parse(reader.next()));
  EXPECT_EQ(json(3), rpc(port(), "TestModule.add", {1, 2})["result"]);
  // ...and the slow client finds its stream cut short: what was buffered, then the end.
  const int received = slow.countUntilClosed(60000);
  EXPECT_GE(received, 0) << "the slow client's stream was not closed";
  EXPECT_LT(received, kRaised);
}

TEST_F(DaemonEvents, TuqvuCallWatchWithoutTheSecretSaysHowToGetIt) {
  const CommandResult refused = runCommand(
      {tuqvuCallPath(), "--url", "http://127.0.0.1:" + std::to_string(port()), "--watch", "W/1"},
      {{"HOME", daemon->home() + "/elsewhere"}, {"TUQVU_SECRET", "0"}});
  EXPECT_EQ(1, refused.status);
  EXPECT_NE(std::string::npos, refused.err.find("answered 401")) << refused.err;
  EXPECT_NE(std::string::npos, refused.err.find("TUQVU_SECRET")) << refused.err;
}

TEST_F(DaemonEvents, TuqvuCallWatchPrintsEventsAsTheyCome) {
  // A broker of its own: the watcher runs until its broker ends the stream.
  TuqvuProcess own({"--module", "TestModule=" + testModulePath()});
  TuqvuProcess::Setup setup;
  setup.program = tuqvuCallPath();
  setup.args = {"--url", "http://127.0.0.1:" + std::to_string(own.port()), "--watch", "W/1", "W/2"};
  setup.env["TUQVU_SECRET"] = own.secret();
  setup.waitUntilListening = false;
  TuqvuProcess watcher(setup);
  // Raise until the watcher shows the first event: from then on it is connected.
  std::string first;
  for (int round = 0; round < 300 && first.empty(); ++round) {
    rpc(own.port(), "ZRMemory.raiseMicroEvent", {"W/1", round});
    first = watcher.readLine(200);
  }
  ASSERT_FALSE(first.empty()) << watcher.stderrText();
  EXPECT_EQ("W/1", json::parse(first)["key"]);
  // Drain the rounds raised before the first line arrived.
  for (std::string line = watcher.readLine(300); !line.empty(); line = watcher.readLine(300)) {
    EXPECT_EQ("W/1", json::parse(line)["key"]);
  }
  rpc(own.port(), "ZRMemory.raiseMicroEvent", {"W/2", "second"});
  rpc(own.port(), "ZRMemory.raiseMicroEvent", {"W/3", "not watched"});
  rpc(own.port(), "ZRMemory.insertData", {"W/1", json::array({"third", 3})});
  EXPECT_EQ(event("W/2", "second"), json::parse(watcher.readLine(30000)));
  EXPECT_EQ(event("W/1", {"third", 3}), json::parse(watcher.readLine(30000)));
  // The broker going away ends the watch normally.
  EXPECT_EQ(0, own.terminate(SIGTERM)) << own.stderrText();
  EXPECT_EQ(0, watcher.waitExit()) << watcher.stderrText();
}

namespace {

// The whole reply to GET `target` on a connection of its own, read until the server
// closes it (for a refused stream).
std::string refusedStream(int port, const std::string& target) {
  RawConnection connection(port);
  connection.send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: " +
                  authorizationFor(port) + "\r\n\r\n");
  return connection.readUntilClosed(std::chrono::seconds(10));
}

}  // namespace

TEST(DaemonEventStreams, BeyondTheCapAStreamIsRefused503UntilAPlaceIsFree) {
  TuqvuProcess::Setup setup;
  setup.args = {"--module", "TestModule=" + testModulePath()};
  setup.env["TUQVU_EVENTS_MAX_SUBSCRIBERS"] = "2";
  TuqvuProcess daemon(setup);
  auto first = std::make_unique<EventStream>(daemon.port(), "/events?key=Cap/A");
  EventStream second(daemon.port(), "/events?key=Cap/A");
  const std::string refused = refusedStream(daemon.port(), "/events?key=Cap/A");
  EXPECT_EQ(0u, refused.find("HTTP/1.1 503 Service Unavailable\r\n")) << refused;
  EXPECT_NE(std::string::npos, refused.find("this robot serves at most 2 event streams at once "
                                            "(TUQVU_EVENTS_MAX_SUBSCRIBERS)"))
      << refused;
  // The streams that were let in go on.
  EXPECT_TRUE(rpc(daemon.port(), "ZRMemory.raiseMicroEvent", {"Cap/A", 1}).contains("result"));
  EXPECT_EQ(json::parse(second.next()), event("Cap/A", 1));

  first.reset();
  ASSERT_TRUE(tuqvutest::eventually(
      [&] {
        EventStream again(daemon.port(), "/events?key=Cap/A");
        return again.head().rfind("HTTP/1.1 200 OK", 0) == 0;
      },
      std::chrono::seconds(30)));
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}

TEST(DaemonEventStreams, AClientThatDoesNotReadIsDroppedWithAnEventSayingWhy) {
  TuqvuProcess daemon({"--module", "TestModule=" + testModulePath()});
  EventStream stalled(daemon.port(), "/events?key=Slow/Big");
  EventStream reading(daemon.port(), "/events?key=Slow/Big");
  // Nothing is read from `stalled` while about 6 MB of events pass: more than its queue
  // and the sockets' buffers hold.
  const std::string big(300000, 'b');
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(
        rpc(daemon.port(), "ZRMemory.raiseMicroEvent", {"Slow/Big", big + std::to_string(i)})
            .contains("result"));
    // The reader keeps up with every one.
    const std::string got = reading.next();
    ASSERT_FALSE(got.empty()) << i;
    EXPECT_EQ(big + std::to_string(i), json::parse(got)["value"]) << i;
  }
  // The stalled client, reading at last, finds what it was sent, then why it ends.
  const struct timeval guard = {30, 0};  // a server that never ends the stream fails here
  ::setsockopt(stalled.fd(), SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
  std::string rest;
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::recv(stalled.fd(), buffer, sizeof(buffer), 0);
    if (got <= 0) break;
    rest.append(buffer, static_cast<std::size_t>(got));
  }
  EXPECT_NE(std::string::npos,
            rest.find("event: dropped\ndata: {\"reason\":\"this client read too slowly: more "
                      "than 1048576 bytes of events waited for it; connect again to go on\"}\n\n"))
      << rest.size() << " bytes read";
  EXPECT_LT(rest.size(), 6000000u);
  EXPECT_NE(std::string::npos, daemon.stderrText().find("reads too slowly and is disconnected"));
  EXPECT_EQ(0, daemon.terminate(SIGTERM)) << daemon.stderrText();
}
