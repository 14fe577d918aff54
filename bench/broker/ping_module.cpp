// The module the broker benchmark calls: "BenchPing.ping()" returns 1 and does nothing else.
#include <boost/make_shared.hpp>

#include <zr/zrbroker.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>

namespace {

class BenchPing : public ZR::ZRModule {
public:
  BenchPing(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZR::ZRModule(broker, name) {
    functionName("ping", getName(), "returns 1", 0);
    setReturn("one", "1");
    getCurrentMethodDescription().returnType = ZR::getTypeString(ZR::TypeCodeInt);
    bindMethod(boost::make_shared<ZR::ZRCallableFunctor>(
        [](const ZR::ZRValue&, ZR::ZRValue& result) { result = ZR::ZRValue(1); }));
  }
};

}  // namespace

extern "C" ZR::ZRModule* tuqvuCreateModule(boost::shared_ptr<ZR::ZRBroker> broker,
                                           const char* name) {
  return new BenchPing(broker, name);
}
