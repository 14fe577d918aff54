// The robots tuqvu-call has met over https and was told to trust: one line
// "HOST:PORT FINGERPRINT" each in the user's config folder, so that a robot whose
// certificate is not signed by a known authority is recognised the next time, and one whose
// certificate changed is refused.
//
//   const std::string key = robotKey(url.host, url.port);  // "robot.local:9600"
//   const auto lines = knownRobotsFor(readKnownRobots(defaultKnownRobotsFile()), key);
//   if (lines.empty()) rememberRobot(defaultKnownRobotsFile(), key, fingerprint);
#pragma once

#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

// One line of the file.
struct KnownRobot {
  std::string key;          // "HOST:PORT" as robotKey writes it
  std::string fingerprint;  // canonical, as tlsfingerprint.h writes it
  int line = 0;             // its line number in the file, from 1
};

// "$XDG_CONFIG_HOME/tuqvu/known_robots", else "~/.config/tuqvu/known_robots".
std::string defaultKnownRobotsFile();

// The key of a robot: "host:port" with the host in lower case (names are case-blind) and
// an IPv6 literal in brackets ("[fe80::1]:9600").
std::string robotKey(const std::string& host, const std::string& port);

// The line that records a robot, without its end: "KEY FINGERPRINT".
std::string knownRobotLine(const std::string& key, const std::string& fingerprint);

// The lines of a file's text (`path` names the file in errors). Blank lines and lines
// whose first character that is not blank is '#' are skipped. ClientError naming the line
// for one that is not "HOST:PORT FINGERPRINT": a damaged file must not make a robot
// look new.
std::vector<KnownRobot> parseKnownRobots(const std::string& text, const std::string& path);

// The lines of the file; none when it does not exist. ClientError when it cannot be read
// or a line is damaged.
std::vector<KnownRobot> readKnownRobots(const std::string& path);

// The lines recorded for `key`, in file order.
std::vector<KnownRobot> knownRobotsFor(const std::vector<KnownRobot>& robots,
                                       const std::string& key);

// Appends the line of a robot. A missing file is made with mode 0600, missing folders
// with mode 0700. ClientError saying why when it cannot.
void rememberRobot(const std::string& path, const std::string& key, const std::string& fingerprint);

}  // namespace broker
}  // namespace tuqvu
