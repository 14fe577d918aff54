// The fleet from the command line (tuqvu-call --fleet URL): the robots with their status,
// and one call made on every robot addressed, each robot's answer on a line of its own.
//
//   tuqvu-call --fleet mqtt://fleet.lan [--json]
//   tuqvu-call --fleet mqtt://fleet.lan --to all ZRBehaviorManager.runBehavior System/wave
#pragma once

#include <tuqvu/fleet/fleetsettings.h>

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace tuqvu {
namespace fleet {

struct FleetCommandLine {
  enum Kind { List, Call };
  Kind kind = List;
  FleetSettings settings;  // url, credentials, prefix
  bool json = false;       // --json: JSON lines
  int timeoutSeconds = 5;  // --timeout: how long answers are waited for
  std::string to;          // --to: a robot id, a group, or "all"
  std::string method;      // "Module.method"
  std::vector<std::string> args;
};

// Whether the command line is one of the fleet's (it holds --fleet before any method).
bool isFleetCommandLine(const std::vector<std::string>& args);

// Throws broker::UsageError saying what is wrong.
FleetCommandLine parseFleetCommandLine(const std::vector<std::string>& args);

// One robot's status as the list shows it: "ID  online  1.0.0  up 3 s  groups a,b".
std::string statusLine(const nlohmann::json& status);

// Lists the robots that have a status; exit status 0, or 1 when the broker cannot be
// reached.
int runFleetList(const FleetCommandLine& command, std::ostream& out, std::ostream& err);

// Calls command.method on every robot addressed and prints one JSON line per robot; exit
// status 0 only when every robot addressed answered without an error.
int runFleetCall(const FleetCommandLine& command, std::ostream& out, std::ostream& err);

std::string fleetHelpText();

}  // namespace fleet
}  // namespace tuqvu
