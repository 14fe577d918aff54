#include <zrfiletransfer/zrservedfolders.h>

#include <boost/filesystem/path.hpp>

#include "zrhttphandlers.h"
#include "zrserverlimits.h"
#include "zrwriteguard.h"

namespace fs = boost::filesystem;

namespace ZR {

ServedFolders::ServedFolders()
    : fMaxWriteBytes(detail::ServerLimits::fromEnvironment().putMaxBytes) {
  fillContentTypeTable();
}

bool ServedFolders::map(const std::string& requestPath, ZRFileTarget* target) const {
  MappedPath mapped;
  if (!mapRequestPath(fs::path(requestPath), &mapped)) return false;
  target->root = mapped.root.string();
  target->components = pathComponents(mapped.relative);
  target->refusal = mapped.refusal;
  return true;
}

std::string ServedFolders::changeRefusal(const ZRFileTarget& target, ZRFileChange change) const {
  if (change == ZRFileChange::Create) {
    return detail::writeRefusal(target.root, target.components, detail::WriteKind::Create, {});
  }
  return detail::writeRefusal(target.root, target.components, detail::WriteKind::Remove,
                              detail::protectedDirectories());
}

std::vector<vu::beneath::FileIdentity> ServedFolders::keptDirectories() const {
  return detail::identitiesOf(detail::protectedDirectories());
}

std::string ServedFolders::contentTypeOf(const std::string& name) const {
  return contentTypeFor(fs::path(name).extension().string());
}

}  // namespace ZR
