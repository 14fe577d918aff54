// Whether a failed MQTT 5 CONNECT means the broker does not speak MQTT 5, so that the
// robot and the client connect again with MQTT 3.1.1 only when that can help: a broker
// that refuses the credentials or cannot be reached is reported as it is, never hidden
// behind a second attempt.
//
//   switch (mqtt5RefusalOf(error.get_return_code(), error.get_reason_code(),
//                          error.get_message())) { ... }
#pragma once

#include <string>

namespace tuqvu {
namespace fleet {

enum class Mqtt5Refusal {
  None,      // the failure says nothing about the version: 3.1.1 would fail alike
  Certain,   // the broker answered that it does not take this version of the protocol
  Possible,  // the broker closed the connection without answering the CONNECT
};

// From what Paho reports of a failed MQTT 5 connect: its return code, reason code and
// message.
Mqtt5Refusal mqtt5RefusalOf(int returnCode, int reasonCode, const std::string& message);

// What a broker's refusal of a CONNECT says, in words ("bad user name or password"); ""
// for a code that is no refusal by the broker.
std::string connectRefusalText(int returnCode);

// "MQTT 5" or "MQTT 3.1.1", for the log and for errors.
std::string mqttVersionName(int version);

}  // namespace fleet
}  // namespace tuqvu
