// How a robot or a client reaches the fleet's MQTT broker: the broker's URL, the
// credentials, and the names that place it in the fleet's topics. The command line gives
// them; what it leaves out comes from the environment (the service's configuration file):
// TUQVU_MQTT, TUQVU_MQTT_USER, TUQVU_MQTT_PASSWORD, TUQVU_MQTT_CERT, TUQVU_MQTT_KEY,
// TUQVU_MQTT_CA, TUQVU_ROBOT_ID, TUQVU_MQTT_PREFIX and TUQVU_MQTT_GROUPS (comma-separated).
// A password is never taken from the command line, where every user of the machine could
// read it: --mqtt-password-file names a file that holds it.
//
//   FleetSettings settings = fleetSettings(options);   // throws FleetSettingsError
//   if (settings.enabled()) ...
#pragma once

#include <tuqvu/broker/options.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace tuqvu {
namespace fleet {

struct FleetSettings {
  std::string url;  // mqtt://HOST[:PORT] or mqtts://HOST[:PORT]; empty: no fleet link
  std::string user;
  std::string password;
  std::string certificate;  // a client certificate (PEM), with `key`
  std::string key;
  std::string certificateAuthorities;  // PEM; empty: the system's
  std::string robotId;
  std::string prefix = "tuqvu";
  std::vector<std::string> groups;

  bool enabled() const { return !url.empty(); }
  bool encrypted() const { return url.rfind("mqtts://", 0) == 0; }
  // "tcp://HOST:PORT" or "ssl://HOST:PORT", as the MQTT library names servers.
  std::string serverUri() const;
};

class FleetSettingsError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// The fleet settings of the broker's command line and the environment, checked: a URL
// with a known scheme, names that are topic levels, a certificate with its key, a
// readable password file. The robot id defaults to the host name.
FleetSettings fleetSettings(const broker::Options& options);

// Checks the settings a client gives (no robot id needed); throws FleetSettingsError.
void checkConnectionSettings(const FleetSettings& settings);

// The first line of a password file, without its line end.
std::string readPasswordFile(const std::string& path);

}  // namespace fleet
}  // namespace tuqvu
