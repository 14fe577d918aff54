#include <vu/log.h>
#include <vu/path.h>
#include <zr/modules/zrpreferences.h>
#include <zr/zrbinding.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>

#include <system_error>

#include "detail/wholefile.h"
#include "preferences/atomicfile.h"
#include "preferences/preferencexml.h"

namespace ZR {
namespace {

const char* const kCategory = "zr.preferences";
const std::size_t kMaxNameLength = 200;

std::string describeFormatError(const detail::PreferenceFormatError& error) {
  if (error.line() == 0) return error.what();
  return "line " + std::to_string(error.line()) + ", column " + std::to_string(error.column()) +
         ": " + error.what();
}

}  // namespace

ZRPreferences::ZRPreferences(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRModule(broker, name) {
  setModuleDescription(
      "Preference files of the modules: one file per module name, each a list of "
      "(key, description, value) entries.");
  bindMethods();
}

ZRPreferences::~ZRPreferences() {
  if (getParentBroker()) getParentBroker()->unregisterModule(this);
}

void ZRPreferences::bindMethods() {
  bindMember(
      this, &ZRPreferences::readPrefFile,
      {"readPrefFile",
       "Read the preferences of a module: an array of entries, each an array of "
       "three strings (key, description, value). A missing file is an error.",
       {{"moduleName", "the module whose preferences to read; a plain file name"},
        {"searchSystem", "when the user's file is missing, read the installation's default file"}},
       "preferences",
       "the entries of the file"});
  bindMember(this, &ZRPreferences::writePrefFile,
             {"writePrefFile",
              "Replace the preferences of a module with the given entries, each an array "
              "of three strings (key, description, value). The old file stays when the "
              "entries do not have that shape or the write fails.",
              {{"moduleName", "the module whose preferences to write; a plain file name"},
               {"value", "the entries"},
               {"replace", "overwrite an existing file; false refuses to"}}});
}

std::string ZRPreferences::prefFilePath(const std::string& moduleName) {
  return checkedPath(moduleName, "prefFilePath");
}

std::string ZRPreferences::checkedPath(const std::string& moduleName, const char* method) {
  std::string problem;
  if (moduleName.empty()) {
    problem = "the module name is empty";
  } else if (moduleName == "." || moduleName == "..") {
    problem = "\"" + moduleName + "\" is not a plain file name";
  } else if (moduleName.find_first_of(std::string("/\\\0", 3)) != std::string::npos) {
    problem = "\"" + moduleName + "\" is not a plain file name (it holds a path separator)";
  } else if (moduleName[0] == '.') {
    problem = "\"" + moduleName + "\" begins with a dot";
  } else if (moduleName.size() > kMaxNameLength) {
    problem = "the module name is longer than " + std::to_string(kMaxNameLength) + " bytes";
  } else {
    for (char c : moduleName) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
        problem = "the module name holds a control character";
        break;
      }
    }
  }
  if (!problem.empty()) {
    throw ZRError(getName(), method, "invalid module name: " + problem, __FILE__, __LINE__);
  }
  return vu::path::userWritableDataPath("tuqvu", "preferences/" + moduleName + ".xml");
}

ZRValue ZRPreferences::readPrefFile(const std::string& moduleName, bool searchSystem) {
  const std::string userPath = checkedPath(moduleName, "readPrefFile");
  std::string path = userPath;
  std::string text;
  try {
    bool found = detail::readWholeFile(path, text);
    if (!found && searchSystem) {
      const std::string systemPath =
          vu::path::findData("tuqvu", "preferences/" + moduleName + ".xml");
      if (!systemPath.empty()) {
        path = systemPath;
        found = detail::readWholeFile(path, text);
      }
    }
    if (!found) {
      throw ZRError(getName(), "readPrefFile", "there is no preference file for " + moduleName,
                    __FILE__, __LINE__);
    }
    return detail::decodePreferences(text);
  } catch (const std::system_error& error) {
    // The code's message, not what(): that names the file, a path of the robot's home.
    throw ZRError(getName(), "readPrefFile",
                  "cannot read the preferences of " + moduleName + ": " + error.code().message(),
                  __FILE__, __LINE__);
  } catch (const detail::PreferenceFormatError& error) {
    throw ZRError(getName(), "readPrefFile",
                  "the preference file of " + moduleName + (path == userPath ? "" : " (system)") +
                      " is malformed at " + describeFormatError(error),
                  __FILE__, __LINE__);
  }
}

void ZRPreferences::writePrefFile(const std::string& moduleName, const ZRValue& value,
                                  bool replace) {
  const std::string path = checkedPath(moduleName, "writePrefFile");
  std::string text;
  try {
    text = detail::encodePreferences(moduleName, value);
  } catch (const detail::PreferenceFormatError& error) {
    throw ZRError(getName(), "writePrefFile",
                  "cannot write the preferences of " + moduleName + ": " + error.what(), __FILE__,
                  __LINE__);
  }
  std::lock_guard<std::mutex> lock(fWriteMutex);
  try {
    const int stale = detail::removeStaleTemporaries(path);
    if (stale > 0) {
      vu::log::write(vu::log::verbose, kCategory, "writePrefFile",
                     "removed " + std::to_string(stale) + " temporary files of " + path +
                         " left by interrupted writers");
    }
    if (!detail::writeFileAtomically(path, text, replace)) {
      throw ZRError(getName(), "writePrefFile",
                    "the preference file of " + moduleName + " exists and replace is false",
                    __FILE__, __LINE__);
    }
  } catch (const std::system_error& error) {
    throw ZRError(getName(), "writePrefFile",
                  "cannot write the preferences of " + moduleName + ": " + error.code().message(),
                  __FILE__, __LINE__);
  }
}

}  // namespace ZR
