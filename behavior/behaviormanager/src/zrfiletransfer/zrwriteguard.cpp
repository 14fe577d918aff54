#include "zrwriteguard.h"

#include <sys/stat.h>
#include <vu/containment.h>
#include <vu/os.h>
#include <vu/path.h>
#include <vu/unicode.h>

#include <boost/filesystem/operations.hpp>

#include "zrhttphandlers.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace detail {
namespace {

fs::path toPath(const std::string& text) {
  return fs::path(text, vu::unicodeFacet());
}

void addCanonical(const fs::path& path, std::vector<fs::path>* paths) {
  boost::system::error_code error;
  const fs::path canonical = fs::canonical(path, error);
  if (!error) {
    paths->push_back(canonical);
  }
}

}  // namespace

std::vector<fs::path> protectedDirectories() {
  const fs::path home = toPath(vu::os::home());
  std::vector<fs::path> directories;
  const fs::path installation = vu::path::resolvedSdkPrefix();
  if (!installation.empty()) directories.push_back(installation);
  addCanonical(home, &directories);
  addCanonical(home / ".tuqvu", &directories);
  addCanonical(home / ".tuqvu" / "behaviors", &directories);
  addCanonical(home / ".tuqvu" / "boxlibraries", &directories);
  addCanonical(toPath(vu::os::tmp()), &directories);
  addCanonical(toPath(vu::path::userWritableDataPath("", "")), &directories);
  addCanonical(toPath(vu::path::userWritableDataPath("tuqvu", "")), &directories);
  return directories;
}

std::vector<vu::beneath::FileIdentity> identitiesOf(const std::vector<fs::path>& directories) {
  std::vector<vu::beneath::FileIdentity> identities;
  for (const fs::path& directory : directories) {
    struct stat status;
    if (::stat(directory.c_str(), &status) == 0) {
      identities.push_back(vu::beneath::identityOf(status));
    }
  }
  return identities;
}

std::string writeRefusal(const fs::path& root, const std::vector<std::string>& components,
                         WriteKind kind, const std::vector<fs::path>& protectedOnes) {
  if (components.empty()) {
    return kind == WriteKind::Remove ? "a served folder itself is never removed"
                                     : "a served folder itself is never replaced";
  }
  boost::system::error_code error;
  fs::path target = fs::canonical(root, error);
  if (error) {
    return "the served folder cannot be resolved";
  }
  // No link is followed below the root, so this is where the request acts.
  for (const std::string& component : components) {
    target /= toPath(component);
  }
  if (vu::path::liesInInstallation(target)) {
    return "the installation is never changed";
  }
  if (kind == WriteKind::Remove) {
    for (const fs::path& kept : protectedOnes) {
      if (vu::path::isWithin(kept, target)) {
        return "it is or holds a folder this robot needs";
      }
    }
  }
  return "";
}

}  // namespace detail
}  // namespace ZR
