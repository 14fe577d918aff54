#include <tuqvu/fleet/fleettopics.h>

#include <utility>
#include <vector>

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

std::string FleetTopics::withRequester(const std::string& commandTopic,
                                       const std::string& clientId) {
  return commandTopic + "/" + clientId;
}

std::string FleetTopics::requesterOf(const std::string& commandTopic) const {
  // Split into levels: a name that happens to be "command" must not pass for the leaf.
  std::vector<std::string> levels;
  for (std::size_t begin = 0;;) {
    const std::size_t slash = commandTopic.find('/', begin);
    levels.push_back(commandTopic.substr(begin, slash - begin));
    if (slash == std::string::npos) break;
    begin = slash + 1;
  }
  const bool robotOrGroup = levels.size() == 5 &&
                            (levels[1] == "robots" || levels[1] == "groups") &&
                            levels[3] == "command";
  const bool all = levels.size() == 4 && levels[1] == "all" && levels[2] == "command";
  if (levels[0] != fPrefix || !(robotOrGroup || all)) return "";
  return isTopicLevel(levels.back()) ? levels.back() : "";
}

std::string FleetTopics::answerTo(const std::string& clientId) const {
  return responses(clientId) + "/" + fRobotId;
}

std::string FleetTopics::robotOfAnswer(const std::string& topic,
                                       const std::string& clientId) const {
  const std::string head = responses(clientId) + "/";
  if (topic.size() <= head.size() || topic.compare(0, head.size(), head) != 0) return "";
  const std::string robot = topic.substr(head.size());
  return isTopicLevel(robot) ? robot : "";
}

}  // namespace fleet
}  // namespace tuqvu
