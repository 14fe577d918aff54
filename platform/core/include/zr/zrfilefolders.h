// ZRFileFolders — the folders a module lets clients reach through the broker's own file
// API (/files/<path> on the broker's port). The module that owns them publishes them
// with its broker; the broker asks them where every request path leads and whether a
// change may go ahead, and does the reading and writing itself, beneath the root it was
// given (vu::beneath).
//
//   class MyFolders : public ZR::ZRFileFolders { ... };
//   broker->publishFileFolders(std::make_shared<MyFolders>());   // at construction
//   broker->withdrawFileFolders(folders.get());                  // at destruction
#pragma once

#include <vu/beneath.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ZR {

// Where a request path leads.
struct ZRFileTarget {
  std::string root;                     // the folder the path was mapped under (absolute)
  std::vector<std::string> components;  // the names below it; empty for the root itself
  // Set for a path that is mapped but that no client may read or change: the answer is
  // 403 with this text.
  std::string refusal;
};

enum class ZRFileChange { Create, Remove };

class ZRFileFolders {
public:
  virtual ~ZRFileFolders() = default;

  // Where `requestPath` (percent-decoded, relative, "/" between names) leads; false when
  // nothing is served there (the answer is 404).
  virtual bool map(const std::string& requestPath, ZRFileTarget* target) const = 0;
  // Why writing (Create) or removing (Remove) the target is refused, "" when it may go
  // ahead. The target's root exists when this is asked.
  virtual std::string changeRefusal(const ZRFileTarget& target, ZRFileChange change) const = 0;
  // The directories a removal leaves in place wherever it meets them.
  virtual std::vector<vu::beneath::FileIdentity> keptDirectories() const = 0;
  // The Content-Type of a file by its name.
  virtual std::string contentTypeOf(const std::string& name) const = 0;
  // The largest body a write may have.
  virtual std::uint64_t maxWriteBytes() const = 0;
};

}  // namespace ZR
