// The folders of the file-transfer server, offered to the broker's own file API: the
// same request paths lead to the same files, under the same rules of what may be
// changed and the same size limit. The behavior manager publishes them with its broker.
//
//   broker->publishFileFolders(std::make_shared<ZR::ServedFolders>());
#pragma once

#include <zr/zrfilefolders.h>

namespace ZR {

class ServedFolders : public ZRFileFolders {
public:
  // Reads the size limit of writes from the environment (TUQVU_FILE_PUT_MAX_BYTES).
  ServedFolders();

  bool map(const std::string& requestPath, ZRFileTarget* target) const override;
  std::string changeRefusal(const ZRFileTarget& target, ZRFileChange change) const override;
  std::vector<vu::beneath::FileIdentity> keptDirectories() const override;
  std::string contentTypeOf(const std::string& name) const override;
  std::uint64_t maxWriteBytes() const override { return fMaxWriteBytes; }

private:
  std::uint64_t fMaxWriteBytes;
};

}  // namespace ZR
