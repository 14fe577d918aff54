#include "zrhttpreply.h"

#include <vu/unicode.h>
#include <zr/zrnetworkaccess.h>

#include <zrfiletransfer/zrhttphandlers.h>

namespace ZR {
namespace detail {

boost::filesystem::path relativeRequestPath(const soap* connection, bool decodeDots) {
  std::string path(connection->path);
  if (decodeDots) {
    path = replaceSpecialChar(path, "%2E", ".");
  }
  return boost::filesystem::path(path, vu::unicodeFacet()).relative_path();
}

std::string statusLine(const soap* connection, const std::string& status) {
  const char* version = connection->http_version != nullptr ? connection->http_version : "1.1";
  return std::string("HTTP/") + version + " " + status + "\n";
}

int sendNow(soap* connection, const std::string& text) {
  connection->mode &= ~SOAP_IO;
  return soap_send(connection, text.c_str());
}

bool refusedWithoutSecret(soap* connection) {
  const ZRNetworkAccess access = networkAccess();
  if (!access.requiresCredentials()) return false;
  if (connection->passwd != nullptr && access.acceptsSecret(connection->passwd)) return false;
  const std::string body = "401 - Unauthorized: this robot asks for its secret\n";
  sendNow(connection, statusLine(connection, "401 Unauthorized") +
                          "Server: TuqVu\n"
                          "WWW-Authenticate: Basic realm=\"tuqvu\"\n"
                          "Content-Type: text/plain\n"
                          "Content-Length: " + std::to_string(body.size()) + "\n"
                          "Connection: close\n"
                          "\n" + body);
  connection->keep_alive = 0;  // the body that may follow is not read
  return true;
}

}  // namespace detail
}  // namespace ZR
