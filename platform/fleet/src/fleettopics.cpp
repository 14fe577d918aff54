#include <tuqvu/fleet/fleettopics.h>

#include <utility>

namespace tuqvu {
namespace fleet {

bool isTopicLevel(const std::string& text) {
  if (text.empty() || text.size() > 64) return false;
  for (const char c : text) {
    const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
    if (!allowed) return false;
  }
  return true;
}

FleetTopics::FleetTopics(std::string prefix, std::string robotId)
    : fPrefix(std::move(prefix)), fRobotId(std::move(robotId)) {}

std::string FleetTopics::robot(const char* leaf) const {
  return fPrefix + "/robots/" + fRobotId + "/" + leaf;
}

std::string FleetTopics::groupCommand(const std::string& group) const {
  return fPrefix + "/groups/" + group + "/command";
}

std::string FleetTopics::responses(const std::string& clientId) const {
  return fPrefix + "/clients/" + clientId + "/responses";
}

std::string FleetTopics::robotOfStatus(const std::string& topic) const {
  const std::string head = fPrefix + "/robots/";
  const std::string tail = "/status";
  if (topic.size() <= head.size() + tail.size() || topic.compare(0, head.size(), head) != 0 ||
      topic.compare(topic.size() - tail.size(), tail.size(), tail) != 0) {
    return "";
  }
  const std::string robot = topic.substr(head.size(), topic.size() - head.size() - tail.size());
  return isTopicLevel(robot) ? robot : "";
}

}  // namespace fleet
}  // namespace tuqvu
