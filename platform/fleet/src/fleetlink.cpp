#include <mqtt/async_client.h>
#include <tuqvu/broker/calladmission.h>
#include <tuqvu/broker/jsonio.h>
#include <tuqvu/broker/rpcdispatcher.h>
#include <tuqvu/fleet/fleetcommands.h>
#include <tuqvu/fleet/fleetlink.h>
#include <tuqvu/fleet/mqttconnection.h>
#include <tuqvu/fleet/mqttversion.h>
#include <tuqvu/fleet/processhealth.h>
#include <vu/log.h>
#include <zr/zrvaluejson.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace tuqvu {
namespace fleet {
namespace {

constexpr const char* kLog = "tuqvu.fleet";
constexpr std::chrono::seconds kFirstRetry{1};
constexpr std::chrono::seconds kLongestRetry{30};
constexpr std::chrono::seconds kBrokerAnswer{15};
constexpr std::chrono::seconds kGoodbye{3};

bool isLibraryChange(const std::string& key) {
  return key == "ZRBehaviorManager/BehaviorAdded" || key == "ZRBehaviorManager/BehaviorRemoved" ||
         key == "ZRBehaviorManager/BehaviorUpdated";
}

bool isRunningList(const std::string& key) {
  return key == "BehaviorsRun";
}

nlohmann::json jsonOrNull(const std::string& text) {
  return nlohmann::json::parse(text, nullptr, false);
}

}  // namespace

FleetLink::FleetLink(FleetSettings settings, std::shared_ptr<broker::ServerContext> context,
                     std::string version)
    : fSettings(std::move(settings)),
      fTopics(fSettings.prefix, fSettings.robotId),
      fContext(std::move(context)),
      fVersion(std::move(version)) {}

FleetLink::~FleetLink() {
  stop();
}

void FleetLink::start() {
  fFirstVersion = MQTTVERSION_5;
  std::weak_ptr<AnswerRoute> route = fAnswerRoute;
  fCommands =
      std::make_shared<FleetCommands>(fContext, fTopics, [route](mqtt::message_ptr message) {
        std::shared_ptr<mqtt::async_client> client;
        if (const std::shared_ptr<AnswerRoute> alive = route.lock()) {
          std::lock_guard<std::mutex> lock(alive->mutex);
          client = alive->client.lock();
        }
        if (!client) return;
        try {
          client->publish(std::move(message));
        } catch (const mqtt::exception& error) {
          vu::log::write(vu::log::warning, kLog, "answer",
                         std::string("an answer was lost: ") + error.what());
        }
      });
  makeClient();
  fThread = std::thread([this] { run(); });
}

void FleetLink::makeClient() {
  fRetiredClient = std::move(fClient);
  fClient = std::make_shared<mqtt::async_client>(
      fSettings.serverUri(), uniqueClientId("tuqvu-" + fSettings.robotId), mqttCreateOptions());
  fClientTriedMqtt311 = false;
  fClient->set_connection_lost_handler([this](const std::string& cause) {
    vu::log::write(vu::log::warning, kLog, "connection",
                   "lost the MQTT broker " + fSettings.url + (cause.empty() ? "" : ": " + cause) +
                       "; connecting again");
    std::lock_guard<std::mutex> lock(fMutex);
    fConnected = false;
    fWake.notify_all();
  });
  std::weak_ptr<FleetCommands> commands = fCommands;
  fClient->set_message_callback([commands](mqtt::const_message_ptr message) {
    if (const std::shared_ptr<FleetCommands> alive = commands.lock()) alive->take(message);
  });
  std::lock_guard<std::mutex> lock(fAnswerRoute->mutex);
  fAnswerRoute->client = fClient;
}

bool FleetLink::connected() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fConnected;
}

