// The middleware's own modules that every broker hosts: ZRMemory, ZRPreferences and
// ZRFrameManager, created in that order and destroyed in the reverse one.
#pragma once

#include <zr/zrbroker.h>
#include <zr/zrvalue.h>

#include <boost/shared_ptr.hpp>
#include <functional>
#include <memory>
#include <string>

namespace tuqvu {
namespace broker {

class PlatformModules {
public:
  using Observer = std::function<void(const std::string& key, const ZR::ZRValue& value)>;

  // Creates and registers the modules; throws what their constructors throw.
  static std::unique_ptr<PlatformModules> create(boost::shared_ptr<ZR::ZRBroker> broker);
  virtual ~PlatformModules() = default;

  // Every raised event and inserted datum of the memory, in raise order, on the memory's
  // notification thread. One observer at a time.
  virtual void observeMemory(Observer observer) = 0;
  virtual void stopObserving() = 0;

  // Withdraws each module from the broker, then destroys it, in reverse creation order.
  virtual void destroy() = 0;
};

}  // namespace broker
}  // namespace tuqvu
