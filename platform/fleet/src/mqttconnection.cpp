#include <tuqvu/broker/secretfile.h>
#include <tuqvu/fleet/mqttconnection.h>
#include <unistd.h>

#include <chrono>

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

std::string uniqueClientId(const std::string& stem) {
  return stem + "-" + std::to_string(::getpid()) + "-" + broker::randomHex(4);
}

}  // namespace fleet
}  // namespace tuqvu
