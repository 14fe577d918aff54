#include "detail/filecopy.h"

#include <vu/beneath.h>
#include <vu/project/error.h>

#include <boost/filesystem.hpp>
#include <cstring>

#include "detail/paths.h"

namespace fs = boost::filesystem;

namespace vu {
namespace project {
namespace detail {

void copyTree(int fromDirectory, const std::string& fromName, int toDirectory,
              const std::string& toName, const std::string& what) {
  const vu::beneath::CopyProblem problem =
      vu::beneath::copyTree(fromDirectory, fromName, toDirectory, toName);
  if (!problem) {
    return;
  }
  if (problem.linkLeavesFolder) {
    throw ProjectError(problem.entry.empty() ? "cannot copy " + what + ": it is a symbolic link"
                                             : "cannot copy " + what + ": the symbolic link \"" +
                                                   problem.entry + "\" leads outside the folder");
  }
  const std::string entry = problem.entry.empty() ? "" : " (at \"" + problem.entry + "\")";
  const std::string reason = problem.error == EINVAL && !problem.entry.empty()
                                 ? "not a regular file, directory or symbolic link"
                             : problem.error == ELOOP ? "a symbolic link where a folder was"
                                                      : std::strerror(problem.error);
  throw ProjectError("cannot copy " + what + entry + ": " + reason);
}

void removeTree(int directory, const std::string& name, const std::string& what) {
  const int error = vu::beneath::removeTree(directory, name);
  if (error != 0) {
    throw ProjectError("cannot remove " + what + ": " + std::strerror(error));
  }
}

void removeTree(const std::string& path) {
  boost::system::error_code code;
  fs::remove_all(path, code);
  if (code) {
    throw ProjectError("cannot remove " + path + ": " + code.message());
  }
}

void removeTreeIfPossible(const std::string& path) noexcept {
  boost::system::error_code ignored;
  fs::remove_all(path, ignored);
}

void removeTreeIfPossible(int directory, const std::string& name) noexcept {
  vu::beneath::removeTree(directory, name);
}

void exchange(int directory, const std::string& a, const std::string& b, const std::string& what) {
  const std::string aside = stagingName(".old");
  const int error = vu::beneath::exchangeBeneath(directory, a, b, aside);
  if (error != 0) {
    throw ProjectError("cannot replace " + what + ": " + std::strerror(error));
  }
}

}  // namespace detail
}  // namespace project
}  // namespace vu
