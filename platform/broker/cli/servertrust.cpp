// tuqvu-call: whether an https server is trusted, and what the user is told about it.
#include <tuqvu/broker/servertrust.h>
#include <tuqvu/broker/tlsfingerprint.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>

namespace tuqvu {
namespace broker {
namespace {

std::string lowerCaseTrimmed(const std::string& text) {
  std::string word;
  for (const unsigned char c : text) {
    if (!std::isspace(c)) word += static_cast<char>(std::tolower(c));
  }
  return word;
}

// "line 3" or "lines 3 and 7" or "lines 3, 5 and 7".
std::string lineNumbers(const std::vector<KnownRobot>& recorded) {
  std::string text = recorded.size() == 1 ? "line " : "lines ";
  for (std::size_t i = 0; i < recorded.size(); ++i) {
    if (i > 0) text += i + 1 == recorded.size() ? " and " : ", ";
    text += std::to_string(recorded[i].line);
  }
  return text;
}

// The sed command that deletes those lines: "sed -i '3d;7d' FILE".
std::string deleteCommand(const std::vector<KnownRobot>& recorded, const std::string& file) {
  std::string script;
  for (const KnownRobot& robot : recorded) {
    script += (script.empty() ? "" : ";") + std::to_string(robot.line) + "d";
  }
  return "sed -i '" + script + "' " + file;
}

// How the user can tell the robot's fingerprint, to compare `which` ("it") with.
std::string howToCheck(const std::string& which) {
  return "Compare " + which +
         " with the fingerprint the robot shows: `tuqvu-call --fingerprint`\n"
         "run on the robot as the broker's user prints it, and the broker logs it when it\n"
         "starts.\n";
}

}  // namespace

ServerTrust serverTrustOf(const CliCommand& command) {
  ServerTrust trust;
  if (!command.fingerprint.empty()) {
    trust.pinned = command.fingerprint;
    trust.pinnedFrom = "--fingerprint";
  } else if (const char* fromEnvironment = std::getenv("TUQVU_FINGERPRINT")) {
    if (*fromEnvironment != '\0') {
      const std::optional<std::string> fingerprint = parseFingerprint(fromEnvironment);
      if (!fingerprint) {
        throw UsageError(
            "TUQVU_FINGERPRINT is not a certificate fingerprint (64 hexadecimal "
            "digits, AB:CD:...): \"" +
            std::string(fromEnvironment) + "\"");
      }
      trust.pinned = *fingerprint;
      trust.pinnedFrom = "TUQVU_FINGERPRINT";
    }
  }
  trust.trustNew = command.trustNew;
  if (::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1) trust.ask = askOnTerminal;
  return trust;
}

bool askOnTerminal(const std::string& question) {
  std::cerr << question << std::flush;
  std::string answer;
  while (std::getline(std::cin, answer)) {
    const std::string word = lowerCaseTrimmed(answer);
    if (word == "yes" || word == "y") return true;
    if (word == "no" || word == "n") return false;
    std::cerr << "Please type yes or no: " << std::flush;
  }
  std::cerr << "\n";
  return false;
}

TrustVerdict decideTrust(const ServerTrust& trust, const std::string& presented, bool chainVerified,
                         const std::vector<KnownRobot>& recorded) {
  if (!trust.pinned.empty()) {
    return presented == trust.pinned ? TrustVerdict::Pinned : TrustVerdict::PinMismatch;
  }
  if (chainVerified) return TrustVerdict::Verified;
  if (!recorded.empty()) {
    const bool known = std::any_of(recorded.begin(), recorded.end(), [&](const KnownRobot& robot) {
      return robot.fingerprint == presented;
    });
    return known ? TrustVerdict::Known : TrustVerdict::Changed;
  }
  if (trust.trustNew) return TrustVerdict::RecordNew;
  return trust.ask ? TrustVerdict::AskUser : TrustVerdict::Unknown;
}

std::string pinMismatchMessage(const std::string& key, const ServerTrust& trust,
                               const std::string& presented) {
  return "WARNING: the certificate of " + key + " is not the one given with " + trust.pinnedFrom +
         "!\n"
         "Someone may be intercepting the connection, or the fingerprint given is not this\n"
         "robot's. Nothing was sent.\n"
         "  expected:  " +
         trust.pinned +
         "\n"
         "  presented: " +
         presented + "\n" + howToCheck("the one presented");
}

std::string changedCertificateMessage(const std::string& key,
                                      const std::vector<KnownRobot>& recorded,
                                      const std::string& presented, const std::string& file) {
  std::string text =
      "WARNING: THE CERTIFICATE OF " + key +
      " HAS CHANGED!\n"
      "Someone may be intercepting the connection (a man-in-the-middle attack), or the\n"
      "robot really got a new certificate. Nothing was sent.\n";
  for (const KnownRobot& robot : recorded) text += "  remembered:    " + robot.fingerprint + "\n";
  text += "  presented now: " + presented + "\n" + howToCheck("the one presented now") +
          "If the robot really got a new certificate (it was reinstalled, or its certificate\n"
          "was made anew), remove " +
          lineNumbers(recorded) + " of " + file + ", for instance with\n  " +
          deleteCommand(recorded, file) + "\nand connect again.\n";
  return text;
}

std::string unknownRobotMessage(const std::string& key, const std::string& presented,
                                const std::string& file) {
  return "the robot " + key +
         " is not known yet, and its certificate is not signed by an\n"
         "authority this system trusts. Nothing was sent. The fingerprint (SHA-256) of its\n"
         "certificate is\n  " +
         presented + "\n" + howToCheck("it") +
         "Then go on with one of\n"
         "  --fingerprint " +
         presented +
         "\n"
         "      to trust this certificate for this call (or set TUQVU_FINGERPRINT), or\n"
         "  --trust-new\n"
         "      to remember the certificate a robot shows the first time in\n"
         "      " +
         file + "\n";
}

std::string trustQuestion(const std::string& key, const std::string& presented,
                          const std::string& file) {
  return "tuqvu-call: the robot " + key +
         " is not known yet, and its certificate is not signed by an\n"
         "authority this system trusts. The fingerprint (SHA-256) of its certificate is\n  " +
         presented + "\n" + howToCheck("it") + "Trust it and remember it in " + file +
         "? (yes/no) ";
}

std::string recordedNotice(const std::string& key, const std::string& presented,
                           const std::string& file) {
  return "tuqvu-call: remembered the robot " + key + " with the certificate fingerprint\n  " +
         presented + "\nin " + file + "\n";
}

}  // namespace broker
}  // namespace tuqvu
