#include <zr/zrnetworkaccess.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <mutex>

namespace ZR {

namespace {

// Guards gAccess; held only to copy it in or out.
std::mutex gAccessMutex;
ZRNetworkAccess gAccess;

}  // namespace

bool isLoopbackAddress(const std::string& address) {
  if (address == "localhost") return true;
  boost::system::error_code error;
  const boost::asio::ip::address parsed = boost::asio::ip::make_address(address, error);
  if (error) return false;
  if (parsed.is_v6() && parsed.to_v6().is_v4_mapped()) {
    return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, parsed.to_v6())
        .is_loopback();
  }
  return parsed.is_loopback();
}

bool ZRNetworkAccess::listensBeyondLoopback() const {
  return !isLoopbackAddress(bindAddress);
}

bool ZRNetworkAccess::acceptsSecret(const std::string& candidate) const {
  if (secret.empty()) return false;
  // Every byte of the longer text is looked at, whatever the outcome.
  const std::size_t length = std::max(secret.size(), candidate.size());
  unsigned char difference = secret.size() == candidate.size() ? 0 : 1;
  for (std::size_t i = 0; i < length; ++i) {
    const unsigned char a = i < secret.size() ? secret[i] : 0;
    const unsigned char b = i < candidate.size() ? candidate[i] : 0;
    difference |= static_cast<unsigned char>(a ^ b);
  }
  return difference == 0;
}

ZRNetworkAccess networkAccess() {
  std::lock_guard<std::mutex> lock(gAccessMutex);
  return gAccess;
}

void setNetworkAccess(const ZRNetworkAccess& access) {
  std::lock_guard<std::mutex> lock(gAccessMutex);
  gAccess = access;
}

}  // namespace ZR
