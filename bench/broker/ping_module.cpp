// The module the broker benchmark calls: "BenchPing.ping()" returns 1 and does nothing else.
#include <zr/zrbinding.h>
#include <zr/zrbroker.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>

#include <boost/make_shared.hpp>

namespace {

class BenchPing : public ZR::ZRModule {
public:
  BenchPing(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZR::ZRModule(broker, name) {
    ZR::bindCallable(*this, {"ping", "returns 1", {}, ZR::TypeCodeInt, "one", "1"},
                     [](const ZR::ZRValue&, ZR::ZRValue& result) { result = ZR::ZRValue(1); });
  }
};

}  // namespace

extern "C" ZR::ZRModule* tuqvuCreateModule(boost::shared_ptr<ZR::ZRBroker> broker,
                                           const char* name) {
  return new BenchPing(broker, name);
}
