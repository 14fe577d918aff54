#include <vu/log.h>
#include <vu/settings.h>
#include <zr/modules/zrframemanager.h>
#include <zr/zrbinding.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>

#include "framemanager/behaviorinstance.h"
#include "framemanager/behaviorprogram.h"

namespace ZR {
namespace {

const char* const kCategory = "zr.framemanager";
const char* const kBehaviorFileName = "behavior.xar";
const char* const kNewMethod = "newBehaviorFromFile";

constexpr std::size_t kDefaultMaxInstances = 1024;
constexpr std::size_t kDefaultMaxHeldBytes = 256u << 20;
// Files above this size are read one at a time.
constexpr std::uintmax_t kLargeFileBytes = 1u << 20;

// Ids are unique in the process, across frame managers.
std::string nextInstanceId() {
  static std::atomic<unsigned long long> counter{0};
  return std::to_string(++counter);
}

unsigned long long idOrder(const std::string& id) {
  return id.empty() ? 0 : std::stoull(id);
}

}  // namespace

ZRFrameManager::ZRFrameManager(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRModule(broker, name),
      fMaxInstances(
          vu::settings::positiveNumber("TUQVU_BEHAVIOR_MAX_INSTANCES", kDefaultMaxInstances)),
      fMaxHeldBytes(
          vu::settings::positiveNumber("TUQVU_BEHAVIOR_MAX_BYTES", kDefaultMaxHeldBytes)) {
  setModuleDescription(
      "Executes behaviors: reads behavior files into instances and runs each instance "
      "on the thread of its caller until it ends or is exited.");
  bindMethods();
}

ZRFrameManager::~ZRFrameManager() {
  if (getParentBroker()) getParentBroker()->unregisterModule(this);
  std::map<std::string, std::shared_ptr<detail::BehaviorInstance>> instances;
  {
    std::lock_guard<std::mutex> lock(fInstancesMutex);
    instances.swap(fInstances);
    fHeldBytes = 0;
  }
  for (const auto& entry : instances) entry.second->requestExit();
}

void ZRFrameManager::bindMethods() {
  bindMember(this, &ZRFrameManager::newBehaviorFromFile,
             {kNewMethod,
              "Read a behavior file and create an instance of it. A folder stands for "
              "its behavior.xar.",
              {{"xarPath", "path of the behavior file"},
               {"behaviorName", "name of the behavior, used in its log lines"}},
              "id",
              "the id of the new instance"});
  bindMember(this, &ZRFrameManager::completeBehavior,
             {"completeBehavior",
              "Run an instance on the calling thread; return when it has ended or was "
              "exited. A failing step is an error.",
              {{"id", "the instance id"}}});
  bindMember(this, &ZRFrameManager::exitBehavior,
             {"exitBehavior",
              "End the run of an instance promptly. Ignored for an unknown id.",
              {{"id", "the instance id"}}});
  bindMember(this, &ZRFrameManager::deleteBehavior,
             {"deleteBehavior",
              "Destroy an instance, exiting it first if it runs. Ignored for an unknown id.",
              {{"id", "the instance id"}}});
  bindMember(this, &ZRFrameManager::cleanBehaviors,
             {"cleanBehaviors",
              "Exit and destroy every instance that runs or has run. Instances that wait "
              "for their first run stay.",
              {}});
  bindMember(this, &ZRFrameManager::isBehaviorRunning,
             {"isBehaviorRunning",
              "Tell whether an instance is running. False for an unknown id.",
              {{"id", "the instance id"}},
              "running",
              "true while completeBehavior runs it"});
  bindMember(this, &ZRFrameManager::getBehaviorInstances,
             {"getBehaviorInstances",
              "List the ids of the instances, oldest first.",
              {},
              "ids",
              "the instance ids"});
}

std::string ZRFrameManager::newBehaviorFromFile(const std::string& xarPath,
                                                const std::string& behaviorName) {
  if (xarPath.empty()) {
    throw ZRError(getName(), kNewMethod, "the behavior file path is empty", __FILE__, __LINE__);
  }
  std::string path = xarPath;
  boost::system::error_code error;
  if (boost::filesystem::is_directory(path, error)) {
    path = (boost::filesystem::path(path) / kBehaviorFileName).string();
  }
  // Only behavior files are read: a remote caller must not learn anything about other
  // files of the robot from the errors a parse of them would give.
  if (boost::filesystem::path(path).filename() != kBehaviorFileName) {
    throw ZRError(getName(), kNewMethod,
                  "refused to read " + path + ": a behavior file is named " + kBehaviorFileName,
                  __FILE__, __LINE__);
  }
  // A named behavior's file is named after the behavior in every message: its path lies
  // in the robot's folders, which a remote caller of the behavior manager did not give
  // and should not learn.
  const std::string shownAs =
      behaviorName.empty() ? path : behaviorName + "/" + std::string(kBehaviorFileName);
  {
    std::lock_guard<std::mutex> lock(fInstancesMutex);
    refuseBeyondCount(fInstances.size());  // before the work of reading
  }
  std::unique_lock<std::mutex> oneAtATime(fLargeReadMutex, std::defer_lock);
  if (boost::filesystem::file_size(path, error) > kLargeFileBytes && !error) oneAtATime.lock();
  std::shared_ptr<const detail::BehaviorProgram> program =
      detail::loadBehaviorProgram(getName(), path, shownAs);
  if (oneAtATime.owns_lock()) oneAtATime.unlock();
  const std::size_t bytes = program->heldBytes();
  const std::size_t steps = program->steps.size();
  const std::string id = nextInstanceId();
  auto instance = std::make_shared<detail::BehaviorInstance>(
      id, behaviorName.empty() ? path : behaviorName, std::move(program));
  {
    std::lock_guard<std::mutex> lock(fInstancesMutex);
    refuseBeyondCount(fInstances.size());
    if (bytes > fMaxHeldBytes - std::min(fHeldBytes, fMaxHeldBytes)) {
      throw ZRError(getName(), kNewMethod,
                    "behavior file " + shownAs + " takes " + std::to_string(bytes) +
                        " bytes once read; with the " + std::to_string(fHeldBytes) +
                        " bytes of the other instances that is over the limit of " +
                        std::to_string(fMaxHeldBytes) +
                        " bytes (TUQVU_BEHAVIOR_MAX_BYTES); delete instances that are no "
                        "longer needed",
                    __FILE__, __LINE__);
    }
    fInstances.emplace(id, instance);
    fHeldBytes += bytes;
  }
  vu::log::write(vu::log::verbose, kCategory, kNewMethod,
                 "instance " + id + " of " + instance->name() + " from " + path + " (" +
                     std::to_string(steps) + " steps, " + std::to_string(bytes) + " bytes)");
  return id;
}

void ZRFrameManager::refuseBeyondCount(std::size_t instances) const {
  if (instances < fMaxInstances) return;
  throw ZRError(getName(), kNewMethod,
                "there are already " + std::to_string(instances) +
                    " behavior instances, the most this robot keeps "
                    "(TUQVU_BEHAVIOR_MAX_INSTANCES); delete instances that are no longer needed",
                __FILE__, __LINE__);
}

void ZRFrameManager::forget(const detail::BehaviorInstance& instance) {
  fHeldBytes -= std::min(fHeldBytes, instance.program().heldBytes());
}

ZRFrameManager::Instances::iterator ZRFrameManager::erase(Instances::iterator instance,
                                                          Remember remember) {
  forget(*instance->second);
  if (remember == Remember::DeletedBeforeRun && !instance->second->hasStarted()) {
    fDeletedBeforeRun.push_back(instance->first);
    if (fDeletedBeforeRun.size() > kRememberedDeletions) fDeletedBeforeRun.pop_front();
  }
  return fInstances.erase(instance);
}

std::size_t ZRFrameManager::heldBytes() {
  std::lock_guard<std::mutex> lock(fInstancesMutex);
  return fHeldBytes;
}

std::shared_ptr<detail::BehaviorInstance> ZRFrameManager::find(const std::string& id) {
  std::lock_guard<std::mutex> lock(fInstancesMutex);
  const auto found = fInstances.find(id);
  return found == fInstances.end() ? nullptr : found->second;
}

void ZRFrameManager::completeBehavior(const std::string& id) {
  std::shared_ptr<detail::BehaviorInstance> instance;
  {
    std::lock_guard<std::mutex> lock(fInstancesMutex);
    const auto found = fInstances.find(id);
    if (found != fInstances.end()) {
      instance = found->second;
    } else if (std::find(fDeletedBeforeRun.begin(), fDeletedBeforeRun.end(), id) !=
               fDeletedBeforeRun.end()) {
      return;  // deleted before it ran: exited
    }
  }
  if (!instance) {
    throw ZRError(getName(), "completeBehavior",
                  "there is no behavior instance with the id \"" + id + "\"", __FILE__, __LINE__);
  }
  instance->run(getName(), getParentBroker());
}

void ZRFrameManager::exitBehavior(const std::string& id) {
  if (const auto instance = find(id)) instance->requestExit();
}

void ZRFrameManager::deleteBehavior(const std::string& id) {
  std::shared_ptr<detail::BehaviorInstance> instance;
  {
    std::lock_guard<std::mutex> lock(fInstancesMutex);
    const auto found = fInstances.find(id);
    if (found == fInstances.end()) return;
    instance = found->second;
    erase(found, Remember::DeletedBeforeRun);
  }
  // A run in progress keeps the instance alive until it has returned. The request is
  // made even when no run is seen: a caller that found the instance just before it
  // was erased then ends before the first step.
  instance->requestExit();
}

void ZRFrameManager::cleanBehaviors() {
  // An instance made ready ahead of its run belongs to whoever loaded it and still
  // holds its id; dropping it would turn that owner's next run into an error.
  std::vector<std::shared_ptr<detail::BehaviorInstance>> dropped;
  {
    std::lock_guard<std::mutex> lock(fInstancesMutex);
    for (auto entry = fInstances.begin(); entry != fInstances.end();) {
      if (entry->second->isWaitingForFirstRun()) {
        ++entry;
      } else {
        dropped.push_back(entry->second);
        entry = erase(entry, Remember::Nothing);
      }
    }
  }
  for (const auto& instance : dropped) instance->requestExit();
}

bool ZRFrameManager::isBehaviorRunning(const std::string& id) {
  const auto instance = find(id);
  return instance && instance->isRunning();
}

std::vector<std::string> ZRFrameManager::getBehaviorInstances() {
  std::vector<std::string> ids;
  {
    std::lock_guard<std::mutex> lock(fInstancesMutex);
    for (const auto& entry : fInstances) ids.push_back(entry.first);
  }
  std::sort(ids.begin(), ids.end(),
            [](const std::string& a, const std::string& b) { return idOrder(a) < idOrder(b); });
  return ids;
}

}  // namespace ZR
