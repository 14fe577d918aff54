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
  std::shared_ptr<mqtt::async_client> fClient;
  std::shared_ptr<FleetCommands> fCommands;
  std::thread fThread;
  bool fLostLogged = false;  // used by the link's thread alone

  mutable std::mutex fMutex;  // guards everything below
  std::condition_variable fWake;
  std::deque<Event> fEvents;
  bool fConnected = false;
  bool fStopping = false;
  bool fLibraryChanged = false;
};

}  // namespace fleet
}  // namespace tuqvu
