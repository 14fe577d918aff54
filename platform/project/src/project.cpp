#include <sys/stat.h>
#include <vu/project/project.h>

#include "detail/paths.h"
#include "detail/projectfile.h"

namespace vu {
namespace project {

Project::Project() = default;

Project::Project(const std::string& dir) : fPath(detail::normalizeAbsolute(dir)) {}

Project::Project(const Project& other) : fPath(other.projectPath()) {}

Project& Project::operator=(const Project& other) {
  if (this != &other) {
    std::string path = other.projectPath();
    std::lock_guard<std::mutex> lock(fMutex);
    fPath = std::move(path);
  }
  return *this;
}

Project::~Project() = default;

bool Project::valid() const {
  const std::string path = projectPath();
  struct stat info;
  return !path.empty() && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string Project::projectPath() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fPath;
}

std::string Project::getMetadata(const std::string& key) const {
  detail::ProjectFile file;
  if (detail::readProjectFile(projectPath(), file, "Project::getMetadata") !=
      detail::ReadResult::ok) {
    return "";
  }
  const auto found = file.metadata.find(key);
  return found == file.metadata.end() ? std::string() : found->second;
}

bool isBehavior(const std::string& dir) {
  if (dir.empty()) {
    return false;
  }
  struct stat info;
  return ::stat(detail::joinPath(dir, detail::kBehaviorFile).c_str(), &info) == 0 &&
         S_ISREG(info.st_mode);
}

bool isBehavior(const Project& project) {
  return isBehavior(project.projectPath());
}

}  // namespace project
}  // namespace vu
