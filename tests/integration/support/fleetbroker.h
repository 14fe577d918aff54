// The users and access list of the fleet tests' Mosquitto. Robots write their own topics and the
// answers; operators command and read; viewers only read what the robots publish. Every
// command topic also has the form with a requester's level, which clients without MQTT 5
// use ("/#" matches the bare topic as well).
#pragma once

#include <map>
#include <string>
#include <vector>

namespace brokertest {

// Name -> password.
inline const std::map<std::string, std::string> kFleetUsers{
    {"robot", "robot-secret"}, {"operator", "operator-secret"}, {"viewer", "viewer-secret"}};

inline constexpr const char* kFleetAcl =
    "user robot\n"
    "topic readwrite tuqvu/robots/#\n"
    "topic read tuqvu/groups/#\n"
    "topic read tuqvu/all/command/#\n"
    "topic write tuqvu/clients/#\n"
    "\n"
    "user operator\n"
    "topic write tuqvu/robots/+/command/#\n"
    "topic write tuqvu/groups/+/command/#\n"
    "topic write tuqvu/all/command/#\n"
    "topic read tuqvu/robots/#\n"
    "topic readwrite tuqvu/clients/#\n"
    "\n"
    "user viewer\n"
    "topic read tuqvu/robots/#\n"
    "topic readwrite tuqvu/clients/#\n";

// The command line of tuqvu-call on the fleet at `url` as `user`, followed by `args`.
inline std::vector<std::string> fleetCallArgv(const std::string& program, const std::string& url,
                                              const std::string& user,
                                              const std::string& passwordFile,
                                              const std::vector<std::string>& args) {
  std::vector<std::string> argv = {
      program, "--fleet", url, "--mqtt-user", user, "--mqtt-password-file", passwordFile};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

}  // namespace brokertest
