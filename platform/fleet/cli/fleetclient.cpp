#include <mqtt/async_client.h>
#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/jsonio.h>
#include <tuqvu/broker/secretfile.h>
#include <tuqvu/fleet/fleetclient.h>
#include <tuqvu/fleet/fleettopics.h>
#include <tuqvu/fleet/mqttconnection.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <set>

namespace tuqvu {
namespace fleet {
namespace {

using Clock = std::chrono::steady_clock;
// Retained statuses arrive right after the subscription; this long a pause ends them.
constexpr std::chrono::milliseconds kStatusQuiet{500};

// A connected client that queues what it receives, disconnected on destruction: with
// MQTT 5, or 3.1.1 when the broker refuses 5.
class FleetSession {
public:
  FleetSession(const FleetSettings& settings, int timeoutSeconds)
      : fClient(settings.serverUri(), uniqueClientId("tuqvu-call"), mqttCreateOptions()),
        fTimeout(timeoutSeconds) {
    fClient.start_consuming();
    const MqttAttempt attempt =
        connectMqtt(fClient, settings, std::nullopt, MQTTVERSION_5, fTimeout);
    if (attempt.version == 0) throw std::runtime_error(attempt.error);
    fVersion = attempt.version;
  }
  ~FleetSession() {
    try {
      disconnectAndSettle(fClient, std::chrono::seconds(2));
    } catch (const mqtt::exception&) {
      // Gone already.
    }
  }

  void subscribe(const std::string& filter) {
    if (!fClient.subscribe(filter, 1)->wait_for(fTimeout)) {
      throw std::runtime_error("no answer to the subscription of " + filter);
    }
  }
  mqtt::async_client& client() { return fClient; }
  int version() const { return fVersion; }

