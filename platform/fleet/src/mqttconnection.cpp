#include <tuqvu/broker/secretfile.h>
#include <tuqvu/fleet/mqttconnection.h>
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
                                         const std::optional<mqtt::message>& will) {
  mqtt::connect_options_builder builder = mqtt::connect_options_builder()
                                              .mqtt_version(MQTTVERSION_5)
                                              .clean_start(true)
                                              .keep_alive_interval(std::chrono::seconds(30))
                                              .connect_timeout(std::chrono::seconds(10));
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