void FleetLink::memoryEvent(const std::string& key, const ZR::ZRValue& value) {
  if (!isLibraryChange(key) && !isRunningList(key)) return;
  Event event{key, ZR::toJson(value)};
  std::lock_guard<std::mutex> lock(fMutex);
  if (fStopping) return;
  if (fEvents.size() >= kMaxQueuedEvents) fEvents.pop_front();
  fEvents.push_back(std::move(event));
  if (isLibraryChange(key)) fLibraryChanged = true;
  fWake.notify_all();
}

void FleetLink::stop() {
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (fStopping) return;
    fStopping = true;
    fWake.notify_all();
  }
  if (fThread.joinable()) fThread.join();
  if (!fClient) return;
  try {
    if (fClient->is_connected()) {
      publish(fTopics.status(), statusPayload(false), true);
      disconnectAndSettle(*fClient, kGoodbye);
    }
  } catch (const mqtt::exception& error) {
    vu::log::write(vu::log::warning, kLog, "stop",
                   std::string("could not say goodbye to the MQTT broker: ") + error.what());
  }
}

void FleetLink::run() {
  std::chrono::seconds retry = kFirstRetry;
  Clock::time_point nextHeartbeat = Clock::now() + kHeartbeat;
  std::unique_lock<std::mutex> lock(fMutex);
  while (!fStopping) {
    if (!fConnected) {
      lock.unlock();
      const bool connectedNow = connect();
      lock.lock();
      if (!connectedNow) {
        fWake.wait_for(lock, retry, [this] { return fStopping; });
        retry = std::min(retry * 2, kLongestRetry);
        continue;
      }
      retry = kFirstRetry;
      fConnected = true;
      fEvents.clear();  // the state published next holds them
      fLibraryChanged = false;
      lock.unlock();
      publishState();
      lock.lock();
      nextHeartbeat = Clock::now() + kHeartbeat;
      continue;
    }
    fWake.wait_until(lock, nextHeartbeat, [this] {
      return fStopping || !fConnected || !fEvents.empty() || fLibraryChanged;
    });
    if (fStopping || !fConnected) continue;
    std::deque<Event> events;
    events.swap(fEvents);
    const bool libraryChanged = std::exchange(fLibraryChanged, false);
    lock.unlock();
    for (const Event& event : events) publishEvent(event);
    if (libraryChanged) {
      const std::string library = callForJson("ZRBehaviorManager", "getInstalledBehaviors", "[]");
      if (!library.empty()) publish(fTopics.library(), library, true);
    }
    if (Clock::now() >= nextHeartbeat) {
      publish(fTopics.health(), healthPayload(), false);
      nextHeartbeat = Clock::now() + kHeartbeat;
    }
    lock.lock();
  }
}

bool FleetLink::connect() {
  // A client that fell back to 3.1.1 in vain cannot try MQTT 5 again.
  if (fClientTriedMqtt311 && fFirstVersion == MQTTVERSION_5) makeClient();
  const mqtt::message will(fTopics.status(), statusPayload(false), 1, true);
  const MqttAttempt attempt = connectMqtt(*fClient, fSettings, will, fFirstVersion, kBrokerAnswer);
  fClientTriedMqtt311 = fClientTriedMqtt311 || attempt.triedMqtt311;
  if (fFirstVersion == MQTTVERSION_5 &&
      (attempt.mqtt5Refused || attempt.version == MQTTVERSION_3_1_1)) {
    fFirstVersion = MQTTVERSION_3_1_1;
    vu::log::write(vu::log::info, kLog, "connection",
                   "the MQTT broker " + fSettings.url +
                       " does not take MQTT 5: the robot uses MQTT 3.1.1 with it until it "
                       "restarts");
  }
  std::string error = attempt.error;
  if (attempt.version != 0) {
    try {
      subscribeToCommands();
      vu::log::write(vu::log::info, kLog, "connection",
                     "connected to the MQTT broker " + fSettings.url + " with " +
                         mqttVersionName(attempt.version) + " as robot " + fSettings.robotId);
      fLostLogged = false;
      return true;
    } catch (const mqtt::exception& subscription) {
      error = subscription.what();
    }
  }
  // Once a spell of failures, so that a broker that stays away does not fill the log.
  if (!fLostLogged) {
    vu::log::write(
        vu::log::warning, kLog, "connection",
        "cannot reach the MQTT broker " + fSettings.url + ": " + error + "; trying again");
    fLostLogged = true;
  }
  try {
    if (fClient->is_connected()) disconnectAndSettle(*fClient, kGoodbye);
  } catch (const mqtt::exception&) {
    // Not connected after all: nothing to end.
  }
  return false;
}

