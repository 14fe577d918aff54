// The behavior manager's test bench: a broker with the real memory, preferences and
// frame-manager modules, a temporary home and installation prefix, a log capture, and
// a module that records memory events the way a remote subscriber receives them.
#pragma once

#include <behaviormanager/behaviormanager.h>
#include <common/logcapture.h>
#include <gtest/gtest.h>
#include <vu/log.h>
#include <zr/modules/zrframemanager.h>
#include <zr/modules/zrmemory.h>
#include <zr/modules/zrpreferences.h>
#include <zr/zrbroker.h>
#include <zr/zrmodule.h>

#include <boost/filesystem.hpp>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace bmtest {

namespace fs = boost::filesystem;
using ZR::BehaviorManager::ZRBehaviorManager;

using tuqvutest::LogCapture;

// A module that subscribes to memory events and records them in delivery order.
class EventRecorder : public ZR::ZRModule {
public:
  EventRecorder(boost::shared_ptr<ZR::ZRBroker> broker, const std::vector<std::string>& keys);
  ~EventRecorder() override;

  using Event = std::pair<std::string, ZR::ZRValue>;
  // Waits until every event raised before this call has been delivered, then returns all.
  std::vector<Event> drain();
  // Events of one key, after drain().
  std::vector<ZR::ZRValue> valuesOf(const std::string& key);
  // Waits for an event matching the predicate; false on time-out.
  bool waitFor(const std::function<bool(const Event&)>& match, int timeoutMs);
  void clear();

private:
  void onEvent(const std::string& name, const ZR::ZRValue& value, const std::string& message);

  std::mutex fMutex;  // guards fEvents and fMarksSeen
  std::condition_variable fChanged;
  std::vector<Event> fEvents;
  int fMarksSeen = 0;
  int fMarksSent = 0;  // only used by the test thread
};

// Writes a behavior directory: behavior.xar plus an optional project.xml.
void makeBehavior(const fs::path& dir, const std::string& xar = "<behavior/>",
                  const std::vector<std::string>& tags = {}, const std::string& type = "Behavior");
// Writes a resource directory (project.xml with Type = type, no behavior.xar).
void makeResource(const fs::path& dir, const std::string& type = "Resources");
// Sets or clears the immutable attribute of a directory; false where the file system or
// the process does not allow it.
bool setImmutable(const fs::path& dir, bool on);
void writeFile(const fs::path& file, const std::string& content);

// Base fixture. Each test gets a fresh home, prefix and broker; the manager is built by
// startManager() so tests can prepare the disk or swap a platform module first.
class ManagerTest : public ::testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  // Registers the real platform modules (each can be skipped to put a test module in).
  void startPlatform(bool memory = true, bool preferences = true, bool frameManager = true);
  ZRBehaviorManager& startManager();
  void stopManager();

  fs::path home() const { return fHome; }
  fs::path userRoot() const { return fHome / ".tuqvu" / "behaviors"; }
  fs::path systemRoot() const { return fPrefix / "share" / "tuqvu" / "behaviors"; }
  // A folder of the served user data, where clients upload what they install.
  fs::path uploads() const { return fHome / "data" / "tuqvu" / "uploads"; }

  boost::shared_ptr<ZR::ZRBroker> broker;
  std::unique_ptr<ZR::ZRMemory> memory;
  std::unique_ptr<ZR::ZRPreferences> preferences;
  std::unique_ptr<ZR::ZRFrameManager> frameManager;
  std::unique_ptr<EventRecorder> events;
  std::unique_ptr<ZRBehaviorManager> manager;
  std::unique_ptr<LogCapture> logs;

private:
  fs::path fBase;
  fs::path fHome;
  fs::path fPrefix;
  std::vector<std::pair<std::string, std::string>> fSavedEnv;
};

// The keys the recorder listens to by default.
std::vector<std::string> managerEventKeys();

}  // namespace bmtest
