// When a failed MQTT 5 connect makes the robot and the client try MQTT 3.1.1: a broker
// that refuses the version or hangs up on the CONNECT, never one that refuses the
// credentials or cannot be reached.
#include <MQTTAsync.h>
#include <gtest/gtest.h>
#include <tuqvu/fleet/mqttversion.h>

using tuqvu::fleet::Mqtt5Refusal;
using tuqvu::fleet::mqtt5RefusalOf;

TEST(MqttVersion, ABrokerThatRefusesTheProtocolVersionCertainlyRefusesMqtt5) {
  // A 3.1.1 broker's CONNACK return code 1, as Paho reports it.
  EXPECT_EQ(mqtt5RefusalOf(1, 0, "CONNACK return code"), Mqtt5Refusal::Certain);
  // An MQTT 5 broker's "unsupported protocol version".
  EXPECT_EQ(mqtt5RefusalOf(0x84, 0, "CONNACK return code"), Mqtt5Refusal::Certain);
  EXPECT_EQ(mqtt5RefusalOf(MQTTASYNC_FAILURE, 0x84, ""), Mqtt5Refusal::Certain);
}

TEST(MqttVersion, ABrokerThatHangsUpOnTheConnectPossiblyRefusesMqtt5) {
  EXPECT_EQ(mqtt5RefusalOf(MQTTASYNC_FAILURE, 0, "TCP connect completion failure"),
            Mqtt5Refusal::Possible);
}

TEST(MqttVersion, CredentialsRefusedOrNoBrokerSayNothingOfTheVersion) {
  // MQTT 5 reason codes: bad user name or password, not authorized.
  EXPECT_EQ(mqtt5RefusalOf(0x86, 0, "CONNACK return code"), Mqtt5Refusal::None);
  EXPECT_EQ(mqtt5RefusalOf(0x87, 0, "CONNACK return code"), Mqtt5Refusal::None);
  // 3.1.1 return codes: bad user name or password, not authorized, server unavailable.
  EXPECT_EQ(mqtt5RefusalOf(4, 4, "CONNACK return code"), Mqtt5Refusal::None);
  EXPECT_EQ(mqtt5RefusalOf(5, 5, "CONNACK return code"), Mqtt5Refusal::None);
  EXPECT_EQ(mqtt5RefusalOf(3, 3, "CONNACK return code"), Mqtt5Refusal::None);
  // Nothing listening, and a broker that never answers.
  EXPECT_EQ(mqtt5RefusalOf(MQTTASYNC_FAILURE, 0, "TCP/TLS connect failure"), Mqtt5Refusal::None);
  EXPECT_EQ(mqtt5RefusalOf(MQTTASYNC_FAILURE, 0, "no answer from the broker"), Mqtt5Refusal::None);
}

TEST(MqttVersion, ABrokersRefusalIsSaidInWords) {
  EXPECT_EQ(tuqvu::fleet::connectRefusalText(4), "bad user name or password");
  EXPECT_EQ(tuqvu::fleet::connectRefusalText(5), "not authorized");
  EXPECT_EQ(tuqvu::fleet::connectRefusalText(0x87), "Not authorized");
  EXPECT_EQ(tuqvu::fleet::connectRefusalText(MQTTASYNC_FAILURE), "");
}
