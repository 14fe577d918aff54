#include <tuqvu/fleet/fleetsettings.h>
#include <tuqvu/fleet/fleettopics.h>
#include <unistd.h>
#include <vu/settings.h>

#include <fstream>

namespace tuqvu {
namespace fleet {
namespace {

std::string orEnvironment(const std::string& given, const char* variable) {
  return given.empty() ? vu::settings::text(variable) : given;
}

std::vector<std::string> splitCommas(const std::string& text) {
  std::vector<std::string> parts;
  std::string part;
  for (const char c : text + ",") {
    if (c != ',') {
      part += c;
    } else if (!part.empty()) {
      parts.push_back(part);
      part.clear();
    }
  }
  return parts;
}

std::string hostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return "";
  std::string text(name);
  // The first label: "robot-7.local" is robot-7 in the fleet.
  const std::size_t dot = text.find('.');
  return dot == std::string::npos ? text : text.substr(0, dot);
}

}  // namespace

std::string FleetSettings::serverUri() const {
  std::string address = url.substr(url.find("://") + 3);
  if (!address.empty() && address.back() == '/') address.pop_back();
  // A port follows the last colon, unless that colon is inside an IPv6 address's brackets.
  const std::size_t colon = address.rfind(':');
  const std::size_t bracket = address.rfind(']');
  const bool hasPort =
      colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
  if (!hasPort) address += encrypted() ? ":8883" : ":1883";
  return (encrypted() ? "ssl://" : "tcp://") + address;
}

std::string readPasswordFile(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!file || !std::getline(file, line)) {
    throw FleetSettingsError("cannot read the MQTT password from " + path);
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

void checkConnectionSettings(const FleetSettings& settings) {
  const std::string& url = settings.url;
  if (url.rfind("mqtt://", 0) != 0 && url.rfind("mqtts://", 0) != 0) {
    throw FleetSettingsError("the MQTT broker's URL must start with mqtt:// or mqtts://, not \"" +
                             url + "\"");
  }
  std::string address = url.substr(url.find("://") + 3);
  if (!address.empty() && address.back() == '/') address.pop_back();
  if (address.empty() || address.front() == ':' ||
      address.find_first_of("/?#@ ") != std::string::npos) {
    throw FleetSettingsError(
        "the MQTT broker's URL names no host, or more than a host and "
        "port: \"" +
        url + "\"");
  }
  if (settings.certificate.empty() != settings.key.empty()) {
    throw FleetSettingsError("--mqtt-cert and --mqtt-key go together: the certificate and its key");
  }
  if (!settings.certificate.empty() && !settings.encrypted()) {
    throw FleetSettingsError("a client certificate needs an mqtts:// URL");
  }
  if (!isTopicLevel(settings.prefix)) {
    throw FleetSettingsError("the topic prefix \"" + settings.prefix +
                             "\" must be 1 to 64 letters, digits or -_.");
  }
}

FleetSettings fleetSettings(const broker::Options& options) {
  FleetSettings settings;
  settings.url = orEnvironment(options.mqttUrl, "TUQVU_MQTT");
  if (settings.url.empty()) return settings;
  settings.user = orEnvironment(options.mqttUser, "TUQVU_MQTT_USER");
  settings.password = options.mqttPasswordFile.empty() ? vu::settings::text("TUQVU_MQTT_PASSWORD")
                                                       : readPasswordFile(options.mqttPasswordFile);
  settings.certificate = orEnvironment(options.mqttCertificate, "TUQVU_MQTT_CERT");
  settings.key = orEnvironment(options.mqttKey, "TUQVU_MQTT_KEY");
  settings.certificateAuthorities =
      orEnvironment(options.mqttCertificateAuthorities, "TUQVU_MQTT_CA");
  settings.robotId = orEnvironment(options.robotId, "TUQVU_ROBOT_ID");
  if (settings.robotId.empty()) settings.robotId = hostName();
  settings.prefix = orEnvironment(options.mqttPrefix, "TUQVU_MQTT_PREFIX");
  if (settings.prefix.empty()) settings.prefix = "tuqvu";
  settings.groups = options.mqttGroups.empty()
                        ? splitCommas(vu::settings::text("TUQVU_MQTT_GROUPS"))
                        : options.mqttGroups;
  checkConnectionSettings(settings);
  if (!isTopicLevel(settings.robotId)) {
    throw FleetSettingsError("the robot id \"" + settings.robotId +
                             "\" must be 1 to 64 letters, digits or -_. (--robot-id)");
  }
  for (const std::string& group : settings.groups) {
    if (!isTopicLevel(group) || group == "all") {
      throw FleetSettingsError("the group \"" + group +
                               "\" must be 1 to 64 letters, digits or -_., and not \"all\"");
    }
  }
  return settings;
}

}  // namespace fleet
}  // namespace tuqvu
