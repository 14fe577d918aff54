// Fuzzes what the file API reads from request headers before it touches a file: byte
// ranges, entity-tag lists, HTTP dates and percent-encoded paths. The input is split at
// newlines into Range, If-Range, If-Match, If-None-Match, If-Modified-Since and a path,
// and its first eight bytes give the file's size.
//   - a range that is a part lies inside the file and is not empty;
//   - a date that parses is written back as one that parses to the same instant;
//   - a path that decodes is encoded to text that decodes back to it;
//   - nothing throws, whatever the headers hold.
#include <sys/stat.h>
#include <tuqvu/broker/filelisting.h>
#include <tuqvu/broker/filevalidators.h>
#include <tuqvu/broker/url.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../common/sandbox.h"

namespace {

namespace broker = tuqvu::broker;

[[noreturn]] void fail(const std::string& what, const std::string& input) {
  std::fprintf(stderr, "file headers: %s\n  input: %s\n", what.c_str(),
               fuzzsupport::printable(input).c_str());
  std::abort();
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 8 || size > 4096) return 0;
  std::uint64_t fileSize = 0;
  std::memcpy(&fileSize, data, sizeof fileSize);
  fileSize %= (1ULL << 40);
  const std::string input(reinterpret_cast<const char*>(data) + 8, size - 8);
  std::vector<std::string> lines = linesOf(input);
  lines.resize(6);

  struct stat status {};
  status.st_size = static_cast<off_t>(fileSize);
  status.st_ino = 42;
  status.st_mtim.tv_sec = 1700000000;
  const broker::Validators now = broker::validatorsOf(status);

  broker::Request request{broker::http::verb::get, "/files/x", 11};
  // Beast refuses field values with line ends; the split above keeps them out.
  const broker::http::field fields[] = {
      broker::http::field::range, broker::http::field::if_range, broker::http::field::if_match,
      broker::http::field::if_none_match, broker::http::field::if_modified_since};
  for (std::size_t i = 0; i < 5; ++i) {
    if (!lines[i].empty()) request.set(fields[i], lines[i]);
  }
  const broker::ByteRange range = broker::requestedRange(request, now, fileSize);
  if (range.kind == broker::ByteRange::Kind::Part) {
    if (range.length == 0) fail("an empty part", input);
    if (range.first >= fileSize || range.length > fileSize - range.first) {
      fail("a part beyond the file of " + std::to_string(fileSize) + " bytes", input);
    }
  }
  for (const broker::http::verb method :
       {broker::http::verb::get, broker::http::verb::put, broker::http::verb::delete_}) {
    request.method(method);
    broker::evaluatePreconditions(request, &now);
    broker::evaluatePreconditions(request, nullptr);
  }

  if (const auto date = broker::parseHttpDate(lines[4])) {
    const auto again = broker::parseHttpDate(broker::httpDate(*date));
    if (!again || *again != *date) fail("a date that does not survive being written", input);
  }

  if (const auto decoded = broker::percentDecode(lines[5])) {
    const auto back = broker::percentDecode(broker::percentEncodePath(*decoded));
    if (!back || *back != *decoded) fail("a path that does not survive encoding", input);
  }
  return 0;
}
