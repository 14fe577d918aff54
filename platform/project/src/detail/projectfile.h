// Reading and writing project.xml, the metadata file in a project's root:
//
//   <project>
//     <metadata key="Type" value="Behavior"/>
//     <tag>greeting</tag>
//   </project>
#pragma once

#include <map>
#include <string>
#include <vector>

namespace vu {
namespace project {
namespace detail {

struct ProjectFile {
  std::map<std::string, std::string> metadata;  // the first entry of a key wins
  std::vector<std::string> tags;                // sorted, without duplicates or blanks
};

enum class ReadResult { ok, absent, malformed };

// Reads <dir>/project.xml into out (left empty unless the result is ok). A file that
// exists but cannot be read or parsed is logged as a warning under function.
ReadResult readProjectFile(const std::string& dir, ProjectFile& out, const char* function);

}  // namespace detail
}  // namespace project
}  // namespace vu