  // The next message until `deadline`; null when none came.
  mqtt::const_message_ptr next(Clock::time_point deadline) {
    const Clock::time_point now = Clock::now();
    if (now >= deadline) return nullptr;
    mqtt::const_message_ptr message;
    fClient.try_consume_message_for(&message, deadline - now);
    return message;
  }

private:
  mqtt::async_client fClient;
  std::chrono::seconds fTimeout;
  int fVersion = 0;
};

// Every robot's last status, by robot id.
std::map<std::string, nlohmann::json> readStatuses(FleetSession& session, const FleetTopics& topics,
                                                   int timeoutSeconds) {
  session.subscribe(topics.everyStatus());
  std::map<std::string, nlohmann::json> statuses;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(timeoutSeconds);
  while (mqtt::const_message_ptr message =
             session.next(std::min(end, Clock::now() + kStatusQuiet))) {
    const std::string robot = topics.robotOfStatus(message->get_topic());
    const nlohmann::json status = nlohmann::json::parse(message->to_string(), nullptr, false);
    if (robot.empty() || !status.is_object()) continue;
    if (message->get_payload().empty()) {
      statuses.erase(robot);  // a cleared status: the robot left the fleet
    } else {
      statuses[robot] = status;
    }
  }
  return statuses;
}

bool isOnline(const nlohmann::json& status) {
  return status.value("state", "") == "online";
}

bool inGroup(const nlohmann::json& status, const std::string& group) {
  const nlohmann::json groups = status.value("groups", nlohmann::json::array());
  return groups.is_array() && std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::string robotOfAnswer(const mqtt::const_message_ptr& message) {
  const mqtt::properties& properties = message->get_properties();
  for (std::size_t i = 0; i < properties.count(mqtt::property::USER_PROPERTY); ++i) {
    const mqtt::string_pair pair =
        mqtt::get<mqtt::string_pair>(properties, mqtt::property::USER_PROPERTY, i);
    if (std::get<0>(pair) == "robot") return std::get<1>(pair);
  }
  return "";
}

std::string correlationOf(const mqtt::const_message_ptr& message) {
  const mqtt::properties& properties = message->get_properties();
  if (!properties.contains(mqtt::property::CORRELATION_DATA)) return "";
  return mqtt::get<std::string>(properties, mqtt::property::CORRELATION_DATA);
}

std::string joined(const std::set<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

}  // namespace

std::string statusLine(const nlohmann::json& status) {
  std::string line = status.value("robot", "?") + "  " + status.value("state", "?");
  if (status.contains("version")) line += "  " + status.value("version", "");
  if (isOnline(status) && status.contains("started") && status["started"].is_number_integer()) {
    const long long now = std::chrono::duration_cast<std::chrono::seconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();
    line +=
        "  up " + std::to_string(std::max(0LL, now - status["started"].get<long long>())) + " s";
  }
  const nlohmann::json groups = status.value("groups", nlohmann::json::array());
  if (groups.is_array() && !groups.empty()) {
    std::string names;
    for (const nlohmann::json& group : groups) {
      if (group.is_string()) names += (names.empty() ? "" : ",") + group.get<std::string>();
    }
    line += "  groups " + names;
  }
  return line;
}

int runFleetList(const FleetCommandLine& command, std::ostream& out, std::ostream& err) {
  const FleetTopics topics(command.settings.prefix, "");
  try {
    FleetSession session(command.settings, command.timeoutSeconds);
    for (const auto& [robot, status] : readStatuses(session, topics, command.timeoutSeconds)) {
      out << (command.json ? broker::dumpJson(status) : statusLine(status)) << "\n";
    }
    return 0;
  } catch (const std::exception& error) {
    err << "tuqvu-call: " << command.settings.url << ": " << error.what() << "\n";
    return 1;
  }
}

int runFleetCall(const FleetCommandLine& command, std::ostream& out, std::ostream& err) {
  const FleetTopics topics(command.settings.prefix, "");
  try {
    FleetSession session(command.settings, command.timeoutSeconds);
    const std::map<std::string, nlohmann::json> statuses =
        readStatuses(session, topics, command.timeoutSeconds);
    std::set<std::string> addressed;
    std::string topic;
    if (command.to == "all") {
      topic = topics.allCommand();
      for (const auto& [robot, status] : statuses) {
        if (isOnline(status)) addressed.insert(robot);
      }
    } else if (statuses.count(command.to) != 0) {
      topic = FleetTopics(command.settings.prefix, command.to).command();
      addressed.insert(command.to);
    } else {
      topic = topics.groupCommand(command.to);
      for (const auto& [robot, status] : statuses) {
        if (isOnline(status) && inGroup(status, command.to)) addressed.insert(robot);
      }
      if (addressed.empty()) {
        err << "tuqvu-call: no robot and no online robot of a group is named " << command.to
            << "\n";
        return 1;
      }
    }
    if (addressed.empty()) {
      err << "tuqvu-call: no robot is online\n";
      return 1;
    }
    // The name this call's answers come back under, and, without MQTT 5's properties, the
    // requester's level of the command topic and the JSON-RPC id that tells its answers.
    const std::string clientId = broker::randomHex(8);
    const std::string correlation = broker::randomHex(8);
    const bool mqtt5 = session.version() == MQTTVERSION_5;
    mqtt::message_ptr_builder request;
    if (mqtt5) {
      session.subscribe(topics.responses(clientId));
      request.topic(topic)
          .payload(broker::buildCallRequest(command.method, command.args))
          .properties({{mqtt::property::RESPONSE_TOPIC, topics.responses(clientId)},
                       {mqtt::property::CORRELATION_DATA, correlation},
                       {mqtt::property::MESSAGE_EXPIRY_INTERVAL,
                        static_cast<int32_t>(command.timeoutSeconds)}});
    } else {
      session.subscribe(topics.everyAnswerTo(clientId));
      nlohmann::json body =
          nlohmann::json::parse(broker::buildCallRequest(command.method, command.args));
      body["id"] = correlation;
      request.topic(FleetTopics::withRequester(topic, clientId)).payload(broker::dumpJson(body));
    }
    session.client()
        .publish(request.qos(1).finalize())
        ->wait_for(std::chrono::seconds(command.timeoutSeconds));
    // The robot an answer of this call comes from; none for any other message.
    const auto robotOfOurs =
        [&](const mqtt::const_message_ptr& message) -> std::optional<std::string> {
      if (mqtt5) {
        if (correlationOf(message) != correlation) return std::nullopt;
        return robotOfAnswer(message);
      }
      const nlohmann::json answer = nlohmann::json::parse(message->to_string(), nullptr, false);
      const std::string robot = topics.robotOfAnswer(message->get_topic(), clientId);
      if (robot.empty() || !answer.is_object() || !answer.contains("id") ||
          answer["id"] != correlation) {
        return std::nullopt;
      }
      return robot;
    };

    std::set<std::string> waiting = addressed;
    bool allSucceeded = true;
    const Clock::time_point end = Clock::now() + std::chrono::seconds(command.timeoutSeconds);
    while (!waiting.empty()) {
      const mqtt::const_message_ptr message = session.next(end);
      if (!message) break;
      const std::optional<std::string> ours = robotOfOurs(message);
      if (!ours) continue;
      const std::string& robot = *ours;
      const nlohmann::ordered_json answer =
          nlohmann::ordered_json::parse(message->to_string(), nullptr, false);
      nlohmann::ordered_json line = {{"robot", robot}};
      if (answer.is_object() && answer.contains("result")) {
        line["result"] = answer["result"];
      } else {
        line["error"] =
            answer.is_object() && answer.contains("error")
                ? answer["error"]
                : nlohmann::ordered_json("not a JSON-RPC answer: " + message->to_string());
        if (addressed.count(robot) != 0) allSucceeded = false;
      }
      out << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n"
          << std::flush;
      waiting.erase(robot);
    }
    if (!waiting.empty()) {
      err << "tuqvu-call: no answer within " << command.timeoutSeconds
          << " s from: " << joined(waiting) << "\n";
      return 1;
    }
    return allSucceeded ? 0 : 1;
  } catch (const std::exception& error) {
    err << "tuqvu-call: " << command.settings.url << ": " << error.what() << "\n";
    return 1;
  }
}

}  // namespace fleet
}  // namespace tuqvu
