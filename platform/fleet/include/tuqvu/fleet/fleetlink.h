// A robot's link to its fleet through an MQTT broker (see fleettopics.h for the topics).
// It says the robot is online (and "offline" through its last will when the connection
// ends without a goodbye), keeps the running behaviors and the library retained and up to
// date, passes library and running-list changes on as events, sends a health heartbeat
// once a minute, and runs the commands addressed to the robot, its groups or the whole
// fleet (FleetCommands). At rest it sends nothing but the heartbeat.
//
// The broker being away never slows the robot: memory events are queued (a bounded queue
// that drops the oldest) and one thread of the link's own connects, publishes and
// reconnects with back-off; after a reconnect it publishes the retained state again.
//
// It connects with MQTT 5, or with 3.1.1 when the broker refuses 5 (connectMqtt); once the
// broker has refused 5, or taken 3.1.1 after hanging up on 5, the link stays on 3.1.1 until
// the robot restarts: a Paho client that has tried 3.1.1 takes 5 no more, and a new client
// on every reconnect would buy nothing from a broker that is not upgraded in between.
//
//   FleetLink link(settings, context, "1.0.0");
//   link.start();
//   observer = [&](const std::string& key, const ZR::ZRValue& value) { link.memoryEvent(key,
//   value); };
//   ...
//   link.stop();   // "offline", then disconnects
#pragma once

#include <tuqvu/broker/servercontext.h>
#include <tuqvu/fleet/fleetsettings.h>
#include <tuqvu/fleet/fleettopics.h>
#include <zr/zrvalue.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace mqtt {
class async_client;
}

namespace tuqvu {
namespace fleet {

class FleetCommands;

class FleetLink {
public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kHeartbeat{60};
  static constexpr std::size_t kMaxQueuedEvents = 1000;

  FleetLink(FleetSettings settings, std::shared_ptr<broker::ServerContext> context,
            std::string version);
  ~FleetLink();
  FleetLink(const FleetLink&) = delete;
  FleetLink& operator=(const FleetLink&) = delete;

  // Starts the link's thread, which connects (and keeps trying) in the background.
  void start();
  // A memory event of the robot, from the memory module's observer: queued, never waits.
  void memoryEvent(const std::string& key, const ZR::ZRValue& value);
  // Says "offline" (retained), disconnects and ends the link's thread.
  void stop();
  bool connected() const;

private:
  struct Event {
    std::string key;
    std::string valueJson;
  };

  void run();
  bool connect();
  // Makes a client with the link's handlers and routes the answers of commands through it;
  // the one it replaces is kept until the next replacement (see fRetiredClient).
  void makeClient();
  void subscribeToCommands();
  void publishState();
  void publishEvent(const Event& event);
  void publish(const std::string& topic, const std::string& payload, bool retained);
  std::string statusPayload(bool online) const;
  std::string healthPayload() const;
  // The result of a call as JSON text, "" when it failed.
  std::string callForJson(const std::string& module, const std::string& method,
                          const std::string& argsJson) const;

  const FleetSettings fSettings;
  const FleetTopics fTopics;
  const std::shared_ptr<broker::ServerContext> fContext;
  const std::string fVersion;
  const Clock::time_point fStarted = Clock::now();
  // The answers of commands leave on call threads through the client in use.
  struct AnswerRoute {
    std::mutex mutex;  // guards client
    std::weak_ptr<mqtt::async_client> client;
  };
  const std::shared_ptr<AnswerRoute> fAnswerRoute = std::make_shared<AnswerRoute>();
  std::shared_ptr<FleetCommands> fCommands;
  std::thread fThread;

  // Used by the link's thread alone, and by stop() once that thread has ended.
  std::shared_ptr<mqtt::async_client> fClient;
  // The client replaced last: Paho's thread may still be returning from its failed connect
  // when it is replaced, so it is destroyed only a retry later, at the next replacement.
  std::shared_ptr<mqtt::async_client> fRetiredClient;
  int fFirstVersion = 0;             // the version a connect tries first
  bool fClientTriedMqtt311 = false;  // fClient takes MQTT 5 no more
  bool fLostLogged = false;

  mutable std::mutex fMutex;  // guards everything below
  std::condition_variable fWake;
  std::deque<Event> fEvents;
  bool fConnected = false;
  bool fStopping = false;
  bool fLibraryChanged = false;
};

}  // namespace fleet
}  // namespace tuqvu
