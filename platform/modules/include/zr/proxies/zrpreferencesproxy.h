// ZRPreferencesProxy — typed calls to the preferences module through the broker.
//
//   ZRPreferencesProxy prefs(broker);
//   ZRValue entries = prefs.readPrefFile("DefaultBehaviors", false);
#pragma once

#include <zr/zrproxy.h>
#include <zr/zrvalue.h>

#include <boost/shared_ptr.hpp>
#include <string>

namespace ZR {

class ZRBroker;

class ZRPreferencesProxy : public ZRProxy {
public:
  explicit ZRPreferencesProxy(boost::shared_ptr<ZRBroker> broker,
                              const std::string& module = "ZRPreferences");

  // flag: fall back to the installation's default file when the user's is missing.
  ZRValue readPrefFile(const std::string& moduleName, bool flag);
  // flag: replace an existing file (false refuses to).
  void writePrefFile(const std::string& moduleName, const ZRValue& value, bool flag);
};

}  // namespace ZR
