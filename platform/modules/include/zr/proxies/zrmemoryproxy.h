// ZRMemoryProxy — typed calls to the memory module through the broker.
//
//   auto memory = broker->getSpecialisedProxy<ZRMemoryProxy>("ZRMemory");
//   memory->raiseMicroEvent("BehaviorsRun", ZRValue(names));
//
// Every call goes through ZRProxy, so it reaches whatever module the broker hosts
// under the proxy's name.
#pragma once

#include <zr/zrproxy.h>
#include <zr/zrvalue.h>

#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

namespace ZR {

class ZRBroker;

class ZRMemoryProxy : public ZRProxy {
public:
  ZRMemoryProxy(boost::shared_ptr<ZRBroker> broker, const std::string& module = "ZRMemory");

  void insertData(const std::string& key, const ZRValue& value);
  ZRValue getData(const std::string& key);
  std::vector<std::string> getDataList(const std::string& prefix);
  void removeData(const std::string& key);

  void declareEvent(const std::string& name);
  std::vector<std::string> getEventList();
  void raiseMicroEvent(const std::string& name, const ZRValue& value);
  void subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                             const std::string& callbackMessage, const std::string& callbackMethod);
  void unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule);
};

}  // namespace ZR
