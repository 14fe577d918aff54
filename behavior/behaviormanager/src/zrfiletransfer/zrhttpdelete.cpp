// DELETE: removes the mapped file or directory tree and answers "ok", also when nothing
// was there or the removal failed (the failure is logged). The tree is removed by
// descriptors beneath its root without following any link; a served folder itself, the
// installation and the folders this robot depends on are refused with 403.
#include <vu/beneath.h>
#include <vu/log.h>

#include <cerrno>
#include <cstring>

#include "zrhttphandlers.h"
#include "zrhttpreply.h"
#include "zrrequestguard.h"
#include "zrwriteguard.h"

namespace fs = boost::filesystem;

namespace ZR {
namespace {

void logError(const std::string& text) {
  vu::log::write(vu::log::warning, detail::kNetworkLog, "httpDel", text);
}

}  // namespace

int httpDel(soap* connection) {
  if (detail::refuseRequest(connection, detail::Access::Write)) {
    return 0;
  }
  const fs::path relative = detail::relativeRequestPath(connection, true);
  if (relative.empty()) {
    return -1;
  }
  MappedPath mapped;
  if (!mapRequestPath(relative, &mapped)) {
    return -1;
  }
  if (!mapped.refusal.empty()) {
    detail::sendRefusal(connection, "403 Forbidden", mapped.refusal);
    return 0;
  }
  const std::vector<std::string> components = pathComponents(mapped.relative);

  vu::beneath::UniqueFd root(vu::beneath::openDirectory(mapped.root.string()));
  if (root || components.empty()) {
    const std::vector<fs::path> keep = detail::protectedDirectories();
    const std::string why =
        detail::writeRefusal(mapped.root, components, detail::WriteKind::Remove, keep);
    if (!why.empty()) {
      detail::logRefusedPath("httpDel", relative, why);
      detail::sendRefusal(connection, "403 Forbidden", why);
      return 0;
    }
    vu::beneath::UniqueFd parent(vu::beneath::openBeneath(
        root.get(), detail::joinComponents(components, components.size() - 1),
        O_PATH | O_DIRECTORY));
    if (parent) {
      // The protected folders are also skipped on the way, should one be moved into
      // the tree while it is removed.
      const int error =
          vu::beneath::removeTree(parent.get(), components.back(), detail::identitiesOf(keep));
      if (error != 0) {
        logError("Removing path failed: " + relative.string() + ": " + std::strerror(error));
      }
    } else if (errno == ELOOP || errno == EXDEV) {
      detail::logRefusedPath("httpDel", relative, "a symbolic link on the way");
      return -1;
    } else if (errno != ENOENT && errno != ENOTDIR) {
      logError("Delete file error: " + relative.string() + ": " + std::strerror(errno));
    }
  } else if (errno != ENOENT) {
    logError("Delete file error: " + mapped.root.string() + ": " + std::strerror(errno));
  }

  detail::sendOk(connection);
  return 0;
}

}  // namespace ZR
