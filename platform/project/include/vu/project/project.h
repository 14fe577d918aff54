// vu::project::Project — one project directory and the metadata in its project.xml.
//
//   vu::project::Project project("/home/robot/.tuqvu/behaviors/wave");
//   if (project.valid() && project.getMetadata("Type") == "Resource") { ... }
//
// The on-disk formats are described in docs/formats.md.
#pragma once

#include <mutex>
#include <string>

namespace vu {
namespace project {

class Project {
public:
  // An invalid project with an empty path.
  Project();
  // The project rooted at dir. Nothing is read yet; a relative dir is taken from the
  // current directory.
  explicit Project(const std::string& dir);
  Project(const Project& other);
  Project& operator=(const Project& other);
  virtual ~Project();

  // True while the project directory exists (checked on every call).
  bool valid() const;

  // The directory as an absolute, normalised path without a trailing separator
  // ("" for a project made from an empty string).
  std::string projectPath() const;

  // The value of the metadata entry key in <dir>/project.xml, read now; "" when the
  // file or the entry is absent. A malformed file is logged (category "vu.project")
  // and read as having no metadata.
  std::string getMetadata(const std::string& key) const;

private:
  mutable std::mutex fMutex;  // guards fPath: a library is re-assigned while others read it
  std::string fPath;
};

// True when dir is a directory holding a regular file named "behavior.xar".
bool isBehavior(const std::string& dir);
bool isBehavior(const Project& project);

}  // namespace project
}  // namespace vu
