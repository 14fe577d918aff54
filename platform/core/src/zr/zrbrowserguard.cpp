#include <vu/text.h>
#include <zr/zrbrowserguard.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cctype>

namespace ZR {

std::string hostOfHostHeader(const std::string& value) {
  if (!value.empty() && value[0] == '[') {
    const std::size_t close = value.find(']');
    return close == std::string::npos ? value : value.substr(1, close - 1);
  }
  const std::size_t colon = value.rfind(':');
  if (colon != std::string::npos && value.find(':') == colon &&
      vu::text::isAllDigits(value.substr(colon + 1))) {
    return value.substr(0, colon);
  }
  return value;
}

bool isAllowedHost(const std::string& host, const ZRNetworkAccess& access) {
  const std::string name = vu::text::asciiLowerCase(host);
  if (name == "localhost") return true;
  boost::system::error_code error;
  boost::asio::ip::make_address(name, error);
  if (!error) return true;
  return std::any_of(
      access.hostNames.begin(), access.hostNames.end(),
      [&](const std::string& allowed) { return vu::text::asciiLowerCase(allowed) == name; });
}

ZRBrowserRefusal browserRefusal(const ZRRequestOrigin& request, const ZRNetworkAccess& access,
                                ZRSiteCheck siteCheck) {
  if (request.host && !isAllowedHost(hostOfHostHeader(*request.host), access)) {
    return ZRBrowserRefusal::UnknownHost;
  }
  if (siteCheck == ZRSiteCheck::NotForThisRequest) return ZRBrowserRefusal::None;
  if (request.origin &&
      !(request.host && vu::text::asciiLowerCase(*request.origin) ==
                            vu::text::asciiLowerCase((request.encrypted ? "https://" : "http://") +
                                                     *request.host))) {
    return ZRBrowserRefusal::ForeignOrigin;
  }
  const std::string site = vu::text::asciiLowerCase(request.fetchSite);
  if (site == "cross-site" || site == "same-site") return ZRBrowserRefusal::OtherSite;
  return ZRBrowserRefusal::None;
}

}  // namespace ZR
