#include <tuqvu/broker/secretfile.h>
#include <tuqvu/fleet/mqttconnection.h>
#include <tuqvu/fleet/mqttversion.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace tuqvu {
namespace fleet {

mqtt::create_options mqttCreateOptions() {
  mqtt::create_options options(MQTTVERSION_5);
  options.set_send_while_disconnected(false);
  return options;
}

mqtt::connect_options mqttConnectOptions(const FleetSettings& settings,
                                         const std::optional<mqtt::message>& will, int version) {
  mqtt::connect_options_builder builder = mqtt::connect_options_builder()
                                              .mqtt_version(version)
                                              .keep_alive_interval(std::chrono::seconds(30))
                                              .connect_timeout(std::chrono::seconds(10));
  // MQTT 5 calls it a clean start, 3.1.1 a clean session; Paho refuses the other's flag.
  if (version == MQTTVERSION_5) {
    builder.clean_start(true);
  } else {
    builder.clean_session(true);
  }
  if (!settings.user.empty()) builder.user_name(settings.user);
  if (!settings.password.empty()) builder.password(settings.password);
  if (will) builder.will(*will);
  if (settings.encrypted()) {
    mqtt::ssl_options_builder ssl;
    ssl.enable_server_cert_auth(true).verify(true);
    if (!settings.certificateAuthorities.empty()) ssl.trust_store(settings.certificateAuthorities);
    if (!settings.certificate.empty()) {
      ssl.key_store(settings.certificate).private_key(settings.key);
    }
    builder.ssl(ssl.finalize());
  }
  return builder.finalize();
}

namespace {

// One CONNECT of `version`: "" when connected, else why not; `refusal` says what the failure
// tells of the version.
std::string connectOnce(mqtt::async_client& client, const mqtt::connect_options& options,
                        std::chrono::seconds timeout, Mqtt5Refusal* refusal) {
  *refusal = Mqtt5Refusal::None;
  try {
    if (!client.connect(options)->wait_for(timeout)) return "no answer from the broker";
    return "";
  } catch (const mqtt::exception& error) {
    *refusal =
        mqtt5RefusalOf(error.get_return_code(), error.get_reason_code(), error.get_message());
    const std::string words = connectRefusalText(error.get_return_code());
    return error.what() + (words.empty() ? "" : " (" + words + ")");
  }
}

}  // namespace

MqttAttempt connectMqtt(mqtt::async_client& client, const FleetSettings& settings,
                        const std::optional<mqtt::message>& will, int firstVersion,
                        std::chrono::seconds timeout) {
  MqttAttempt attempt;
  Mqtt5Refusal refusal = Mqtt5Refusal::None;
  std::string error =
      connectOnce(client, mqttConnectOptions(settings, will, firstVersion), timeout, &refusal);
  if (error.empty()) {
    attempt.version = firstVersion;
    return attempt;
  }
  if (firstVersion != MQTTVERSION_5 || refusal == Mqtt5Refusal::None) {
    attempt.error = error;
    return attempt;
  }
  attempt.mqtt5Refused = refusal == Mqtt5Refusal::Certain;
  attempt.triedMqtt311 = true;
  const std::string fallbackError =
      connectOnce(client, mqttConnectOptions(settings, will, MQTTVERSION_3_1_1), timeout, &refusal);
  if (fallbackError.empty()) {
    attempt.version = MQTTVERSION_3_1_1;
  } else {
    // Both, so that neither the refusal nor the reason 3.1.1 failed (credentials) is hidden.
    attempt.error = error + "; with MQTT 3.1.1: " + fallbackError;
  }
  return attempt;
}

bool disconnectAndSettle(mqtt::async_client& client, std::chrono::milliseconds timeout) {
  const mqtt::token_ptr goodbye = client.disconnect();
  if (!goodbye->wait_for(timeout)) return false;
  // Paho marks the token complete before its thread wakes the waiters and drops the
  // client's reference; destroying the client in between frees what that thread still
  // uses. The reference is dropped last, so one left here means the thread is done.
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (goodbye.use_count() > 1 && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::string uniqueClientId(const std::string& stem) {
  return stem + "-" + std::to_string(::getpid()) + "-" + broker::randomHex(4);
}

}  // namespace fleet
}  // namespace tuqvu
