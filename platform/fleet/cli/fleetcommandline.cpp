#include <tuqvu/broker/cli.h>
#include <tuqvu/broker/optionwords.h>
#include <tuqvu/fleet/fleetclient.h>
#include <tuqvu/fleet/fleettopics.h>
#include <vu/settings.h>

namespace tuqvu {
namespace fleet {

bool isFleetCommandLine(const std::vector<std::string>& args) {
  for (const std::string& argument : args) {
    if (argument == "--fleet" || argument.rfind("--fleet=", 0) == 0) return true;
    if (!argument.empty() && argument[0] != '-') return false;  // a method or a value
  }
  return false;
}

FleetCommandLine parseFleetCommandLine(const std::vector<std::string>& args) {
  FleetCommandLine command;
  std::string passwordFile;
  broker::OptionWords words(args);
  while (!words.done()) {
    const std::string option = words.next();
    if (option.empty() || option[0] != '-') {
      command.method = option;
      command.args = words.rest();  // arguments of the call, taken as they are
      break;
    }
    const auto takeValue = [&]() -> std::string {
      std::optional<std::string> value = words.value();
      if (!value) throw broker::UsageError(option + " needs a value");
      return *value;
    };
    if (option == "--fleet") {
      command.settings.url = takeValue();
    } else if (option == "--mqtt-user") {
      command.settings.user = takeValue();
    } else if (option == "--mqtt-password-file") {
      passwordFile = takeValue();
    } else if (option == "--mqtt-ca") {
      command.settings.certificateAuthorities = takeValue();
    } else if (option == "--mqtt-cert") {
      command.settings.certificate = takeValue();
    } else if (option == "--mqtt-key") {
      command.settings.key = takeValue();
    } else if (option == "--mqtt-prefix") {
      command.settings.prefix = takeValue();
    } else if (option == "--json") {
      command.json = true;
    } else if (option == "--to") {
      command.to = takeValue();
    } else if (option == "--timeout") {
      const std::string text = takeValue();
      char* end = nullptr;
      const long seconds = std::strtol(text.c_str(), &end, 10);
      if (text.empty() || *end != '\0' || seconds < 1 || seconds > 3600) {
        throw broker::UsageError("--timeout expects seconds from 1 to 3600, not \"" + text + "\"");
      }
      command.timeoutSeconds = static_cast<int>(seconds);
    } else {
      throw broker::UsageError("unknown option " + option + " of --fleet");
    }
  }
  if (command.settings.user.empty()) command.settings.user = vu::settings::text("TUQVU_MQTT_USER");
  command.settings.password = passwordFile.empty() ? vu::settings::text("TUQVU_MQTT_PASSWORD")
                                                   : readPasswordFile(passwordFile);
  try {
    checkConnectionSettings(command.settings);
  } catch (const FleetSettingsError& error) {
    throw broker::UsageError(error.what());
  }
  if (command.to.empty() != command.method.empty()) {
    throw broker::UsageError("a call on the fleet needs both --to ID|GROUP|all and Module.method");
  }
  if (!command.to.empty() && !isTopicLevel(command.to)) {
    throw broker::UsageError("--to names a robot, a group or all: 1 to 64 letters, digits or -_.");
  }
  if (!command.method.empty() && command.method.find('.') == std::string::npos) {
    throw broker::UsageError("the method is Module.method, not \"" + command.method + "\"");
  }
  command.kind = command.method.empty() ? FleetCommandLine::List : FleetCommandLine::Call;
  return command;
}

std::string fleetHelpText() {
  return "\n"
         "The fleet (robots started with tuqvu --mqtt, see docs/fleet.md):\n"
         "  tuqvu-call --fleet URL [--json]\n"
         "        lists the robots with their status, one line each (--json: JSON lines)\n"
         "  tuqvu-call --fleet URL --to ID|GROUP|all [--timeout S] Module.method [ARG ...]\n"
         "        calls every robot addressed; one JSON line per robot, {\"robot\":..,\n"
         "        \"result\":..} or {\"robot\":..,\"error\":..}; waits at most S seconds\n"
         "        (default 5), names the robots that did not answer, and exits 0 only when\n"
         "        every robot addressed answered without an error\n"
         "  URL is mqtt://HOST[:PORT] or mqtts://HOST[:PORT]; --mqtt-user NAME,\n"
         "  --mqtt-password-file PATH (or TUQVU_MQTT_PASSWORD), --mqtt-ca PATH, --mqtt-cert\n"
         "  PATH and --mqtt-key PATH, --mqtt-prefix TEXT (default tuqvu)\n";
}

}  // namespace fleet
}  // namespace tuqvu
