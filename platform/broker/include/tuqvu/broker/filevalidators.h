// What lets HTTP clients tell versions of a file apart and ask for part of one: the
// entity tag and date of a file, the preconditions of a request (If-Match,
// If-None-Match, If-Modified-Since, If-Unmodified-Since, If-Range) and a single byte
// range.
//
//   Validators now = validatorsOf(status);
//   switch (evaluatePreconditions(request, &now)) { case Precondition::NotModified: ... }
//   ByteRange range = requestedRange(request, now, status.st_size);
#pragma once

#include <sys/stat.h>
#include <tuqvu/broker/httptypes.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace tuqvu {
namespace broker {

// The version of a file as clients see it: a strong entity tag (changes with the inode,
// the size or the modification time to the nanosecond) and the modification time.
struct Validators {
  std::string entityTag;  // with its quotes
  std::time_t modified = 0;
};
Validators validatorsOf(const struct stat& status);

// "Sun, 06 Nov 1994 08:49:37 GMT".
std::string httpDate(std::time_t time);
// The three date formats HTTP/1.1 accepts; nothing for anything else.
std::optional<std::time_t> parseHttpDate(const std::string& text);

enum class Precondition {
  Proceed,      // answer as usual
  NotModified,  // 304 (GET and HEAD)
  Failed        // 412
};
// The outcome of the request's preconditions against the target as it is now; `current`
// null when the target does not exist.
Precondition evaluatePreconditions(const http::request_header<>& request,
                                   const Validators* current);

struct ByteRange {
  enum class Kind { Whole, Part, Unsatisfiable };
  Kind kind = Kind::Whole;
  std::uint64_t first = 0;   // Part: the first byte sent
  std::uint64_t length = 0;  // Part: how many
};
// What a GET answers with for a file of `size` bytes: one "bytes=" range of the Range
// header when If-Range (if any) still names this version; the whole file for a header
// it cannot use (several ranges, another unit, a malformed one).
ByteRange requestedRange(const http::request_header<>& request, const Validators& current,
                         std::uint64_t size);

}  // namespace broker
}  // namespace tuqvu
