#include <MQTTAsync.h>
#include <tuqvu/fleet/mqttversion.h>

namespace tuqvu {
namespace fleet {
namespace {

// A 3.1.1 broker's CONNACK return code for a protocol level it does not take; Paho passes
// it on as the return code even on an MQTT 5 connection.
constexpr int kUnacceptableProtocolVersion = 1;
// The same from a broker that speaks MQTT 5 but refuses it (an MQTT 5 reason code).
constexpr int kUnsupportedProtocolVersion = 0x84;
// Paho tells a connection closed while the CONNACK was awaited from one that never opened
// by its message alone: both have the return code MQTTASYNC_FAILURE.
constexpr const char* kClosedBeforeConnack = "TCP connect completion failure";

}  // namespace

Mqtt5Refusal mqtt5RefusalOf(int returnCode, int reasonCode, const std::string& message) {
  if (returnCode == kUnacceptableProtocolVersion || returnCode == kUnsupportedProtocolVersion ||
      reasonCode == kUnsupportedProtocolVersion) {
    return Mqtt5Refusal::Certain;
  }
  if (returnCode == MQTTASYNC_FAILURE && message == kClosedBeforeConnack) {
    return Mqtt5Refusal::Possible;
  }
  return Mqtt5Refusal::None;
}

std::string connectRefusalText(int returnCode) {
  switch (returnCode) {
    case kUnacceptableProtocolVersion: return "the broker does not take this version of MQTT";
    case 2: return "the broker refuses the client id";
    case 3: return "the broker is unavailable";
    case 4: return "bad user name or password";
    case 5: return "not authorized";
    default: break;
  }
  // MQTT 5 reason codes of a CONNACK, which Paho passes on as the return code.
  if (returnCode >= 0x80 && returnCode <= 0xff) {
    const char* text = MQTTReasonCode_toString(static_cast<MQTTReasonCodes>(returnCode));
    if (text != nullptr) return text;
  }
  return "";
}

std::string mqttVersionName(int version) {
  return version == MQTTVERSION_5 ? "MQTT 5" : "MQTT 3.1.1";
}

}  // namespace fleet
}  // namespace tuqvu
