#include <zr/zrerror.h>

namespace ZR {

ZRError::ZRError(const std::string& module, const std::string& method,
                 const std::string& description, const std::string& file, int line)
    : std::runtime_error(module + "::" + method + "\n\t" + description + "\n\t" + file + ":" +
                         std::to_string(line)),
      fModule(module),
      fMethod(method),
      fDescription(description),
      fFile(file),
      fLine(line) {}

}  // namespace ZR
