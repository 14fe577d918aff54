// tuqvu-call: calls one method of a tuqvu broker, watches its memory events, uploads files
// through its file API, prints the fingerprint of this machine's broker, or lists and
// calls the robots of a fleet through an MQTT broker.
#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/cliclient.h>
#include <tuqvu/broker/servertrust.h>
#include <tuqvu/broker/tlscertificate.h>
#include <tuqvu/fleet/fleetclient.h>

#include <csignal>
#include <iostream>
#include <string>
#include <vector>

namespace broker = tuqvu::broker;

namespace {

int usage(const std::string& message) {
  std::cerr << "tuqvu-call: " << message << "\n(try tuqvu-call --help)\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // A server that drops the connection must give a write error, not end the program.
  std::signal(SIGPIPE, SIG_IGN);
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (tuqvu::fleet::isFleetCommandLine(arguments)) {
    tuqvu::fleet::FleetCommandLine fleetCommand;
    try {
      fleetCommand = tuqvu::fleet::parseFleetCommandLine(arguments);
    } catch (const std::exception& error) {
      return usage(error.what());
    }
    return fleetCommand.kind == tuqvu::fleet::FleetCommandLine::List
               ? tuqvu::fleet::runFleetList(fleetCommand, std::cout, std::cerr)
               : tuqvu::fleet::runFleetCall(fleetCommand, std::cout, std::cerr);
  }
  broker::CliCommand command;
  try {
    command = broker::parseCommandLine(arguments);
  } catch (const std::exception& error) {
    return usage(error.what());
  }
  if (command.kind == broker::CliCommand::Help) {
    std::cout << broker::cliHelpText() << tuqvu::fleet::fleetHelpText();
    return 0;
  }
  if (command.kind == broker::CliCommand::ShowFingerprint) {
    return broker::runShowFingerprint(broker::defaultCertificateFiles().certificate);
  }
  broker::ServerTrust trust;
  try {
    trust = broker::serverTrustOf(command);
  } catch (const broker::UsageError& error) {
    return usage(error.what());
  }
  std::vector<broker::UploadItem> uploads;
  if (command.kind == broker::CliCommand::Put) {
    try {
      uploads = broker::planUpload(command.words[0], command.words[1]);
    } catch (const broker::UsageError& error) {
      return usage(error.what());
    } catch (const std::exception& error) {
      std::cerr << "tuqvu-call: " << error.what() << "\n";
      return 1;
    }
  }
  try {
    const broker::Url url = broker::parseUrl(command.url);
    broker::Feedback feedback = broker::Feedback::forStandardError(command.progress);
    switch (command.kind) {
      case broker::CliCommand::Watch: return broker::runWatch(url, trust, command.words);
      case broker::CliCommand::Put: return broker::runPut(url, trust, uploads, feedback);
      default: return broker::runCall(url, trust, command.method, command.words, feedback);
    }
  } catch (const broker::UntrustedServer& error) {
    std::cerr << "tuqvu-call: " << error.what();
    return 1;
  } catch (const std::exception& error) {
    std::cerr << "tuqvu-call: " << command.url << ": " << error.what() << "\n";
    return 1;
  }
}
