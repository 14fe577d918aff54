// The limits one file server holds its clients to. They are read from the environment
// when the server is built and stay fixed for its life; every connection it serves gets
// them through its ConnectionGuard.
//
//   TUQVU_FILE_PUT_MAX_BYTES       the largest body a PUT may have (default 512 MiB)
//   TUQVU_FILE_HEADER_DEADLINE_S   seconds for the request line and headers (default 15)
//   TUQVU_FILE_BODY_MIN_RATE       bytes per second a body must keep up (default 32768);
//                                  a body of n bytes may take the header deadline plus
//                                  n / rate seconds.
//   TUQVU_FILE_SEND_MIN_RATE       bytes per second a client must take a reply at (default
//                                  32768), counted the same way: a slower reader is cut.
//   TUQVU_FILE_MAX_REQUESTS        requests one connection may make before it is closed
//                                  (default 1000).
// While another client waits to be served, a connection is held to less: it is closed
// when it has not begun its next request within kContestedIdleMs, or has not sent a
// request's headers within kContestedHeaderMs of being ready for them.
// A value that is not a positive whole number is logged and the default kept.
#pragma once

#include <cstdint>

namespace ZR {
namespace detail {

struct ServerLimits {
  static constexpr std::uint64_t kDefaultPutMaxBytes = 512ULL * 1024 * 1024;
  static constexpr int kDefaultHeaderSeconds = 15;
  static constexpr std::uint64_t kDefaultBodyBytesPerSecond = 32768;
  static constexpr std::uint64_t kDefaultSendBytesPerSecond = 32768;
  static constexpr int kDefaultMaxRequests = 1000;
  static constexpr int kContestedIdleMs = 200;
  static constexpr int kContestedHeaderMs = 1000;

  std::uint64_t putMaxBytes = kDefaultPutMaxBytes;
  int headerSeconds = kDefaultHeaderSeconds;
  std::uint64_t bodyBytesPerSecond = kDefaultBodyBytesPerSecond;
  std::uint64_t sendBytesPerSecond = kDefaultSendBytesPerSecond;
  int maxRequests = kDefaultMaxRequests;

  // The limits the environment sets, the defaults for what it leaves unset or unusable.
  static ServerLimits fromEnvironment();
};

}  // namespace detail
}  // namespace ZR
