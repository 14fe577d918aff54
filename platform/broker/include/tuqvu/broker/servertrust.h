// Whether tuqvu-call may talk to an https server: the certificate it presented must be the
// one pinned with --fingerprint (or TUQVU_FINGERPRINT); else one that the system's
// certificate authorities vouch for under the host name; else the one recorded for the
// robot in the known-robots file. A robot met for the first time is recorded when the
// user says so (on the terminal, or with --trust-new), otherwise refused.
//
//   const ServerTrust trust = serverTrustOf(command);
//   switch (decideTrust(trust, presented, chainVerified, knownRobotsFor(lines, key))) ...
#pragma once

#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/knownrobots.h>

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

// What tuqvu-call trusts, from its command line and environment.
struct ServerTrust {
  std::string pinned;      // canonical fingerprint the certificate must have; "" for none
  std::string pinnedFrom;  // where it was given, for messages: "--fingerprint"
  bool trustNew = false;   // record a robot met for the first time without asking
  std::string knownRobots = defaultKnownRobotsFile();
  // Asks the user a yes-or-no question; empty when there is nobody to ask.
  std::function<bool(const std::string& question)> ask;
  // Where the recording of a new robot is told (standard error when null).
  std::ostream* notices = nullptr;
};

// A server that failed the verification; nothing was sent to it. what() is the whole
// message for the user, several lines, without the program's name.
class UntrustedServer : public ClientError {
public:
  using ClientError::ClientError;
};

// The trust of a command line: its --fingerprint, else $TUQVU_FINGERPRINT; its
// --trust-new; the default known-robots file; asking on the terminal when standard input
// and standard error are terminals. UsageError when $TUQVU_FINGERPRINT is no fingerprint.
ServerTrust serverTrustOf(const CliCommand& command);

// Writes the question on standard error and reads "yes" or "no" (or "y", "n", any case)
// from standard input, asking again for anything else; no at the end of the input.
bool askOnTerminal(const std::string& question);

enum class TrustVerdict {
  Pinned,       // accepted: the pinned fingerprint
  PinMismatch,  // refused: another certificate than the pinned one
  Verified,     // accepted: the system's authorities vouch for it under the host name
  Known,        // accepted: the fingerprint recorded for the robot
  Changed,      // refused: not the fingerprint recorded for the robot
  RecordNew,    // accepted and to be recorded (--trust-new)
  AskUser,      // a robot met for the first time; the user may be asked
  Unknown,      // refused: a robot met for the first time, nobody to ask
};

// The verdict on a certificate with fingerprint `presented`. `recorded` holds the lines of
// the known-robots file for this robot; they are not looked at when a fingerprint is
// pinned or the chain verified.
TrustVerdict decideTrust(const ServerTrust& trust, const std::string& presented, bool chainVerified,
                         const std::vector<KnownRobot>& recorded);

// The messages of the refusals and the question, for the robot `key`; `file` is the
// known-robots file.
std::string pinMismatchMessage(const std::string& key, const ServerTrust& trust,
                               const std::string& presented);
std::string changedCertificateMessage(const std::string& key,
                                      const std::vector<KnownRobot>& recorded,
                                      const std::string& presented, const std::string& file);
std::string unknownRobotMessage(const std::string& key, const std::string& presented,
                                const std::string& file);
std::string trustQuestion(const std::string& key, const std::string& presented,
                          const std::string& file);
// What is told once a new robot has been recorded.
std::string recordedNotice(const std::string& key, const std::string& presented,
                           const std::string& file);

}  // namespace broker
}  // namespace tuqvu
