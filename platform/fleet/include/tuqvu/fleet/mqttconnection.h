// What the robot and the command-line client share to reach the fleet's MQTT broker: the
// client, and the options of one connection (MQTT 5, the credentials, TLS).
//
//   mqtt::async_client client(settings.serverUri(), clientId, mqttCreateOptions());
//   client.connect(mqttConnectOptions(settings, will))->wait_for(timeout);
#pragma once

#include <mqtt/async_client.h>
#include <tuqvu/fleet/fleetsettings.h>

#include <chrono>
#include <optional>
#include <string>

namespace tuqvu {
namespace fleet {

// MQTT 5; nothing is buffered while disconnected (the state is published again on
// reconnecting, and a message sent late would be stale).
mqtt::create_options mqttCreateOptions();

// A clean MQTT 5 session with the settings' credentials, checking an mqtts:// broker's
// certificate against the settings' authorities (or the system's) and its host name;
// with `will`, the broker publishes it when the connection ends without a goodbye.
mqtt::connect_options mqttConnectOptions(const FleetSettings& settings,
                                         const std::optional<mqtt::message>& will = std::nullopt);

// Ends the client's connection, waiting at most `timeout` for the broker's answer and then
// until Paho's own thread has let go of the disconnect, so that the client may be destroyed
// right after. False when the broker did not answer in time.
bool disconnectAndSettle(mqtt::async_client& client, std::chrono::milliseconds timeout);

// A client id no other client has: `stem`, the host's process id and random hex.
std::string uniqueClientId(const std::string& stem);

}  // namespace fleet
}  // namespace tuqvu
