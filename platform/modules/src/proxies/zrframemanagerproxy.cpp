#include <zr/proxies/zrframemanagerproxy.h>

namespace ZR {

ZRFrameManagerProxy::ZRFrameManagerProxy(boost::shared_ptr<ZRBroker> broker,
                                         const std::string& module)
    : ZRProxy(std::move(broker), module, 0, 0) {}

std::string ZRFrameManagerProxy::newBehaviorFromFile(const std::string& xarPath,
                                                     const std::string& behaviorName) {
  return call<std::string>("newBehaviorFromFile", xarPath, behaviorName);
}

void ZRFrameManagerProxy::completeBehavior(const std::string& id) {
  call<void>("completeBehavior", id);
}

void ZRFrameManagerProxy::exitBehavior(const std::string& id) {
  call<void>("exitBehavior", id);
}

void ZRFrameManagerProxy::deleteBehavior(const std::string& id) {
  call<void>("deleteBehavior", id);
}

void ZRFrameManagerProxy::cleanBehaviors() {
  call<void>("cleanBehaviors");
}

bool ZRFrameManagerProxy::isBehaviorRunning(const std::string& id) {
  return call<bool>("isBehaviorRunning", id);
}

std::vector<std::string> ZRFrameManagerProxy::getBehaviorInstances() {
  return call<std::vector<std::string>>("getBehaviorInstances");
}

}  // namespace ZR
