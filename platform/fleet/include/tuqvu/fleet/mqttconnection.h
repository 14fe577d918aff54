// What the robot and the command-line client share to reach the fleet's MQTT broker: the
// client, the options of one connection (the version, the credentials, TLS), and the
// connect that falls back to MQTT 3.1.1 when the broker refuses MQTT 5.
//
//   mqtt::async_client client(settings.serverUri(), clientId, mqttCreateOptions());
//   const MqttAttempt attempt = connectMqtt(client, settings, will, MQTTVERSION_5, timeout);
//   if (attempt.version == 0) ... attempt.error
#pragma once

#include <mqtt/async_client.h>
#include <tuqvu/fleet/fleetsettings.h>

#include <chrono>
#include <optional>
#include <string>

namespace tuqvu {
namespace fleet {

// MQTT 5 (such a client can still connect with 3.1.1); nothing is buffered while disconnected (the
// state is published again on reconnecting, and a message sent late would be stale).
mqtt::create_options mqttCreateOptions();

// A clean session of `version` (MQTTVERSION_5 or MQTTVERSION_3_1_1) with the settings'
// credentials, checking an mqtts:// broker's certificate against the settings' authorities
// (or the system's) and its host name; with `will`, the broker publishes it when the
// connection ends without a goodbye.
mqtt::connect_options mqttConnectOptions(const FleetSettings& settings,
                                         const std::optional<mqtt::message>& will = std::nullopt,
                                         int version = MQTTVERSION_5);

// How one connect went, and what it found out about the broker's version.
struct MqttAttempt {
  int version = 0;            // the version connected with; 0: not connected
  bool mqtt5Refused = false;  // the broker answered that it does not take MQTT 5
  // The client tried 3.1.1: Paho refuses MQTT 5 on it from then on, so a later MQTT 5
  // attempt needs a new client.
  bool triedMqtt311 = false;
  std::string error;  // why it did not connect
};

// Connects with `firstVersion`; when that is MQTT 5 and the broker refuses it, or closes
// the connection without answering the CONNECT, connects again at once with 3.1.1. Any
// other failure (bad credentials, no broker, no answer within `timeout`) ends the attempt
// as it is, so the error said is the real one. Never throws for a failed connect.
MqttAttempt connectMqtt(mqtt::async_client& client, const FleetSettings& settings,
                        const std::optional<mqtt::message>& will, int firstVersion,
                        std::chrono::seconds timeout);

// Ends the client's connection, waiting at most `timeout` for the broker's answer and then
// until Paho's own thread has let go of the disconnect, so that the client may be destroyed
// right after. False when the broker did not answer in time.
bool disconnectAndSettle(mqtt::async_client& client, std::chrono::milliseconds timeout);

// A client id no other client has: `stem`, the host's process id and random hex.
std::string uniqueClientId(const std::string& stem);

}  // namespace fleet
}  // namespace tuqvu
