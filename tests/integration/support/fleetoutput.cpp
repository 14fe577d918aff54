#include "support/fleetoutput.h"

#include <sstream>

#include "support/httpclient.h"

namespace brokertest {

using nlohmann::json;

std::vector<json> jsonLines(const std::string& output) {
  std::vector<json> parsed;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    parsed.push_back(json::parse(line, nullptr, false));
  }
  return parsed;
}

std::map<std::string, json> statusesByRobot(const std::string& listOutput) {
  std::map<std::string, json> byRobot;
  for (const json& status : jsonLines(listOutput)) {
    if (status.is_object()) byRobot[status.value("robot", "")] = status;
  }
  return byRobot;
}

int onlineCount(const std::map<std::string, json>& statuses) {
  int online = 0;
  for (const auto& [robot, status] : statuses) online += status.value("state", "") == "online";
  return online;
}

json robotMemory(int port, const std::string& key) {
  const json reply = rpc(port, "ZRMemory.getData", json::array({key}));
  return reply.contains("result") ? reply["result"] : json();
}

}  // namespace brokertest
