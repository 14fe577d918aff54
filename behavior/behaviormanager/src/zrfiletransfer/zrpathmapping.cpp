// Mapping of request paths to the file system, shared by the GET, PUT and DELETE hooks.
//
//   behaviors/User/<tail>    <home>/.tuqvu/behaviors/<tail>
//   behaviors/System/<tail>  the installation's share/behaviors/<tail>, if it exists
//   behaviors/<rest>         <home>/.tuqvu/behaviors/<rest>
//   boxlibraries/<rest>      <home>/.tuqvu/boxlibraries/<rest>
//   tmp/<rest>               <tmp>/<rest>
//   share/<app>/<rest>       the user-writable data path of <app>, for this system's own
//                            applications only (403 for the others)
//   anything else            <sdk prefix>/<path>, except paths without an extension and
//                            ".xsl", ".xml", ".css", ".js", ".html" files, and nothing at
//                            all when the prefix is a source tree (a build-tree run)
//
// A path with a ".." component, or one whose target (symbolic links resolved) lies
// outside the root it was mapped under, is refused and logged. This is the first check
// only: the hooks then open every target beneath its root by descriptor (zrbeneath.h),
// which no link or rename can get around.
#include <vu/containment.h>
#include <vu/log.h>
#include <vu/os.h>
#include <vu/path.h>
#include <vu/unicode.h>

#include <boost/filesystem/operations.hpp>

#include "zrhttphandlers.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace {

const char* const kCategory = "core.common.network";

fs::path toPath(const std::string& text) {
  return fs::path(text, vu::unicodeFacet());
}

// The components of `p` from the index `first` on, joined again.
fs::path componentsFrom(const fs::path& p, std::size_t first) {
  fs::path result;
  std::size_t index = 0;
  for (const fs::path& component : p) {
    if (index++ >= first) {
      result /= component;
    }
  }
  return result;
}

// The n-th component of `p`, or an empty path.
fs::path component(const fs::path& p, std::size_t n) {
  std::size_t index = 0;
  for (const fs::path& part : p) {
    if (index++ == n) {
      return part;
    }
  }
  return fs::path();
}

bool hasParentComponent(const fs::path& p) {
  for (const fs::path& part : p) {
    if (part == "..") {
      return true;
    }
  }
  return false;
}

// `p` with symbolic links and "." resolved as far as it exists; lexical when that fails.
fs::path resolved(const fs::path& p) {
  boost::system::error_code error;
  fs::path result = fs::weakly_canonical(p, error);
  if (error) {
    result = p.lexically_normal();
  }
  return result;
}

void logRefused(const fs::path& requestPath, const std::string& reason) {
  vu::log::write(vu::log::warning, kCategory, "translateHttp",
                 "Refused request path: " + requestPath.string() + " (" + reason + ")");
}

constexpr const char* kServedApplications[] = {"tuqvu"};

bool isRefusedExtension(const std::string& extension) {
  return extension.empty() || extension == ".xsl" || extension == ".xml" || extension == ".css" ||
         extension == ".js" || extension == ".html";
}

}  // namespace

std::string behaviorsPath(const std::string& name) {
  const fs::path result = toPath(vu::os::home()) / ".tuqvu" / toPath(name);
  try {
    boost::system::error_code error;
    const fs::file_type type = fs::status(result, error).type();
    if (type == fs::file_not_found || type == fs::status_error) {
      fs::create_directories(result);
    }
  } catch (const fs::filesystem_error& e) {
    vu::log::write(vu::log::warning, kCategory, "behaviorsPath",
                   std::string("Behavior path error: ") + e.what());
  }
  return result.string();
}

bool isServedApplication(const std::string& application) {
  for (const char* served : kServedApplications) {
    if (application == served) return true;
  }
  return false;
}

bool mapRequestPath(const fs::path& requestPath, MappedPath* mapped) {
  if (requestPath.empty()) {
    return false;
  }
  if (requestPath.string().find("?eval") != std::string::npos) {
    return false;
  }
  if (hasParentComponent(requestPath)) {
    logRefused(requestPath, "a \"..\" component");
    return false;
  }

  const fs::path first = component(requestPath, 0);
  fs::path root;
  fs::path relative;
  if (first == "behaviors") {
    const fs::path rest = componentsFrom(requestPath, 1);
    const fs::path tail = componentsFrom(rest, 1);
    const fs::path library = component(rest, 0);
    if (library == "User") {
      root = toPath(behaviorsPath("behaviors"));
      relative = tail;
    } else if (library == "System") {
      // Served only when it exists, like every data file of the installation.
      root = toPath(vu::path::findData("behaviors", ""));
      if (root.empty() || vu::path::findData("behaviors", tail.string()).empty()) {
        return false;
      }
      relative = tail;
    } else {
      root = toPath(behaviorsPath("behaviors"));
      relative = rest;
    }
  } else if (first == "boxlibraries") {
    root = toPath(behaviorsPath("boxlibraries"));
    relative = componentsFrom(requestPath, 1);
  } else if (first == "tmp") {
    root = toPath(vu::os::tmp());
    relative = componentsFrom(requestPath, 1);
  } else if (first == "share") {
    const std::string application = component(requestPath, 1).string();
    if (!isServedApplication(application)) {
      logRefused(requestPath, "not the data of this system's own applications");
      mapped->root.clear();
      mapped->relative = requestPath;
      mapped->refusal = "below /share/ only the data of this robot's own applications is served";
      return true;
    }
    root = toPath(vu::path::userWritableDataPath(application, ""));
    relative = componentsFrom(requestPath, 2);
  } else {
    if (isRefusedExtension(requestPath.extension().string())) {
      return false;
    }
    root = toPath(vu::path::sdkPrefix());
    // Run from a build tree, the prefix is the source tree, which holds the build
    // configuration, the scripts and often the build itself: none of it is data.
    boost::system::error_code error;
    if (fs::exists(root / "CMakeLists.txt", error)) {
      logRefused(requestPath, "the installation is a source tree");
      return false;
    }
    relative = requestPath;
  }

  if (root.empty()) {
    return false;
  }
  const fs::path result = relative.empty() ? root : root / relative;
  if (!vu::path::isWithin(resolved(result), resolved(root))) {
    logRefused(requestPath, "outside " + root.string());
    return false;
  }
  mapped->root = root;
  mapped->relative = relative;
  return true;
}

fs::path translateHttp(const fs::path& requestPath) {
  if (requestPath.empty()) {
    return requestPath;
  }
  MappedPath mapped;
  if (!mapRequestPath(requestPath, &mapped) || !mapped.refusal.empty()) {
    return fs::path();
  }
  return mapped.relative.empty() ? mapped.root : mapped.root / mapped.relative;
}

std::vector<std::string> pathComponents(const fs::path& relative) {
  std::vector<std::string> components;
  for (const fs::path& part : relative) {
    const std::string text = part.string();
    if (!text.empty() && text != "." && text != "/") {
      components.push_back(text);
    }
  }
  return components;
}

std::string replaceSpecialChar(const std::string& s, const std::string& from,
                               const std::string& to) {
  if (from.empty()) {
    return s;
  }
  std::string result;
  if (to.size() > from.size()) {
    result.reserve(s.size() + (to.size() - from.size()) * 10);
  } else {
    result.reserve(s.size());
  }
  std::size_t position = 0;
  while (position < s.size()) {
    if (s.compare(position, from.size(), from) == 0) {
      result += to;
      position += from.size();
    } else {
      result += s[position];
      ++position;
    }
  }
  return result;
}

}  // namespace ZR
