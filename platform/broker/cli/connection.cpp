#include "connection.h"

#include <tuqvu/broker/secretfile.h>
#include <vu/base64.h>

#include <cstdlib>

namespace tuqvu {
namespace broker {
namespace cli {

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string hostField(const Url& url) {
  const bool ipv6 = url.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + url.host + "]" : url.host) + ":" + url.port;
}

std::string authorization() {
  std::string secret;
  if (const char* fromEnvironment = std::getenv("TUQVU_SECRET")) {
    secret = fromEnvironment;
  } else {
    try {
      secret = readSecret(defaultSecretFile());
    } catch (const SecretFileError&) {
      secret.clear();  // a broker on loopback asks for none
    }
  }
  if (secret.empty()) return "";
  return "Basic " + vu::base64::encode("tuqvu:" + secret);
}

}  // namespace cli
}  // namespace broker
}  // namespace tuqvu
