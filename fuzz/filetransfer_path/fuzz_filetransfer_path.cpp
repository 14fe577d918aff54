// Fuzzes the file server's mapping of request paths to files (ZR::translateHttp and the
// "%2E" decoding of PUT and DELETE). The input is a request path as it appears on the
// request line. After every input:
//   - a mapped path, with its symbolic links resolved, lies inside one of the served
//     roots of the temporary home (checked here independently of the mapping's own
//     guard);
//   - a path holding "?eval", and a path outside the four named roots whose extension is
//     empty, ".xsl", ".xml", ".css", ".js" or ".html", maps to nothing;
//   - nothing outside the roots was opened, listed, written or deleted (the sandbox).
#include <zrfiletransfer/zrhttphandlers.h>

#include <boost/filesystem.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../common/sandbox.h"

namespace fs = boost::filesystem;

namespace {

std::vector<fs::path> gRoots;

fs::path resolvedOrLexical(const fs::path& p) {
  boost::system::error_code error;
  fs::path result = fs::weakly_canonical(p, error);
  return error ? p.lexically_normal() : result;
}

bool under(const fs::path& root, const fs::path& p) {
  auto it = p.begin();
  for (const fs::path& part : root) {
    if (it == p.end() || *it != part) return false;
    ++it;
  }
  for (; it != p.end(); ++it) {
    if (*it == "..") return false;
  }
  return true;
}

[[noreturn]] void fail(const std::string& what, const std::string& input) {
  std::fprintf(stderr, "path mapping: %s\n  request path: \"%s\"\n", what.c_str(), input.c_str());
  std::abort();
}

void checkOne(const std::string& text, bool decodeDots, const std::string& input) {
  const std::string path = decodeDots ? ZR::replaceSpecialChar(text, "%2E", ".") : text;
  const fs::path relative = fs::path(path).relative_path();
  const fs::path mapped = ZR::translateHttp(relative);
  if (mapped.empty()) return;

  if (relative.string().find("?eval") != std::string::npos) {
    fail("a path holding \"?eval\" was mapped to " + mapped.string(), input);
  }
  const fs::path first = relative.empty() ? fs::path() : *relative.begin();
  if (first != "behaviors" && first != "boxlibraries" && first != "tmp" && first != "share") {
    const std::string extension = relative.extension().string();
    if (extension.empty() || extension == ".xsl" || extension == ".xml" || extension == ".css" ||
        extension == ".js" || extension == ".html") {
      fail("a refused extension was mapped to " + mapped.string(), input);
    }
  }
  const fs::path resolved = resolvedOrLexical(mapped);
  for (const fs::path& root : gRoots) {
    if (under(root, resolved)) return;
  }
  fail("mapped outside the served roots: " + mapped.string() + " (" + resolved.string() + ")",
       input);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silenceLog();
  fuzzsupport::Sandbox& sandbox = fuzzsupport::Sandbox::instance();
  for (const std::string& root : sandbox.roots()) gRoots.push_back(fs::canonical(root));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // gSOAP keeps the path as a C string: it ends at the first NUL.
  std::string text(reinterpret_cast<const char*>(data), size);
  text.resize(std::strlen(text.c_str()));
  checkOne(text, false, text);
  checkOne(text, true, text);
  fuzzsupport::Sandbox::instance().check("path " + text);
  return 0;
}