void FleetLink::subscribeToCommands() {
  std::vector<std::string> commandTopics{fTopics.command(), fTopics.allCommand()};
  for (const std::string& group : fSettings.groups) {
    commandTopics.push_back(fTopics.groupCommand(group));
  }
  // Each bare, and with a requester's level for those who cannot name a response topic.
  std::vector<std::string> topics;
  for (const std::string& topic : commandTopics) {
    topics.push_back(topic);
    topics.push_back(FleetTopics::anyRequester(topic));
  }
  const mqtt::string_collection_ptr filters = mqtt::string_collection::create(topics);
  const std::vector<int> qos(topics.size(), 1);
  if (!fClient->subscribe(filters, qos)->wait_for(kBrokerAnswer)) {
    throw mqtt::exception(MQTTASYNC_FAILURE, "no answer to the subscription");
  }
}

void FleetLink::publishState() {
  publish(fTopics.status(), statusPayload(true), true);
  // Nothing has run yet while the list was never written.
  const std::string running = callForJson("ZRMemory", "getData", R"(["BehaviorsRun"])");
  publish(fTopics.running(), running.empty() || running == "null" ? "[]" : running, true);
  const std::string library = callForJson("ZRBehaviorManager", "getInstalledBehaviors", "[]");
  if (!library.empty()) publish(fTopics.library(), library, true);
}

void FleetLink::publishEvent(const Event& event) {
  if (isRunningList(event.key)) publish(fTopics.running(), event.valueJson, true);
  publish(fTopics.events(),
          broker::dumpJson({{"key", event.key}, {"value", jsonOrNull(event.valueJson)}}), false);
}

void FleetLink::publish(const std::string& topic, const std::string& payload, bool retained) {
  try {
    fClient->publish(mqtt::make_message(topic, payload, 1, retained));
  } catch (const mqtt::exception& error) {
    // Disconnected meanwhile: the state goes out again after the reconnect.
    vu::log::write(vu::log::verbose, kLog, "publish", "not sent to " + topic + ": " + error.what());
  }
}

std::string FleetLink::statusPayload(bool online) const {
  nlohmann::json status = {{"robot", fSettings.robotId},
                           {"state", online ? "online" : "offline"},
                           {"groups", fSettings.groups}};
  if (online) {
    status["version"] = fVersion;
    // A retained status is read long after it was sent: it says when the robot started,
    // from which a reader counts the uptime, beside the uptime when it was sent.
    status["started"] =
        std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::system_clock::now().time_since_epoch() - (Clock::now() - fStarted))
            .count();
    status["uptime_s"] =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - fStarted).count();
  }
  return broker::dumpJson(status);
}

std::string FleetLink::healthPayload() const {
  const ProcessHealth health = processHealth();
  return broker::dumpJson(
      {{"robot", fSettings.robotId},
       {"uptime_s",
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - fStarted).count()},
       {"resident_bytes", health.residentBytes},
       {"threads", health.threads},
       {"descriptors", health.descriptors},
       {"calls_running", fContext->admission ? fContext->admission->running() : 0}});
}

std::string FleetLink::callForJson(const std::string& module, const std::string& method,
                                   const std::string& argsJson) const {
  const broker::CallOutcome outcome = fContext->rpc->invoke(module, method, ZR::fromJson(argsJson));
  return outcome.ok ? outcome.result : "";
}

}  // namespace fleet
}  // namespace tuqvu
