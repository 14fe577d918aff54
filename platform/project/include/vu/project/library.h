// Making a directory into a behavior library:
//
//   boost::filesystem::create_directories(root);
//   if (!vu::project::makeBehaviorLibraryProject(root.string(), "")) { ... }
#pragma once

#include <string>

namespace vu {
namespace project {

// Writes <path>/project.xml with the metadata Type "BehaviorLibrary" (and Name = name
// when name is not empty), keeping the other entries of an existing readable file.
// path must be an existing directory. Returns false, with a log line in category
// "vu.project", when the file cannot be written.
bool makeBehaviorLibraryProject(const std::string& path, const std::string& name);

}  // namespace project
}  // namespace vu
