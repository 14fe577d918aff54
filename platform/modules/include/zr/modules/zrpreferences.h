// ZRPreferences — one preference file per module name, read and written whole.
//
//   ZRPreferences* prefs = new ZRPreferences(broker);      // registers "ZRPreferences"
//   ZRValue entries = prefs->readPrefFile("DefaultBehaviors", false);
//   // entries: [[key, description, value], ...], every element a string
//
// Files live at vu::path::userWritableDataPath("tuqvu", "preferences/<module>.xml") in
// the XML format of docs/modules.md. A write goes to a temporary file that is flushed
// to disk and then renamed over the old file, so a reader sees the old or the new
// content, never a mix, even when the writing process is killed.
#pragma once

#include <zr/zrmodule.h>
#include <zr/zrvalue.h>

#include <boost/shared_ptr.hpp>
#include <mutex>
#include <string>

namespace ZR {

class ZRBroker;

class ZRPreferences : public ZRModule {
public:
  explicit ZRPreferences(boost::shared_ptr<ZRBroker> broker,
                         const std::string& name = "ZRPreferences");
  ~ZRPreferences() override;

  // The entries of the module's file. searchSystem: when the user's file is missing,
  // read the installation's default file (share/tuqvu/preferences/<module>.xml)
  // instead. A missing file is a ZRError saying so; a malformed one names its line
  // and column.
  ZRValue readPrefFile(const std::string& moduleName, bool searchSystem);

  // Replaces the module's file with the entries (an array of arrays of three
  // strings). replace false refuses to overwrite an existing file. A value of another
  // shape is a ZRError and the old file stays.
  void writePrefFile(const std::string& moduleName, const ZRValue& value, bool replace);

  // Where the user's file of a module is (the name is checked first).
  std::string prefFilePath(const std::string& moduleName);

private:
  void bindMethods();
  std::string checkedPath(const std::string& moduleName, const char* method);

  // Serialises writes of this module: the stale-file clean-up and the rename of two
  // writers of the same file must not interleave. Reads take no lock.
  std::mutex fWriteMutex;
};

}  // namespace ZR
