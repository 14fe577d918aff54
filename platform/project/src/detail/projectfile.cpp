#include "detail/projectfile.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <pugixml.hpp>

#include "detail/paths.h"

namespace vu {
namespace project {
namespace detail {
namespace {

std::string trim(const std::string& text) {
  const char* blanks = " \t\r\n";
  const std::string::size_type first = text.find_first_not_of(blanks);
  if (first == std::string::npos) {
    return "";
  }
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

ReadResult readProjectFile(const std::string& dir, ProjectFile& out, const char* function) {
  out = ProjectFile();
  if (dir.empty()) {
    return ReadResult::absent;
  }
  const std::string file = joinPath(dir, kProjectFile);
  struct stat info;
  if (::stat(file.c_str(), &info) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return ReadResult::absent;
    }
    logWarning(function, "Cannot read " + file + ": " + std::strerror(errno));
    return ReadResult::malformed;
  }
  if (!S_ISREG(info.st_mode)) {
    logWarning(function, "Cannot read " + file + ": not a regular file");
    return ReadResult::malformed;
  }
  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_file(file.c_str());
  if (!parsed) {
    logWarning(function, "Malformed project file " + file + ": " + parsed.description() +
                             " at offset " + std::to_string(parsed.offset));
    return ReadResult::malformed;
  }
  const pugi::xml_node root = document.document_element();
  if (std::strcmp(root.name(), "project") != 0) {
    logWarning(function, "Malformed project file " + file + ": the root element is <" +
                             root.name() + ">, not <project>");
    return ReadResult::malformed;
  }
  for (const pugi::xml_node entry : root.children("metadata")) {
    const pugi::xml_attribute key = entry.attribute("key");
    if (key) {
      out.metadata.emplace(key.value(), entry.attribute("value").value());
    }
  }
  for (const pugi::xml_node tag : root.children("tag")) {
    std::string text = trim(tag.child_value());
    if (!text.empty()) {
      out.tags.push_back(std::move(text));
    }
  }
  std::sort(out.tags.begin(), out.tags.end());
  out.tags.erase(std::unique(out.tags.begin(), out.tags.end()), out.tags.end());
  return ReadResult::ok;
}

}  // namespace detail
}  // namespace project
}  // namespace vu
