#include <tuqvu/broker/options.h>
#include <tuqvu/broker/optionwords.h>
#include <zr/zrreadykey.h>

#include <boost/asio/ip/address.hpp>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>

#ifndef TUQVU_VERSION
#define TUQVU_VERSION "unknown"
#endif

namespace tuqvu {
namespace broker {
namespace {

int parseInteger(const std::string& option, const std::string& text, long low, long high) {
  if (text.empty()) throw OptionsError(option + " needs a number");
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0' || value < low || value > high) {
    throw OptionsError(option + " expects a whole number from " + std::to_string(low) + " to " +
                       std::to_string(high) + ", not \"" + text + "\"");
  }
  return static_cast<int>(value);
}

}  // namespace

std::string moduleNameForLibrary(const std::string& path) {
  static const std::map<std::string, std::string> kKnown = {
      {"zrbehaviormanager", "ZRBehaviorManager"},
  };
  std::string stem =
      path.substr(path.find_last_of('/') == std::string::npos ? 0 : path.find_last_of('/') + 1);
  const std::size_t so = stem.find(".so");
  if (so != std::string::npos) stem.erase(so);
  if (stem.rfind("lib", 0) == 0 && stem.size() > 3) stem.erase(0, 3);
  const auto known = kKnown.find(stem);
  return known != kKnown.end() ? known->second : stem;
}

ModuleSpec parseModuleArgument(const std::string& argument, bool optional) {
  ModuleSpec moduleSpec;
  moduleSpec.optional = optional;
  const std::size_t equals = argument.find('=');
  if (equals != std::string::npos && equals > 0 &&
      argument.substr(0, equals).find('/') == std::string::npos) {
    moduleSpec.name = argument.substr(0, equals);
    moduleSpec.path = argument.substr(equals + 1);
  } else {
    moduleSpec.path = argument;
    moduleSpec.name = moduleNameForLibrary(argument);
  }
  if (moduleSpec.path.empty()) throw OptionsError("--module needs the path of a module library");
  if (moduleSpec.name.empty())
    throw OptionsError("no module name can be derived from " + moduleSpec.path);
  return moduleSpec;
}

Options parseOptions(int argc, const char* const* argv) {
  Options options;
  OptionWords words(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
  while (!words.done()) {
    const std::string option = words.next();
    const auto takeValue = [&]() -> std::string {
      std::optional<std::string> value = words.value();
      if (!value) throw OptionsError(option + " needs a value");
      return *value;
    };
    if (option == "--help" || option == "-h") {
      options.showHelp = true;
    } else if (option == "--version") {
      options.showVersion = true;
    } else if (option == "--port") {
      options.port = parseInteger(option, takeValue(), 0, 65535);
    } else if (option == "--bind") {
      options.bind = takeValue();
      options.bindGiven = true;
      boost::system::error_code error;
      boost::asio::ip::make_address(options.bind, error);
      if (error) throw OptionsError("--bind expects an IP address, not \"" + options.bind + "\"");
    } else if (option == "--module" || option == "--optional-module") {
      options.modules.push_back(parseModuleArgument(takeValue(), option == "--optional-module"));
      options.modulesGiven = true;
    } else if (option == "--log-level") {
      options.logLevel = parseInteger(option, takeValue(), 1, 6);
    } else if (option == "--shutdown-grace") {
      options.shutdownGraceMs = parseInteger(option, takeValue(), 0, INT_MAX);
    } else if (option == "--host-name") {
      options.hostNames.push_back(takeValue());
    } else if (option == "--secret-file") {
      options.secretFile = takeValue();
    } else if (option == "--trust-loopback") {
      options.trustLoopback = true;
    } else if (option == "--no-file-server") {
      options.fileServer = false;
    } else if (option == "--https") {
      options.https = true;
    } else if (option == "--allow-plain-http") {
      options.allowPlainHttp = true;
    } else if (option == "--tls-cert") {
      options.tlsCertificate = takeValue();
    } else if (option == "--tls-key") {
      options.tlsKey = takeValue();
    } else if (option == "--mqtt") {
      options.mqttUrl = takeValue();
    } else if (option == "--mqtt-user") {
      options.mqttUser = takeValue();
    } else if (option == "--mqtt-password-file") {
      options.mqttPasswordFile = takeValue();
    } else if (option == "--mqtt-cert") {
      options.mqttCertificate = takeValue();
    } else if (option == "--mqtt-key") {
      options.mqttKey = takeValue();
    } else if (option == "--mqtt-ca") {
      options.mqttCertificateAuthorities = takeValue();
    } else if (option == "--robot-id") {
      options.robotId = takeValue();
    } else if (option == "--mqtt-prefix") {
      options.mqttPrefix = takeValue();
    } else if (option == "--mqtt-group") {
      options.mqttGroups.push_back(takeValue());
    } else {
      throw OptionsError("unknown option \"" + option + "\" (try --help)");
    }
  }
  if (options.tlsCertificate.empty() != options.tlsKey.empty()) {
    throw OptionsError("--tls-cert and --tls-key go together: the certificate and its key");
  }
  if (!options.tlsCertificate.empty()) options.https = true;
  return options;
}

bool Options::servesHttps(bool bindsBeyondLoopback) const {
  return https || bindsBeyondLoopback;
}

std::string helpText() {
  return "Usage: tuqvu [OPTIONS]\n"
         "\n"
         "The TUQvu broker. It hosts the memory, preferences and frame-manager modules and the\n"
         "modules of the libraries it loads, inserts \"" +
         std::string(ZR::kReadyKey) +
         "\" = 1 into ZRMemory once all\n"
         "are up, and serves them over HTTP: JSON-RPC at POST /rpc, an event stream at\n"
         "GET /events, and a web interface at GET / with \"?eval=\" expressions. Listening\n"
         "beyond loopback, the port speaks HTTPS (and plain HTTP to this machine only).\n"
         "\n"
         "Options:\n"
         "  --port PORT          TCP port to listen on (default 9600; 0 takes any free port)\n"
         "  --bind ADDRESS       address to listen on (default 127.0.0.1)\n"
         "  --host-name NAME     a name browsers may use for the robot besides its addresses\n"
         "                       and localhost (repeatable)\n"
         "  --secret-file PATH   the installation's secret, which every client presents\n"
         "                       (HTTP Basic, any user name); made at the first start (mode\n"
         "                       0600; default $XDG_CONFIG_HOME/tuqvu/secret, else\n"
         "                       ~/.config/tuqvu/secret)\n"
         "  --trust-loopback     serve clients on loopback without the secret: every program\n"
         "                       of every account on this machine may then control the\n"
         "                       robot. Addresses beyond loopback always need the secret\n"
         "  --https              serve HTTPS on loopback too (beyond loopback it is always on)\n"
         "  --tls-cert PATH      the certificate chain (PEM) to present; with --tls-key. A\n"
         "                       file replaced on disk is taken by new connections. Without\n"
         "                       it the broker makes a self-signed certificate at the first\n"
         "                       start with HTTPS, beside the secret (certificate.pem and\n"
         "                       certificate.key, mode 0600), and logs its fingerprint\n"
         "  --tls-key PATH       the private key (PEM) of --tls-cert\n"
         "  --allow-plain-http   with HTTPS, still take plain HTTP from other machines: the\n"
         "                       secret, the session cookie and every call then cross the\n"
         "                       network readable by anyone on it. Plain HTTP from this\n"
         "                       machine itself is always taken\n"
         "  --no-file-server     do not run the behavior manager's file-transfer server (for\n"
         "                       robots without an authoring application; the broker's own\n"
         "                       pages and calls are not affected)\n"
         "  --mqtt URL           report to the MQTT broker at mqtt://HOST[:PORT] or\n"
         "                       mqtts://HOST[:PORT] and take commands from it (the fleet\n"
         "                       link; see docs/fleet.md). Without it nothing of this runs\n"
         "  --mqtt-user NAME     the user name at the MQTT broker\n"
         "  --mqtt-password-file PATH\n"
         "                       a file holding the MQTT password (or TUQVU_MQTT_PASSWORD)\n"
         "  --mqtt-cert PATH     a client certificate (PEM) for mqtts://, with --mqtt-key\n"
         "  --mqtt-key PATH      its private key (PEM)\n"
         "  --mqtt-ca PATH       the certificate authorities (PEM) to check the MQTT broker\n"
         "                       with (default: the system's)\n"
         "  --robot-id ID        this robot's name in the fleet (default: the host name)\n"
         "  --mqtt-prefix TEXT   the first level of every topic (default tuqvu)\n"
         "  --mqtt-group NAME    a group this robot takes commands for (repeatable)\n"
         "  --module [NAME=]PATH load a module library (repeatable, in this order); NAME\n"
         "                       defaults to the library's module name. Without --module the\n"
         "                       behavior manager library of the build or installation is loaded.\n"
         "                       A library that fails to load stops the broker (exit status 1).\n"
         "  --optional-module [NAME=]PATH\n"
         "                       like --module, but a failure to load is only logged\n"
         "  --log-level LEVEL    1 fatal, 2 error, 3 warning, 4 info (default), 5 verbose, 6 "
         "debug\n"
         "  --shutdown-grace MS  how long calls in progress may still run after SIGINT or\n"
         "                       SIGTERM (default 10000)\n"
         "  --help               show this text\n"
         "  --version            show the version\n"
         "\n"
         "Environment:\n"
         "  HOME                 the user's home (user behaviors, preferences, secret)\n"
         "  TUQVU_BIND           the address to listen on when --bind is not given\n"
         "  TUQVU_SDK_PREFIX     the installation prefix (system data, default module library)\n"
         "  TUQVU_MQTT, TUQVU_MQTT_USER, TUQVU_MQTT_PASSWORD, TUQVU_MQTT_CERT, TUQVU_MQTT_KEY,\n"
         "  TUQVU_MQTT_CA, TUQVU_ROBOT_ID, TUQVU_MQTT_PREFIX, TUQVU_MQTT_GROUPS (comma-separated)\n"
         "                       the fleet link's settings where the options do not give them\n"
         "\n"
         "Once listening it prints \"tuqvu: listening on ADDRESS:PORT\" on standard output.\n"
         "SIGINT or SIGTERM shut it down cleanly (exit status 0); a second signal ends it at "
         "once.\n"
         "\n"
         "Example:\n"
         "  tuqvu --port 9600 --module build/lib/libzrbehaviormanager.so\n"
         "  tuqvu-call ZRBroker.getModules\n";
}

std::string versionText() {
  return std::string("tuqvu ") + TUQVU_VERSION + "\n";
}

}  // namespace broker
}  // namespace tuqvu
