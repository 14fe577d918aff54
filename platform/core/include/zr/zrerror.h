// ZRError — the exception every module throws to a remote caller. It names the module,
// the method, a description, and the source file and line that threw it.
//
//   throw ZRError("ZRBehaviorManager", "runBehavior", "behavior x is not installed",
//                 "behavior/behaviormanager/src/behaviormanager", 870);
#pragma once

#include <stdexcept>
#include <string>

namespace ZR {

class ZRError : public std::runtime_error {
public:
  ZRError(const std::string& module, const std::string& method, const std::string& description,
          const std::string& file = "", int line = 0);

  const std::string& module() const { return fModule; }
  const std::string& method() const { return fMethod; }
  const std::string& description() const { return fDescription; }
  const std::string& file() const { return fFile; }
  int line() const { return fLine; }

  // what(): "<module>::<method>\n\t<description>\n\t<file>:<line>"

private:
  std::string fModule;
  std::string fMethod;
  std::string fDescription;
  std::string fFile;
  int fLine;
};

}  // namespace ZR
