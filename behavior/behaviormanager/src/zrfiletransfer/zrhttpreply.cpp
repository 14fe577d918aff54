#include "zrhttpreply.h"

#include <vu/log.h>
#include <vu/unicode.h>

#include "zrhttphandlers.h"

namespace ZR {
namespace detail {

boost::filesystem::path relativeRequestPath(const soap* connection, bool decodeDots) {
  std::string path(connection->path);
  if (decodeDots) {
    path = replaceSpecialChar(path, "%2E", ".");
  }
  return boost::filesystem::path(path, vu::unicodeFacet()).relative_path();
}

void logRefusedPath(const char* function, const boost::filesystem::path& requestPath,
                    const std::string& reason) {
  vu::log::write(vu::log::warning, kNetworkLog, function,
                 "Refused request path: " + requestPath.string() + " (" + reason + ")");
}

std::string joinComponents(const std::vector<std::string>& components, std::size_t count) {
  std::string joined;
  for (std::size_t i = 0; i < components.size() && i < count; ++i) {
    if (i > 0) {
      joined += '/';
    }
    joined += components[i];
  }
  return joined;
}

std::string statusLine(const soap* connection, const std::string& status) {
  const char* version = connection->http_version != nullptr ? connection->http_version : "1.1";
  return std::string("HTTP/") + version + " " + status + "\n";
}

int sendNow(soap* connection, const std::string& text) {
  connection->mode &= ~SOAP_IO;
  return soap_send(connection, text.c_str());
}

int sendOk(soap* connection) {
  return sendNow(connection, statusLine(connection, "200 OK") +
                                 "Server: TuqVu\n"
                                 "Content-Length: 3\n"
                                 "Content-Type: text/plain\n"
                                 "Connection: keep-alive\n"
                                 "\n"
                                 "ok\n");
}

}  // namespace detail
}  // namespace ZR
