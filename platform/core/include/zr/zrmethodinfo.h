// ZRMethodInfo — the published description of one remote method: its name, module,
// description, parameters and result, with the type text of each.
#pragma once

#include <string>
#include <vector>

namespace ZR {

class ZRMethodInfo {
public:
  struct ZRParameterInfo {
    std::string name;
    std::string description;
    std::string type;  // getTypeString text
  };

  std::string name;
  std::string moduleName;
  std::string description;
  int mask = 0;
  std::vector<ZRParameterInfo> parameters;
  std::string returnName;
  std::string returnDescription;
  std::string returnType;  // getTypeString text; empty until completed

  int arity() const { return static_cast<int>(parameters.size()); }
};

}  // namespace ZR
