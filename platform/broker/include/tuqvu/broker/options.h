// Command-line options of the tuqvu daemon.
//
//   tuqvu::broker::Options options = tuqvu::broker::parseOptions(argc, argv);
//   if (options.showHelp) std::cout << tuqvu::broker::helpText();
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

// A module library to load: its path, the name its module is given, and whether a
// failure to load it is tolerated (logged) rather than fatal.
struct ModuleSpec {
  std::string path;
  std::string name;
  bool optional = false;
};

struct Options {
  int port = 9600;  // 0: any free port
  std::string bind = "127.0.0.1";
  bool bindGiven = false;              // false: $TUQVU_BIND, when set, chooses the address
  std::vector<std::string> hostNames;  // --host-name, repeatable
  std::string secretFile;              // empty: the user's config folder
  bool trustLoopback = false;          // --trust-loopback: no secret asked on loopback
  bool fileServer = true;              // --no-file-server: the file-transfer server stays off
  bool https = false;                  // --https: HTTPS on loopback too
  bool allowPlainHttp = false;         // --allow-plain-http: plain HTTP from everyone
  std::string tlsCertificate;          // --tls-cert: empty: the broker's own certificate
  std::string tlsKey;                  // --tls-key
  // The fleet link: an MQTT broker to report to and take commands from (see
  // tuqvu/fleet/fleetsettings.h for what is not given here and comes from the environment).
  std::string mqttUrl;                     // --mqtt: empty: no fleet link
  std::string mqttUser;                    // --mqtt-user
  std::string mqttPasswordFile;            // --mqtt-password-file
  std::string mqttCertificate;             // --mqtt-cert: a client certificate (PEM)
  std::string mqttKey;                     // --mqtt-key
  std::string mqttCertificateAuthorities;  // --mqtt-ca: whom to trust for mqtts://
  std::string robotId;                     // --robot-id: empty: the host name
  std::string mqttPrefix;                  // --mqtt-prefix: empty: "tuqvu"
  std::vector<std::string> mqttGroups;     // --mqtt-group, repeatable
  std::vector<ModuleSpec> modules;         // in load order
  bool modulesGiven = false;               // false: load the default module library
  int logLevel = 4;
  int shutdownGraceMs = 10000;
  bool showHelp = false;
  bool showVersion = false;
  // Whether the port speaks HTTPS: always beyond loopback, on loopback when asked.
  bool servesHttps(bool bindsBeyondLoopback) const;
};

// A command line that cannot be used; what() says why.
class OptionsError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

Options parseOptions(int argc, const char* const* argv);

// "[NAME=]PATH" of --module: the explicit name, else the one the library's file name gives.
ModuleSpec parseModuleArgument(const std::string& argument, bool optional);

// The module name of a library file: known libraries get their published name
// ("libzrbehaviormanager.so" -> "ZRBehaviorManager"); others their stem without "lib".
std::string moduleNameForLibrary(const std::string& path);

std::string helpText();
std::string versionText();

}  // namespace broker
}  // namespace tuqvu
