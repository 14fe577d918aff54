// The limits one file server holds its clients to. They are read from the environment
// when the server is built and stay fixed for its life; every connection it serves gets
// them through its ConnectionGuard.
//
//   TUQVU_FILE_PUT_MAX_BYTES       the largest body a PUT may have (default 512 MiB)
//   TUQVU_FILE_HEADER_DEADLINE_S   seconds for the request line and headers (default 15)
//   TUQVU_FILE_BODY_MIN_RATE       bytes per second a body must keep up (default 32768);
//                                  a body of n bytes may take the header deadline plus
//                                  n / rate seconds.
// A value that is not a positive whole number is logged and the default kept.
#pragma once

#include <cstdint>

namespace ZR {
namespace detail {

struct ServerLimits {
  static constexpr std::uint64_t kDefaultPutMaxBytes = 512ULL * 1024 * 1024;
  static constexpr int kDefaultHeaderSeconds = 15;
  static constexpr std::uint64_t kDefaultBodyBytesPerSecond = 32768;

  std::uint64_t putMaxBytes = kDefaultPutMaxBytes;
  int headerSeconds = kDefaultHeaderSeconds;
  std::uint64_t bodyBytesPerSecond = kDefaultBodyBytesPerSecond;

  // The limits the environment sets, the defaults for what it leaves unset or unusable.
  static ServerLimits fromEnvironment();
};

}  // namespace detail
}  // namespace ZR
