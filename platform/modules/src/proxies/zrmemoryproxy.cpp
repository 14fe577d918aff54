#include <zr/proxies/zrmemoryproxy.h>

namespace ZR {

ZRMemoryProxy::ZRMemoryProxy(boost::shared_ptr<ZRBroker> broker, const std::string& module)
    : ZRProxy(std::move(broker), module, 0, 0) {}

void ZRMemoryProxy::insertData(const std::string& key, const ZRValue& value) {
  call<void>("insertData", key, value);
}

ZRValue ZRMemoryProxy::getData(const std::string& key) {
  return call<ZRValue>("getData", key);
}

std::vector<std::string> ZRMemoryProxy::getDataList(const std::string& prefix) {
  return call<std::vector<std::string>>("getDataList", prefix);
}

void ZRMemoryProxy::removeData(const std::string& key) {
  call<void>("removeData", key);
}

void ZRMemoryProxy::declareEvent(const std::string& name) {
  call<void>("declareEvent", name);
}

std::vector<std::string> ZRMemoryProxy::getEventList() {
  return call<std::vector<std::string>>("getEventList");
}

void ZRMemoryProxy::raiseMicroEvent(const std::string& name, const ZRValue& value) {
  call<void>("raiseMicroEvent", name, value);
}

void ZRMemoryProxy::subscribeToMicroEvent(const std::string& name,
                                          const std::string& callbackModule,
                                          const std::string& callbackMessage,
                                          const std::string& callbackMethod) {
  call<void>("subscribeToMicroEvent", name, callbackModule, callbackMessage, callbackMethod);
}

void ZRMemoryProxy::unsubscribeToMicroEvent(const std::string& name,
                                            const std::string& callbackModule) {
  call<void>("unsubscribeToMicroEvent", name, callbackModule);
}

}  // namespace ZR
