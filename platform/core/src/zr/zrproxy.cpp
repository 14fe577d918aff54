#include <zr/zrerror.h>
#include <zr/zrmodulecore.h>
#include <zr/zrproxy.h>
#include <zr/zrtypes.h>

namespace ZR {

ZRProxy::ZRProxy(boost::shared_ptr<ZRBroker> broker, const std::string& moduleName, int options,
                 int timeout)
    : fBroker(std::move(broker)), fModule(moduleName) {
  if (!fBroker) {
    throw ZRError("ZRProxy", "ZRProxy", "no broker given for a proxy to " + moduleName, __FILE__,
                  __LINE__);
  }
  if (options != 0 || timeout != 0) {
    throw ZRError("ZRProxy", "ZRProxy",
                  "proxy options and timeouts are not supported (proxy to " + moduleName + ")",
                  __FILE__, __LINE__);
  }
}

void ZRProxy::requireLocalModule() const {
  if (!fBroker->hasModule(fModule)) {
    throw ZRError("ZRProxy", "call/pCall",
                  "module '" + fModule + "' is not hosted by broker '" + fBroker->getName() +
                      "'; calls to modules of other processes are not supported in this version",
                  __FILE__, __LINE__);
  }
}

ZRValue ZRProxy::genericCall(const std::string& method, const ZRValue& args) {
  requireLocalModule();
  return fBroker->call(fModule, method, args);
}

template <>
int ZRProxy::pCall<std::string>(const std::string& method, const std::string& arg) {
  requireLocalModule();
  std::vector<ZRMethodInfo> methods = fBroker->getMethods(fModule);
  const ZRMethodInfo* found = nullptr;
  // By name first; then by name and signature (one string parameter).
  for (const ZRMethodInfo& info : methods) {
    if (info.name == method) {
      found = &info;
      break;
    }
  }
  if (found != nullptr && found->arity() != 1) {
    found = nullptr;
    for (const ZRMethodInfo& info : methods) {
      if (info.name == method && info.arity() == 1) {
        found = &info;
        break;
      }
    }
  }
  if (found == nullptr) {
    throw ZRError("ZRProxy", "call/pCall",
                  "module '" + fModule + "' has no function '" + method + "' with one parameter",
                  __FILE__, __LINE__);
  }
  const std::string wanted = getTypeString(TypeCodeString);
  if (found->parameters[0].type != wanted) {
    throw ZRError("ZRProxy", "call/pCall",
                  "When trying to call module '" + fModule + "' function '" + method +
                      "' parameter #" + "1" + " is of type " + wanted + " instead of type " +
                      found->parameters[0].type,
                  "zrcommon/zrproxy", 657);
  }
  boost::shared_ptr<detail::PCallBase> posted(
      new detail::_pcall1<std::string>(fBroker, fModule, method, arg));
  return fBroker->postTask(fModule, [posted]() { posted->run(); });
}

}  // namespace ZR
