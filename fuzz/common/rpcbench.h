// A broker for the remote-API fuzz targets: the real memory module and a module "Echo"
// whose methods take and return each kind of value, check their arguments the way a
// module does, and fail on request. Built fresh for every input, so that no input
// depends on what an earlier one stored.
#pragma once

#include <tuqvu/broker/rpcdispatcher.h>
#include <zr/modules/zrmemory.h>
#include <zr/zrbinding.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace fuzzsupport {

class EchoModule : public ZR::ZRModule {
public:
  explicit EchoModule(boost::shared_ptr<ZR::ZRBroker> broker) : ZR::ZRModule(broker, "Echo") {
    using ZR::ZRValue;
    add("echo", {ZR::TypeCodeValue}, ZR::TypeCodeValue,
        [](const ZRValue& args, ZRValue& result) { result = args[0]; });
    add("echo3", {ZR::TypeCodeString, ZR::TypeCodeValue, ZR::TypeCodeString}, ZR::TypeCodeVoid,
        [](const ZRValue&, ZRValue&) {});
    add("concat", {ZR::TypeCodeString, ZR::TypeCodeString}, ZR::TypeCodeString,
        [this](const ZRValue& args, ZRValue& result) {
          result = ZRValue(text(args[0], "concat") + text(args[1], "concat"));
        });
    add("add", {ZR::TypeCodeInt, ZR::TypeCodeInt}, ZR::TypeCodeInt,
        [this](const ZRValue& args, ZRValue& result) {
          result = ZRValue(static_cast<int>(static_cast<unsigned>(number(args[0], "add")) +
                                            static_cast<unsigned>(number(args[1], "add"))));
        });
    add(
        "add", {ZR::TypeCodeInt, ZR::TypeCodeInt, ZR::TypeCodeInt}, ZR::TypeCodeInt,
        [this](const ZRValue& args, ZRValue& result) {
          result = ZRValue(static_cast<int>(static_cast<unsigned>(number(args[0], "add")) +
                                            static_cast<unsigned>(number(args[1], "add")) +
                                            static_cast<unsigned>(number(args[2], "add"))));
        },
        true);
    add("fail", {ZR::TypeCodeString}, ZR::TypeCodeVoid, [this](const ZRValue& args, ZRValue&) {
      throw ZR::ZRError(getName(), "fail", text(args[0], "fail"), __FILE__, __LINE__);
    });
    add("throwStd", {}, ZR::TypeCodeVoid,
        [](const ZRValue&, ZRValue&) { throw std::runtime_error("a standard exception"); });
    add("nothing", {}, ZR::TypeCodeVoid, [](const ZRValue&, ZRValue&) {});
  }

private:
  void add(const std::string& name, const std::vector<int>& types, int result,
           ZR::ZRCallableFunctor::Target target, bool overload = false) {
    std::vector<std::pair<std::string, int>> params;
    for (std::size_t i = 0; i < types.size(); ++i) {
      params.emplace_back("p" + std::to_string(i + 1), types[i]);
    }
    ZR::bindCallable(*this, {name, "fuzz method " + name, params, result, "", "", overload},
                     std::move(target));
  }
  std::string text(const ZR::ZRValue& value, const char* method) const {
    if (!value.isString()) throw ZR::ZRError(getName(), method, "not a string", __FILE__, __LINE__);
    return value.toString();
  }
  int number(const ZR::ZRValue& value, const char* method) const {
    if (!value.isInt()) throw ZR::ZRError(getName(), method, "not an int", __FILE__, __LINE__);
    return static_cast<int>(value);
  }
};

struct RpcBench {
  RpcBench()
      : broker(ZR::ZRBroker::create("fuzz")),
        memory(std::make_unique<ZR::ZRMemory>(broker)),
        echo(std::make_unique<EchoModule>(broker)),
        rpc(std::make_shared<const tuqvu::broker::RpcDispatcher>(broker)) {}
  ~RpcBench() {
    memory->flushNotifications(5000);
    rpc.reset();
    echo.reset();
    memory.reset();
  }

  boost::shared_ptr<ZR::ZRBroker> broker;
  std::unique_ptr<ZR::ZRMemory> memory;
  std::unique_ptr<EchoModule> echo;
  std::shared_ptr<const tuqvu::broker::RpcDispatcher> rpc;
};

}  // namespace fuzzsupport
