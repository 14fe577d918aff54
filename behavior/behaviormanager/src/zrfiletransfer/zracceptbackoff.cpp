#include "zracceptbackoff.h"

#include <vu/log.h>

#include <algorithm>
#include <cstring>

#include "zrhttpreply.h"

namespace ZR {
namespace detail {

int AcceptBackOff::failed(int error) {
  if (fFailures == 0) {
    vu::log::write(vu::log::error, kNetworkLog, "listenRequest",
                   std::string("accepting connections failed: ") + std::strerror(error) +
                       "; retrying until it works again");
    fDelayMs = kFirstDelayMs;
  } else {
    fDelayMs = std::min(fDelayMs * 2, kLongestDelayMs);
  }
  ++fFailures;
  return fDelayMs;
}

void AcceptBackOff::succeeded() {
  if (fFailures == 0) {
    return;
  }
  vu::log::write(
      vu::log::warning, kNetworkLog, "listenRequest",
      "accepting connections again after " + std::to_string(fFailures) + " failed attempts");
  fFailures = 0;
  fDelayMs = 0;
}

}  // namespace detail
}  // namespace ZR
