#include <vu/text.h>
#include <zr/zrbrowserguard.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cctype>

namespace ZR {
namespace {

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

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
  const std::string name = lowerCase(host);
  if (name == "localhost") return true;
  boost::system::error_code error;
  boost::asio::ip::make_address(name, error);
  if (!error) return true;
  return std::any_of(access.hostNames.begin(), access.hostNames.end(),
                     [&](const std::string& allowed) { return lowerCase(allowed) == name; });
}

ZRBrowserRefusal browserRefusal(const ZRRequestOrigin& request, const ZRNetworkAccess& access,
                                ZRSiteCheck siteCheck) {
  if (request.host && !isAllowedHost(hostOfHostHeader(*request.host), access)) {
    return ZRBrowserRefusal::UnknownHost;
  }
  if (siteCheck == ZRSiteCheck::NotForThisRequest) return ZRBrowserRefusal::None;
  if (request.origin &&
      !(request.host && lowerCase(*request.origin) == lowerCase("http://" + *request.host))) {
    return ZRBrowserRefusal::ForeignOrigin;
  }
  const std::string site = lowerCase(request.fetchSite);
  if (site == "cross-site" || site == "same-site") return ZRBrowserRefusal::OtherSite;
  return ZRBrowserRefusal::None;
}

}  // namespace ZR
