// vu::path containment — whether one resolved path lies within another, and the one
// place no service of the platform ever writes in: the installation.
//
//   isWithin("/a/b/c", "/a/b")            true
//   liesInInstallation(resolvedTarget)    true for the prefix itself and all below it
#pragma once

#include <boost/filesystem/path.hpp>

namespace vu {
namespace path {

// Whether `inner` is `outer` or lies below it, compared component by component; "."
// components are skipped. Both must already be resolved (fs::canonical or
// fs::weakly_canonical): links and ".." are taken as they stand.
bool isWithin(const boost::filesystem::path& inner, const boost::filesystem::path& outer);

// `path` as the kernel would reach it: made absolute against the working directory, "."
// and repeated separators dropped, every existing component's links resolved and ".."
// taken after them; what does not exist yet is appended as written. Empty when a
// component cannot be examined (a loop of links, no permission). Unlike Boost's
// weakly_canonical, a leading "//" is the root, never a network name.
boost::filesystem::path resolvedPath(const std::string& path);

// The installation prefix (sdkPrefix()) made absolute with its links resolved as far as
// it exists; empty when it cannot be resolved.
boost::filesystem::path resolvedSdkPrefix();

// Whether `path` (resolved) is the installation prefix or lies below it. Nothing there
// is ever written, replaced or removed: the file server, resource installs and the
// choice of the user library all ask this one question.
bool liesInInstallation(const boost::filesystem::path& path);

}  // namespace path
}  // namespace vu
