// tuqvu-call: its command line and its help.
#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/tlsfingerprint.h>

#include <optional>

namespace tuqvu {
namespace broker {

namespace {

std::string checkedFingerprint(const std::string& text) {
  const std::optional<std::string> fingerprint = parseFingerprint(text);
  if (!fingerprint) {
    throw UsageError("--fingerprint: \"" + text +
                     "\" is not a certificate fingerprint (64 hexadecimal digits, AB:CD:...)");
  }
  return *fingerprint;
}

}  // namespace

CliCommand parseCommandLine(const std::vector<std::string>& args) {
  CliCommand command;
  bool watch = false, put = false, help = false, showFingerprint = false;
  std::vector<std::string> words;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& argument = args[i];
    if (!command.method.empty()) {
      words.push_back(argument);  // arguments of the call, taken as they are
    } else if (argument == "--help" || argument == "-h") {
      help = true;
    } else if (argument == "--url") {
      if (i + 1 >= args.size()) throw UsageError("--url needs a URL");
      command.url = args[++i];
    } else if (argument.rfind("--url=", 0) == 0) {
      command.url = argument.substr(6);
    } else if (argument == "--watch") {
      watch = true;
    } else if (argument == "--put") {
      if (i + 2 >= args.size()) throw UsageError("--put needs LOCAL and REMOTE");
      if (put) throw UsageError("--put can be given once only");
      put = true;
      words.push_back(args[i + 1]);
      words.push_back(args[i + 2]);
      i += 2;
    } else if (argument == "--progress") {
      command.progress = true;
    } else if (argument == "--trust-new") {
      command.trustNew = true;
    } else if (argument == "--fingerprint" || argument.rfind("--fingerprint=", 0) == 0) {
      std::string value;
      if (argument != "--fingerprint") {
        value = argument.substr(14);
      } else if (i + 1 < args.size() && args[i + 1].rfind('-', 0) != 0) {
        value = args[++i];
      } else {
        showFingerprint = true;
        continue;
      }
      command.fingerprint = checkedFingerprint(value);
    } else if (argument.size() > 1 && argument[0] == '-' && (watch || put || words.empty())) {
      throw UsageError("unknown option " + argument);
    } else if (watch || put) {
      words.push_back(argument);
    } else {
      command.method = argument;
    }
  }
  if (help) {
    command.kind = CliCommand::Help;
    return command;
  }
  if (showFingerprint) {
    if (args.size() != 1) {
      throw UsageError(
          "--fingerprint needs the fingerprint of the robot's certificate (AB:CD:...); "
          "alone, without one, it prints that of this machine's broker");
    }
    command.kind = CliCommand::ShowFingerprint;
    return command;
  }
  if (watch && put) throw UsageError("--watch and --put cannot be combined");
  if (put) {
    if (words.size() != 2)
      throw UsageError("--put takes LOCAL and REMOTE only, not \"" + words[2] + "\"");
    command.kind = CliCommand::Put;
  } else if (watch) {
    command.kind = CliCommand::Watch;
  } else {
    if (command.method.empty()) throw UsageError("no method given");
    const std::size_t dot = command.method.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == command.method.size()) {
      throw UsageError("the method must be written Module.method, not \"" + command.method + "\"");
    }
  }
  command.words = std::move(words);
  // Refuses a malformed URL before anything is sent.
  if (!parseUrl(command.url).secure && !command.fingerprint.empty()) {
    throw UsageError("--fingerprint is for https:// URLs, and " + command.url +
                     " is sent in clear without a certificate");
  }
  return command;
}

