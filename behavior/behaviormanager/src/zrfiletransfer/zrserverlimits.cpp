#include "zrserverlimits.h"

#include <vu/settings.h>

namespace ZR {
namespace detail {

ServerLimits ServerLimits::fromEnvironment() {
  ServerLimits limits;
  limits.putMaxBytes =
      vu::settings::positiveNumber("TUQVU_FILE_PUT_MAX_BYTES", kDefaultPutMaxBytes);
  limits.headerSeconds = static_cast<int>(
      vu::settings::positiveNumber("TUQVU_FILE_HEADER_DEADLINE_S", kDefaultHeaderSeconds, 86400));
  limits.bodyBytesPerSecond = vu::settings::positiveNumber(
      "TUQVU_FILE_BODY_MIN_RATE", kDefaultBodyBytesPerSecond, std::uint64_t{1} << 40);
  limits.sendBytesPerSecond = vu::settings::positiveNumber(
      "TUQVU_FILE_SEND_MIN_RATE", kDefaultSendBytesPerSecond, std::uint64_t{1} << 40);
  limits.maxRequests = static_cast<int>(
      vu::settings::positiveNumber("TUQVU_FILE_MAX_REQUESTS", kDefaultMaxRequests, 1u << 30));
  return limits;
}

}  // namespace detail
}  // namespace ZR
