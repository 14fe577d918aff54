#include "platformmodules.h"

#include <vu/log.h>

#ifdef TUQVU_HAVE_PLATFORM_MODULES
#include <zr/modules/zrframemanager.h>
#include <zr/modules/zrmemory.h>
#include <zr/modules/zrpreferences.h>
#endif

namespace tuqvu {
namespace broker {
namespace {

#ifdef TUQVU_HAVE_PLATFORM_MODULES

class HostedPlatformModules : public PlatformModules {
public:
  explicit HostedPlatformModules(boost::shared_ptr<ZR::ZRBroker> broker)
      : fBroker(std::move(broker)) {
    // Each constructor registers its module.
    try {
      fMemory = new ZR::ZRMemory(fBroker);
      fModules.push_back(fMemory);
      fModules.push_back(new ZR::ZRPreferences(fBroker));
      fModules.push_back(new ZR::ZRFrameManager(fBroker));
    } catch (...) {
      destroy();
      throw;
    }
  }
  ~HostedPlatformModules() override { destroy(); }

  void observeMemory(Observer observer) override {
    stopObserving();
    if (fMemory == nullptr) return;
    fObserver = fMemory->addObserver(std::move(observer));
    fObserving = true;
  }

  void stopObserving() override {
    if (fMemory != nullptr && fObserving) fMemory->removeObserver(fObserver);
    fObserving = false;
  }

  void destroy() override {
    stopObserving();
    while (!fModules.empty()) {
      ZR::ZRModule* module = fModules.back();
      fModules.pop_back();
      fBroker->unregisterModule(module);
      delete module;
    }
    fMemory = nullptr;
  }

private:
  boost::shared_ptr<ZR::ZRBroker> fBroker;
  std::vector<ZR::ZRModule*> fModules;  // in creation order
  ZR::ZRMemory* fMemory = nullptr;
  int fObserver = 0;
  bool fObserving = false;
};

#else

// A broker built without the platform modules hosts only the loaded modules.
class HostedPlatformModules : public PlatformModules {
public:
  explicit HostedPlatformModules(boost::shared_ptr<ZR::ZRBroker>) {
    vu::log::write(vu::log::warning, "tuqvu.modules", "PlatformModules",
                   "this broker is built without the memory, preferences and frame-manager "
                   "modules");
  }
  void observeMemory(Observer) override {}
  void stopObserving() override {}
  void destroy() override {}
};

#endif

}  // namespace

std::unique_ptr<PlatformModules> PlatformModules::create(boost::shared_ptr<ZR::ZRBroker> broker) {
  return std::make_unique<HostedPlatformModules>(std::move(broker));
}

}  // namespace broker
}  // namespace tuqvu
