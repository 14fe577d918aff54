// ZRFrameManager — executes behaviors. A behavior file (behavior.xar, format in
// docs/behavior-file.md) becomes an instance with an id; the instance runs on the
// thread that calls completeBehavior, and exitBehavior from another thread ends it.
//
//   ZRFrameManager* frames = new ZRFrameManager(broker);   // registers "ZRFrameManager"
//   std::string id = frames->newBehaviorFromFile(dir + "/behavior.xar", "animations/wave");
//   frames->completeBehavior(id);    // blocks until the behavior ends or is exited
//   frames->deleteBehavior(id);
//
// Any number of instances may run at once, each on its own caller's thread. <set> and
// <raise> steps reach the module "ZRMemory" through the broker, <call> any module.
//
// The instances are bounded in number (TUQVU_BEHAVIOR_MAX_INSTANCES, 1024) and in the
// memory their programs hold together (TUQVU_BEHAVIOR_MAX_BYTES, 256 MiB); both are read
// when the module is made.
#pragma once

#include <zr/zrmodule.h>

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ZR {

class ZRBroker;

namespace detail {
class BehaviorInstance;
}

class ZRFrameManager : public ZRModule {
public:
  explicit ZRFrameManager(boost::shared_ptr<ZRBroker> broker,
                          const std::string& name = "ZRFrameManager");
  ~ZRFrameManager() override;  // exits and drops every instance

  // Reads and checks the file (a folder stands for its behavior.xar) and creates an
  // instance. The id is unique for the life of the process. ZRError for a missing,
  // unreadable or malformed file or an unknown step, naming the file (and the line and
  // column of a problem inside it), and when the instance would go beyond a limit.
  std::string newBehaviorFromFile(const std::string& xarPath, const std::string& behaviorName);

  // Runs the instance on the calling thread; returns when it has ended or was exited.
  // An instance that deleteBehavior destroyed before it ever ran counts as exited, not
  // unknown, for a while (the latest kRememberedDeletions such ids): a stop that deletes
  // it just before its run begins ends that run as a stop just after would. ZRError for an unknown
  // id, a failing step, or an instance already running.
  void completeBehavior(const std::string& id);

  // Makes a running completeBehavior return promptly. For an instance that is not
  // running, its next run ends before its first step. Unknown ids are ignored.
  void exitBehavior(const std::string& id);

  // Destroys the instance, exiting it first if it runs. Unknown ids are ignored.
  void deleteBehavior(const std::string& id);

  // Exits and deletes every instance that runs, has run or was asked to exit: what is
  // left over once runs are over. Instances created and not yet run (preloaded) stay,
  // since their owners still hold their ids. The destructor drops every instance.
  void cleanBehaviors();

  bool isBehaviorRunning(const std::string& id);
  std::vector<std::string> getBehaviorInstances();  // ids, oldest first

  // What the instances' programs hold in memory together, in bytes, and its limit.
  std::size_t heldBytes();
  std::size_t maxHeldBytes() const { return fMaxHeldBytes; }
  std::size_t maxInstances() const { return fMaxInstances; }

  static constexpr std::size_t kRememberedDeletions = 256;

private:
  using Instances = std::map<std::string, std::shared_ptr<detail::BehaviorInstance>>;

  void bindMethods();
  std::shared_ptr<detail::BehaviorInstance> find(const std::string& id);
  // Both with fInstancesMutex held: forget() takes the instance's program off the held
  // bytes, erase() drops it and, for deleteBehavior, remembers its id if it never ran.
  void forget(const detail::BehaviorInstance& instance);
  enum class Remember { DeletedBeforeRun, Nothing };
  Instances::iterator erase(Instances::iterator instance, Remember remember);
  void refuseBeyondCount(std::size_t instances) const;  // ZRError at the limit

  const std::size_t fMaxInstances;
  const std::size_t fMaxHeldBytes;

  // Serialises the reading of large files: the XML tree of a file takes several times
  // its size while it is read, and callers reading many at once must not add these up.
  // Guards no data; never held with fInstancesMutex.
  std::mutex fLargeReadMutex;

  // Guards fInstances, fHeldBytes and fDeletedBeforeRun; held only to look up, insert
  // or erase, never during a run or a read. Taken before an instance's own lock (to ask
  // whether it has run), never after it.
  std::mutex fInstancesMutex;
  Instances fInstances;
  std::size_t fHeldBytes = 0;                 // the programs of fInstances
  std::deque<std::string> fDeletedBeforeRun;  // oldest first, kRememberedDeletions at most
};

}  // namespace ZR
