#include <zr/zrbroker.h>
#include <zr/zrmodule.h>

namespace ZR {

ZRModule::ZRModule(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRModuleCore(broker, name) {
  if (broker) {
    broker->registerModule(this);
  }
}

ZRModule::~ZRModule() {
  if (getParentBroker()) {
    getParentBroker()->unregisterModule(this);
  }
}

}  // namespace ZR
