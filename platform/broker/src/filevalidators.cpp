#include <tuqvu/broker/filevalidators.h>

#include <boost/beast/core/string.hpp>
#include <cctype>
#include <cstdio>
#include <limits>
#include <vector>

namespace tuqvu {
namespace broker {
namespace {

std::string hex(std::uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  const std::size_t end = text.find_last_not_of(" \t");
  return text.substr(begin, end - begin + 1);
}

// The entity tags of a list header ("*" stays "*").
std::vector<std::string> tagsOf(const std::string& value) {
  std::vector<std::string> tags;
  std::size_t position = 0;
  while (position < value.size()) {
    std::size_t comma = value.find(',', position);
    if (comma == std::string::npos) comma = value.size();
    const std::string tag = trimmed(value.substr(position, comma - position));
    if (!tag.empty()) tags.push_back(tag);
    position = comma + 1;
  }
  return tags;
}

bool isWeak(const std::string& tag) {
  return tag.size() > 2 && tag[0] == 'W' && tag[1] == '/';
}

std::string opaque(const std::string& tag) {
  return isWeak(tag) ? tag.substr(2) : tag;
}

// If-Match compares strongly: a weak tag never matches.
bool strongMatch(const std::string& header, const Validators& current) {
  for (const std::string& tag : tagsOf(header)) {
    if (tag == "*") return true;
    if (!isWeak(tag) && tag == current.entityTag) return true;
  }
  return false;
}

// If-None-Match compares weakly.
bool weakMatch(const std::string& header, const Validators& current) {
  for (const std::string& tag : tagsOf(header)) {
    if (tag == "*" || opaque(tag) == opaque(current.entityTag)) return true;
  }
  return false;
}

std::optional<std::string> field(const http::request_header<>& request, http::field name) {
  const auto found = request.find(name);
  if (found == request.end()) return std::nullopt;
  return std::string(found->value());
}

bool isReadMethod(const http::request_header<>& request) {
  return request.method() == http::verb::get || request.method() == http::verb::head;
}

std::optional<std::uint64_t> number(const std::string& text) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value;
}

}  // namespace

Validators validatorsOf(const struct stat& status) {
  Validators result;
  const std::uint64_t nanoseconds =
      static_cast<std::uint64_t>(status.st_mtim.tv_sec) * 1000000000ULL +
      static_cast<std::uint64_t>(status.st_mtim.tv_nsec);
  result.entityTag = "\"" + hex(status.st_ino) + "-" +
                     hex(static_cast<std::uint64_t>(status.st_size)) + "-" + hex(nanoseconds) +
                     "\"";
  result.modified = status.st_mtim.tv_sec;
  return result;
}

std::string httpDate(std::time_t time) {
  std::tm parts{};
  ::gmtime_r(&time, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return text;
}

std::optional<std::time_t> parseHttpDate(const std::string& text) {
  // IMF-fixdate, the obsolete RFC 850 form and asctime's.
  static const char* const kFormats[] = {"%a, %d %b %Y %H:%M:%S GMT", "%A, %d-%b-%y %H:%M:%S GMT",
                                         "%a %b %e %H:%M:%S %Y"};
  if (text.size() > 64) return std::nullopt;
  for (const char* format : kFormats) {
    std::tm parts{};
    const char* end = ::strptime(text.c_str(), format, &parts);
    if (end != nullptr && *end == '\0') return ::timegm(&parts);
  }
  return std::nullopt;
}

Precondition evaluatePreconditions(const http::request_header<>& request,
                                   const Validators* current) {
  if (const auto ifMatch = field(request, http::field::if_match)) {
    if (current == nullptr || !strongMatch(*ifMatch, *current)) return Precondition::Failed;
  } else if (const auto ifUnmodified = field(request, http::field::if_unmodified_since)) {
    const auto date = parseHttpDate(*ifUnmodified);
    if (date && current != nullptr && current->modified > *date) return Precondition::Failed;
  }
  if (const auto ifNoneMatch = field(request, http::field::if_none_match)) {
    if (current != nullptr && weakMatch(*ifNoneMatch, *current)) {
      return isReadMethod(request) ? Precondition::NotModified : Precondition::Failed;
    }
  } else if (const auto ifModified = field(request, http::field::if_modified_since)) {
    const auto date = parseHttpDate(*ifModified);
    if (isReadMethod(request) && date && current != nullptr && current->modified <= *date) {
      return Precondition::NotModified;
    }
  }
  return Precondition::Proceed;
}

ByteRange requestedRange(const http::request_header<>& request, const Validators& current,
                         std::uint64_t size) {
  ByteRange whole;
  const auto range = field(request, http::field::range);
  if (!range || request.method() != http::verb::get) return whole;
  if (const auto ifRange = field(request, http::field::if_range)) {
    const std::string condition = trimmed(*ifRange);
    if (!condition.empty() && condition[0] == '"') {
      if (condition != current.entityTag) return whole;
    } else {
      const auto date = parseHttpDate(condition);
      if (!date || *date != current.modified) return whole;
    }
  }
  const std::string value = trimmed(*range);
  if (value.size() < 6 || !boost::beast::iequals(value.substr(0, 6), "bytes=")) return whole;
  const std::string ranges = trimmed(value.substr(6));
  if (ranges.find(',') != std::string::npos) return whole;  // several ranges: the whole file
  const std::size_t dash = ranges.find('-');
  if (dash == std::string::npos) return whole;
  const std::string from = trimmed(ranges.substr(0, dash));
  const std::string to = trimmed(ranges.substr(dash + 1));
  ByteRange part;
  part.kind = ByteRange::Kind::Part;
  if (from.empty()) {
    // The last n bytes.
    const auto suffix = number(to);
    if (!suffix) return whole;
    if (*suffix == 0) {
      part.kind = ByteRange::Kind::Unsatisfiable;
      return part;
    }
    // Asking for the last n bytes of an empty file is satisfiable, but no Content-Range
    // can name an empty part: the whole (empty) file answers it.
    if (size == 0) return whole;
    part.length = std::min(*suffix, size);
    part.first = size - part.length;
    return part;
  }
  const auto first = number(from);
  if (!first) return whole;
  std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
  if (!to.empty()) {
    const auto given = number(to);
    if (!given || *given < *first) return whole;
    last = *given;
  }
  if (*first >= size) {
    part.kind = ByteRange::Kind::Unsatisfiable;
    return part;
  }
  part.first = *first;
  part.length = std::min(last, size - 1) - *first + 1;
  return part;
}

}  // namespace broker
}  // namespace tuqvu
