// Reading what the fleet tests' tools print, and a robot's memory over its HTTP port.
//
//   const auto shown = statusesByRobot(tuqvuCall(...).out);   // tuqvu-call --fleet --json
//   onlineCount(shown);
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace brokertest {

// Each line of `output` as JSON (discarded values for lines that are none).
std::vector<nlohmann::json> jsonLines(const std::string& output);

// The statuses of a fleet list's JSON lines, by robot.
std::map<std::string, nlohmann::json> statusesByRobot(const std::string& listOutput);
int onlineCount(const std::map<std::string, nlohmann::json>& statuses);

// The value of `key` in the memory of the robot serving HTTP on `port`; null when unset.
nlohmann::json robotMemory(int port, const std::string& key);

}  // namespace brokertest
