#include <zr/zrerror.h>

namespace ZR {

ZRError::ZRError(const std::string& module, const std::string& method,
                 const std::string& description, const std::string& file, int line)
    : fModule(module),
      fMethod(method),
      fDescription(description),
      fFile(file),
      fLine(line),
      fWhat(module + "::" + method + "\n\t" + description + "\n\t" + file + ":" +
            std::to_string(line)) {}

}  // namespace ZR
