// The topics of a fleet on an MQTT broker. Every topic starts with the fleet's prefix; a
// robot owns the topics under <prefix>/robots/<id>/, and commands come on its own topic,
// on those of its groups and on the fleet-wide one:
//
//   <prefix>/robots/<id>/status     retained: online (with version, uptime, groups) or offline
//   <prefix>/robots/<id>/running    retained: the names of the running behaviors
//   <prefix>/robots/<id>/library    retained: the installed behaviors
//   <prefix>/robots/<id>/events     library and running-list changes, as they happen
//   <prefix>/robots/<id>/health     a heartbeat once a minute
//   <prefix>/robots/<id>/command    JSON-RPC requests for this robot
//   <prefix>/groups/<group>/command JSON-RPC requests for every robot of the group
//   <prefix>/all/command            JSON-RPC requests for every robot
//   <prefix>/clients/<client>/responses            answers named by an MQTT 5 request
//
// MQTT 3.1.1 carries no response topic, so a requester on it names itself with one more
// level of the command topic (<command topic>/<client>), and each robot answers on a topic
// of its own under the requester's:
//
//   <prefix>/clients/<client>/responses/<id>
//
//   FleetTopics topics("tuqvu", "robot-7");
//   topics.status();   // "tuqvu/robots/robot-7/status"
#pragma once

#include <string>

namespace tuqvu {
namespace fleet {

// Whether `text` can be one level of a topic: 1 to 64 characters, letters, digits and
// "-_.", so that no name can reach into another robot's topics or act as a wildcard.
bool isTopicLevel(const std::string& text);

class FleetTopics {
public:
  FleetTopics(std::string prefix, std::string robotId);

  std::string status() const { return robot("status"); }
  std::string running() const { return robot("running"); }
  std::string library() const { return robot("library"); }
  std::string events() const { return robot("events"); }
  std::string health() const { return robot("health"); }
  std::string command() const { return robot("command"); }
  std::string groupCommand(const std::string& group) const;
  std::string allCommand() const { return fPrefix + "/all/command"; }
  // Matches the status topic of every robot of the fleet.
  std::string everyStatus() const { return fPrefix + "/robots/+/status"; }
  // Where a client with `clientId` takes its answers.
  std::string responses(const std::string& clientId) const;
  // The robot of a status topic ("" when the topic is no robot's status).
  std::string robotOfStatus(const std::string& topic) const;

  // A command topic with the requester's level added: "<command>/<client>".
  static std::string withRequester(const std::string& commandTopic, const std::string& clientId);
  // Matches a command topic with any requester's level.
  static std::string anyRequester(const std::string& commandTopic) { return commandTopic + "/+"; }
  // The requester a command topic names ("" for a bare command topic or no command topic).
  std::string requesterOf(const std::string& commandTopic) const;
  // Where this robot answers a requester that named itself in the command topic.
  std::string answerTo(const std::string& clientId) const;
  // Matches every robot's answers to `clientId`.
  std::string everyAnswerTo(const std::string& clientId) const {
    return responses(clientId) + "/+";
  }
  // The robot that sent an answer to `clientId` ("" when the topic is no such answer).
  std::string robotOfAnswer(const std::string& topic, const std::string& clientId) const;

  const std::string& prefix() const { return fPrefix; }
  const std::string& robotId() const { return fRobotId; }

private:
  std::string robot(const char* leaf) const;

  std::string fPrefix;
  std::string fRobotId;
};

}  // namespace fleet
}  // namespace tuqvu
