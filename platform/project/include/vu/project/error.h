// The project library's exception: a failure of a file operation, a package or a
// library change, said in one sentence that names the path and the reason, for the log.
// It derives from std::runtime_error, so a caller may also catch that.
#pragma once

#include <stdexcept>

namespace vu {
namespace project {

class ProjectError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

}  // namespace project
}  // namespace vu
