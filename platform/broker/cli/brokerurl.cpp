// tuqvu-call: the broker's URL given with --url.
#include <tuqvu/broker/cli.h>
#include <vu/text.h>

#include <cctype>
#include <stdexcept>

namespace tuqvu {
namespace broker {

Url parseUrl(const std::string& text) {
  std::string rest = text;
  Url url;
  const std::size_t scheme = rest.find("://");
  if (scheme != std::string::npos) {
    std::string name = rest.substr(0, scheme);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (name == "https") {
      url.secure = true;
    } else if (name != "http") {
      throw UsageError("only http:// and https:// URLs are supported, not \"" + text + "\"");
    }
    rest.erase(0, scheme + 3);
  }
  const std::size_t slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  if (slash != std::string::npos) url.basePath = rest.substr(slash);
  while (!url.basePath.empty() && url.basePath.back() == '/') url.basePath.pop_back();
  if (authority.empty()) throw UsageError("no host in the URL \"" + text + "\"");
  std::string port = url.secure ? "443" : "80";
  if (authority[0] == '[') {  // [IPv6]:port
    const std::size_t close = authority.find(']');
    if (close == std::string::npos) throw UsageError("unclosed '[' in \"" + text + "\"");
    url.host = authority.substr(1, close - 1);
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') throw UsageError("malformed URL \"" + text + "\"");
      port = authority.substr(close + 2);
    }
  } else {
    const std::size_t colon = authority.rfind(':');
    url.host = authority.substr(0, colon);
    if (colon != std::string::npos) port = authority.substr(colon + 1);
  }
  if (url.host.empty()) throw UsageError("no host in the URL \"" + text + "\"");
  if (!vu::text::wholeNumber(port, 65535)) {
    throw UsageError("bad port in the URL \"" + text + "\"");
  }
  url.port = port;
  return url;
}

}  // namespace broker
}  // namespace tuqvu