std::string cliHelpText() {
  return "Usage:\n"
         "  tuqvu-call [OPTIONS] Module.method [ARG ...]\n"
         "  tuqvu-call [OPTIONS] --watch [KEY ...]\n"
         "  tuqvu-call [OPTIONS] --put LOCAL REMOTE\n"
         "  tuqvu-call --fingerprint\n"
         "  tuqvu-call --help\n"
         "\n"
         "Talks to a tuqvu broker over HTTP or HTTPS.\n"
         "\n"
         "Module.method [ARG ...]\n"
         "  Calls a method of a module hosted by the broker (JSON-RPC, POST /rpc) and\n"
         "  prints its result as JSON on standard output (exit status 0), or the error's\n"
         "  description on standard error (exit status 1). Each ARG is read as a JSON\n"
         "  literal (5, 1.5, true, null, [1,\"a\"], \"quoted text\") and otherwise taken as a\n"
         "  plain string; everything after Module.method is an argument, even when it\n"
         "  begins with '-'. A call that has not been answered after a second shows an\n"
         "  elapsed-time spinner on standard error when that is a terminal (runBehavior,\n"
         "  for instance, answers when the behavior ends). ZRBroker.getModules lists the\n"
         "  modules and ZRBroker.getMethods MODULE describes the methods of one.\n"
         "\n"
         "--watch [KEY ...]\n"
         "  Prints the memory events for the given keys (every key when none is given) as\n"
         "  they are raised, one JSON object {\"key\":..,\"value\":..} per line, until the\n"
         "  broker ends the stream or the command is interrupted (Ctrl-C).\n"
         "\n"
         "--put LOCAL REMOTE\n"
         "  Uploads LOCAL through the broker's file API: the file is sent with HTTP PUT\n"
         "  to /files/REMOTE on the broker's port, the folders those of the behavior\n"
         "  manager's file-transfer server, which need not run for this.\n"
         "  A directory is sent file by file under REMOTE (empty directories are not\n"
         "  sent). A REMOTE ending in '/' gets LOCAL's name appended. Request paths:\n"
         "    /behaviors/User/P   the user's behaviors folder (~/.tuqvu/behaviors/P)\n"
         "    /tmp/P              the broker's temporary folder (for packages to install)\n"
         "  Missing folders are created and existing files replaced. Each file sent is\n"
         "  printed on standard output once the service confirmed it; progress (bytes\n"
         "  sent, percentage, rate) shows on standard error when that is a terminal, and\n"
         "  a summary line at the end in any case.\n"
         "\n"
         "--fingerprint\n"
         "  Prints the fingerprint (SHA-256) of the certificate of this machine's broker\n"
         "  (run it as the broker's user), to compare with the one tuqvu-call shows on\n"
         "  another machine when it meets the robot first.\n"
         "\n"
         "HTTPS\n"
         "  With an https:// URL nothing, the secret included, is sent before the\n"
         "  broker's certificate is trusted. With --fingerprint (or TUQVU_FINGERPRINT)\n"
         "  only the certificate of that fingerprint is. Otherwise a certificate is\n"
         "  trusted that an authority this system trusts signed for the host, or the one\n"
         "  remembered for HOST:PORT in the known-robots file\n"
         "  ~/.config/tuqvu/known_robots ($XDG_CONFIG_HOME/tuqvu/known_robots), lines\n"
         "  \"HOST:PORT FINGERPRINT\" ('#' starts a comment, IPv6 hosts in brackets).\n"
         "  A robot whose certificate is not the one remembered is refused:\n"
         "  someone may be intercepting the connection. For a robot met the first time\n"
         "  the fingerprint of its certificate is shown and, when standard input and\n"
         "  standard error are terminals, you are asked whether to trust and remember\n"
         "  it; otherwise it is refused unless --trust-new is given.\n"
         "\n"
         "Options:\n"
         "  --url URL    the broker, http://HOST[:PORT][/PATH] (port 80 by default) or\n"
         "               https://HOST[:PORT][/PATH] (port 443 by default); the default\n"
         "               is http://127.0.0.1:9600\n"
         "  --fingerprint FP\n"
         "               https: trust only the certificate with this fingerprint\n"
         "               (64 hexadecimal digits, AB:CD:..., as --fingerprint alone prints\n"
         "               it on the robot)\n"
         "  --trust-new  https: remember the certificate of a robot met the first time\n"
         "               without asking\n"
         "  --progress   show progress and the waiting spinner on standard error even\n"
         "               when it is not a terminal\n"
         "  --help, -h   show this text\n"
         "\n"
         "Environment:\n"
         "  TUQVU_SECRET       the broker's secret (else the secret file of this user)\n"
         "  TUQVU_FINGERPRINT  the fingerprint to trust when --fingerprint is not given\n"
         "\n"
         "Examples:\n"
         "  tuqvu-call ZRBroker.getModules\n"
         "  tuqvu-call ZRBroker.getMethods ZRBehaviorManager\n"
         "  tuqvu-call ZRBehaviorManager.getInstalledBehaviors\n"
         "  tuqvu-call ZRBehaviorManager.runBehavior System/animations/wave\n"
         "  tuqvu-call ZRBehaviorManager.stopBehavior System/animations/wave\n"
         "  tuqvu-call ZRMemory.insertData Demo/Count 3\n"
         "  tuqvu-call ZRMemory.insertData Demo/Text '\"3\"'\n"
         "  tuqvu-call --url http://robot:9600 ZRBehaviorManager.getRunningBehaviors\n"
         "  tuqvu-call --url https://robot.local:9600 ZRBroker.getModules\n"
         "  tuqvu-call --fingerprint\n"
         "  tuqvu-call --watch BehaviorsRun ZRBehaviorManager/BehaviorAdded\n"
         "  tuqvu-call --put hello /behaviors/User/greetings/\n"
         "  tuqvu-call ZRBehaviorManager.installBehavior greetings/hello\n"
         "  tuqvu-call --put wave.zip /tmp/wave.zip\n"
         "  tuqvu-call ZRBehaviorManager.installBehavior /tmp/wave.zip moves/wave false\n"
         "\n"
         "Exit status: 0 success; 1 the call or upload failed, the broker cannot be\n"
         "reached or is not trusted; 2 the command line is wrong.\n";
}

}  // namespace broker
}  // namespace tuqvu
