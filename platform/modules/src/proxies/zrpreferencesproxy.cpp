#include <zr/proxies/zrpreferencesproxy.h>

namespace ZR {

ZRPreferencesProxy::ZRPreferencesProxy(boost::shared_ptr<ZRBroker> broker,
                                       const std::string& module)
    : ZRProxy(std::move(broker), module, 0, 0) {}

ZRValue ZRPreferencesProxy::readPrefFile(const std::string& moduleName, bool flag) {
  return call<ZRValue>("readPrefFile", moduleName, flag);
}

void ZRPreferencesProxy::writePrefFile(const std::string& moduleName, const ZRValue& value,
                                       bool flag) {
  call<void>("writePrefFile", moduleName, value, flag);
}

}  // namespace ZR
