// ZRBrowserGuard — the checks that keep web pages of other sites and DNS names rebound to
// the robot's address away from the servers of this process. The broker's HTTP server
// and the behavior manager's file server both ask it; each collects what its request
// says and answers a refusal in its own wire format.
//
//   ZR::ZRRequestOrigin seen;
//   seen.host = "robot.local:9600";
//   seen.origin = "http://evil.example";
//   if (ZR::browserRefusal(seen, ZR::networkAccess(), ZR::ZRSiteCheck::Always) !=
//       ZR::ZRBrowserRefusal::None) refuse();
#pragma once

#include <zr/zrnetworkaccess.h>

#include <optional>
#include <string>

namespace ZR {

// What a request says about where it comes from.
struct ZRRequestOrigin {
  std::optional<std::string> host;    // the Host header, when there is one
  std::optional<std::string> origin;  // the Origin header, when there is one
  std::string fetchSite;              // Sec-Fetch-Site, "" when absent
  bool encrypted = false;             // it came over TLS: its own pages are "https://"
};

enum class ZRBrowserRefusal {
  None,
  UnknownHost,    // Host names neither an address, "localhost" nor an allowed name
  ForeignOrigin,  // Origin is not "http://" + Host ("https://" over TLS)
  OtherSite,      // Sec-Fetch-Site says "cross-site" or "same-site"
};

// Whether Origin and Sec-Fetch-Site are looked at for every request, or only for those
// that change something (a server whose reads other sites may make, since a browser
// never lets them see the answer).
enum class ZRSiteCheck { Always, NotForThisRequest };

// The first check the request fails, in the order of ZRBrowserRefusal.
ZRBrowserRefusal browserRefusal(const ZRRequestOrigin& request, const ZRNetworkAccess& access,
                                ZRSiteCheck siteCheck);

// The host part of a Host header value: "[::1]:9600" gives "::1", "robot:80" "robot".
std::string hostOfHostHeader(const std::string& value);

// True for "localhost", IPv4 and IPv6 literals and the names of access.hostNames, in any
// case.
bool isAllowedHost(const std::string& host, const ZRNetworkAccess& access);

}  // namespace ZR
