// The entry point through which the broker loads this module library.
#include <behaviormanager/behaviormanager.h>
#include <zr/zrmodule.h>

extern "C" __attribute__((visibility("default"))) ZR::ZRModule* tuqvuCreateModule(
    boost::shared_ptr<ZR::ZRBroker> broker, const char* name) {
  return new ZR::BehaviorManager::ZRBehaviorManager(broker, name ? name : "ZRBehaviorManager");
}
