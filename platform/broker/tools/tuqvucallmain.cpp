// tuqvu-call: calls one method of a tuqvu broker, watches its memory events, or uploads
// files through the behavior manager's file-transfer service.
#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/cliclient.h>

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
  broker::CliCommand command;
  try {
    command = broker::parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& error) {
    return usage(error.what());
  }
  if (command.kind == broker::CliCommand::Help) {
    std::cout << broker::cliHelpText();
    return 0;
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
      case broker::CliCommand::Watch: return broker::runWatch(url, command.words);
      case broker::CliCommand::Put: return broker::runPut(url, uploads, feedback);
      default: return broker::runCall(url, command.method, command.words, feedback);
    }
  } catch (const std::exception& error) {
    std::cerr << "tuqvu-call: " << command.url << ": " << error.what() << "\n";
    return 1;
  }
}
