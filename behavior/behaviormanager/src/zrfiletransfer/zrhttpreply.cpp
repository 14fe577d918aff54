#include "zrhttpreply.h"

#include <vu/unicode.h>

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

}  // namespace detail
}  // namespace ZR
