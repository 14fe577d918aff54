#include <sys/stat.h>
#include <vu/project/library.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <pugixml.hpp>

#include "detail/paths.h"
#include "detail/projectfile.h"

namespace vu {
namespace project {
namespace {

// Sets <metadata key=key value=value/>, updating the first entry of that key.
void setMetadata(pugi::xml_node project, const char* key, const std::string& value) {
  for (pugi::xml_node entry : project.children("metadata")) {
    if (std::strcmp(entry.attribute("key").value(), key) == 0) {
      if (!entry.attribute("value")) {
        entry.append_attribute("value");
      }
      entry.attribute("value").set_value(value.c_str());
      return;
    }
  }
  pugi::xml_node entry = project.append_child("metadata");
  entry.append_attribute("key").set_value(key);
  entry.append_attribute("value").set_value(value.c_str());
}

}  // namespace

bool makeBehaviorLibraryProject(const std::string& path, const std::string& name) {
  static const char* const function = "makeBehaviorLibraryProject";
  const std::string dir = detail::normalizeAbsolute(path);
  struct stat info;
  if (dir.empty() || ::stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    detail::logError(
        function, "Cannot make a behavior library of \"" + path + "\": not an existing directory");
    return false;
  }
  const std::string file = detail::joinPath(dir, detail::kProjectFile);
  pugi::xml_document document;
  detail::ProjectFile existing;
  switch (detail::readProjectFile(dir, existing, function)) {
    case detail::ReadResult::ok: document.load_file(file.c_str()); break;
    case detail::ReadResult::absent: document.append_child("project"); break;
    case detail::ReadResult::malformed:
      detail::logError(function, "Cannot make a behavior library of " + dir + ": " + file +
                                     " exists and is not a readable project file");
      return false;
  }
  pugi::xml_node project = document.document_element();
  setMetadata(project, "Type", "BehaviorLibrary");
  if (!name.empty()) {
    setMetadata(project, "Name", name);
  }
  // Written beside the file and renamed over it, so readers never see half a file.
  const std::string temporary = detail::stagingPath(dir, ".xml");
  if (!document.save_file(temporary.c_str(), "  ")) {
    std::remove(temporary.c_str());
    detail::logError(function, "Cannot write " + temporary + ": " + std::strerror(errno));
    return false;
  }
  if (std::rename(temporary.c_str(), file.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    std::remove(temporary.c_str());
    detail::logError(function, "Cannot write " + file + ": " + reason);
    return false;
  }
  return true;
}

}  // namespace project
}  // namespace vu
