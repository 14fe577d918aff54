#include <vu/containment.h>
#include <vu/path.h>

#include <boost/filesystem/operations.hpp>
#include <iterator>

namespace fs = boost::filesystem;

namespace vu {
namespace path {

bool isWithin(const fs::path& inner, const fs::path& outer) {
  // Boost's iteration yields "." for a trailing separator; it names no folder.
  const auto next = [](fs::path::iterator at, const fs::path::iterator& end) {
    while (at != end && *at == ".") ++at;
    return at;
  };
  auto i = next(inner.begin(), inner.end());
  auto o = next(outer.begin(), outer.end());
  while (o != outer.end()) {
    if (i == inner.end() || *i != *o) return false;
    i = next(std::next(i), inner.end());
    o = next(std::next(o), outer.end());
  }
  return true;
}

fs::path resolvedSdkPrefix() {
  const std::string prefix = sdkPrefix();
  if (prefix.empty()) return {};
  try {
    return fs::weakly_canonical(fs::absolute(prefix));
  } catch (const fs::filesystem_error&) {
    return {};
  }
}

bool liesInInstallation(const fs::path& path) {
  const fs::path prefix = resolvedSdkPrefix();
  return !prefix.empty() && isWithin(path, prefix);
}

}  // namespace path
}  // namespace vu
