// ZRFrameManagerProxy — typed calls to the frame-manager module through the broker.
//
//   ZRFrameManagerProxy frames(broker);
//   std::string id = frames.newBehaviorFromFile(path, "stand");
//   frames.completeBehavior(id);   // blocks for the whole run
#pragma once

#include <zr/zrproxy.h>

#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

namespace ZR {

class ZRBroker;

class ZRFrameManagerProxy : public ZRProxy {
public:
  explicit ZRFrameManagerProxy(boost::shared_ptr<ZRBroker> broker,
                               const std::string& module = "ZRFrameManager");

  std::string newBehaviorFromFile(const std::string& xarPath, const std::string& behaviorName);
  void completeBehavior(const std::string& id);
  void exitBehavior(const std::string& id);
  void deleteBehavior(const std::string& id);
  void cleanBehaviors();
  bool isBehaviorRunning(const std::string& id);
  std::vector<std::string> getBehaviorInstances();
};

}  // namespace ZR
