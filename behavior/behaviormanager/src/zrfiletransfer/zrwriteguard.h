// What PUT and DELETE may change. Requests may write and remove below the mapped roots,
// but never a root itself, nothing of the installation, and (for DELETE) no directory
// the process depends on:
//
//   std::string why = writeRefusal(root, components, WriteKind::Remove);
//   if (!why.empty()) sendRefusal(connection, "403 Forbidden", why);
#pragma once

#include <vu/beneath.h>

#include <boost/filesystem/path.hpp>
#include <string>
#include <vector>

namespace ZR {
namespace detail {

// The directories no request may remove, nor any directory that holds them: the
// installation prefix, the home directory and its ".tuqvu", the user behaviors and box
// libraries, the temporary directory, the user data directory and its "tuqvu" folder
// (the secret, the preferences). Canonical paths of those that exist.
std::vector<boost::filesystem::path> protectedDirectories();
std::vector<vu::beneath::FileIdentity> identitiesOf(
    const std::vector<boost::filesystem::path>& directories);

enum class WriteKind { Create, Remove };

// Why a PUT (Create) or DELETE (Remove) of `components` below `root` is refused, "" when
// it may go ahead: the root itself, a target inside the installation prefix, and for
// removals a target that is or holds one of `protectedDirectories`. `root` must exist;
// `components` come from pathComponents() (no "." or "..").
std::string writeRefusal(const boost::filesystem::path& root,
                         const std::vector<std::string>& components, WriteKind kind,
                         const std::vector<boost::filesystem::path>& protectedOnes);

}  // namespace detail
}  // namespace ZR
