#include "fixture.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <zr/proxies/zrmemoryproxy.h>
#include <zr/zrbinding.h>
#include <zr/zrtypes.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <fstream>

namespace bmtest {

namespace {
const char* const kMarkKey = "EventRecorder/Mark";
constexpr int kDeliveryTimeoutMs = 10000;
}  // namespace

std::vector<std::string> managerEventKeys() {
  return {"ZRBehaviorManager/BehaviorAdded", "ZRBehaviorManager/BehaviorUpdated",
          "ZRBehaviorManager/BehaviorRemoved", "BehaviorsRun"};
}

// ---- EventRecorder

EventRecorder::EventRecorder(boost::shared_ptr<ZR::ZRBroker> broker,
                             const std::vector<std::string>& keys)
    : ZR::ZRModule(broker, "EventRecorder") {
  ZR::bindCallable(*this,
                   {"onEvent",
                    "records an event",
                    {{"name", ZR::TypeCodeString},
                     {"value", ZR::TypeCodeValue},
                     {"message", ZR::TypeCodeString}}},
                   ([this](const ZR::ZRValue& args, ZR::ZRValue&) {
                     onEvent(args[0].toString(), args[1], args[2].toString());
                   }));
  ZR::ZRMemoryProxy memory(broker);
  for (const std::string& key : keys) {
    memory.subscribeToMicroEvent(key, getName(), "", "onEvent");
  }
  memory.subscribeToMicroEvent(kMarkKey, getName(), "", "onEvent");
}

EventRecorder::~EventRecorder() = default;

void EventRecorder::onEvent(const std::string& name, const ZR::ZRValue& value, const std::string&) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (name == kMarkKey) {
    ++fMarksSeen;
  } else {
    fEvents.emplace_back(name, value);
  }
  fChanged.notify_all();
}

std::vector<EventRecorder::Event> EventRecorder::drain() {
  const int mark = ++fMarksSent;
  ZR::ZRMemoryProxy(getParentBroker()).raiseMicroEvent(kMarkKey, ZR::ZRValue(mark));
  std::unique_lock<std::mutex> lock(fMutex);
  const bool delivered = fChanged.wait_for(lock, std::chrono::milliseconds(kDeliveryTimeoutMs),
                                           [&] { return fMarksSeen >= mark; });
  EXPECT_TRUE(delivered) << "memory notifications did not arrive";
  return fEvents;
}

std::vector<ZR::ZRValue> EventRecorder::valuesOf(const std::string& key) {
  std::vector<ZR::ZRValue> values;
  for (const Event& event : drain()) {
    if (event.first == key) values.push_back(event.second);
  }
  return values;
}

bool EventRecorder::waitFor(const std::function<bool(const Event&)>& match, int timeoutMs) {
  std::unique_lock<std::mutex> lock(fMutex);
  return fChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
    for (const Event& event : fEvents) {
      if (match(event)) return true;
    }
    return false;
  });
}

void EventRecorder::clear() {
  drain();
  std::lock_guard<std::mutex> lock(fMutex);
  fEvents.clear();
}

// ---- disk helpers

void writeFile(const fs::path& file, const std::string& content) {
  fs::create_directories(file.parent_path());
  std::ofstream out(file.string(), std::ios::binary);
  out << content;
  ASSERT_TRUE(out.good()) << file;
}

void makeBehavior(const fs::path& dir, const std::string& xar, const std::vector<std::string>& tags,
                  const std::string& type) {
  writeFile(dir / "behavior.xar", xar);
  std::string project = "<project>\n  <metadata key=\"Type\" value=\"" + type + "\"/>\n";
  for (const std::string& tag : tags) project += "  <tag>" + tag + "</tag>\n";
  writeFile(dir / "project.xml", project + "</project>\n");
}

bool setImmutable(const fs::path& dir, bool on) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return false;
  int flags = 0;
  bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  if (ok) {
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    ok = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  }
  ::close(fd);
  return ok;
}

void makeResource(const fs::path& dir, const std::string& type) {
  writeFile(dir / "project.xml",
            "<project><metadata key=\"Type\" value=\"" + type + "\"/></project>\n");
  writeFile(dir / "data.txt", "resource data\n");
}

// ---- ManagerTest

void ManagerTest::SetUp() {
  fBase = fs::temp_directory_path() / fs::unique_path("bmtest-%%%%-%%%%-%%%%");
  fHome = fBase / "home";
  fPrefix = fBase / "prefix";
  fs::create_directories(fHome);
  fs::create_directories(systemRoot());
  for (const auto& [name, value] : std::vector<std::pair<const char*, std::string>>{
           {"HOME", fHome.string()},
           {"TUQVU_SDK_PREFIX", fPrefix.string()},
           {"XDG_DATA_HOME", (fHome / "data").string()},
           {"TMPDIR", (fBase / "tmp").string()}}) {
    const char* old = std::getenv(name);
    fSavedEnv.emplace_back(name, old ? old : std::string("\x01unset"));
    setenv(name, value.c_str(), 1);
  }
  fs::create_directories(fBase / "tmp");
  logs = std::make_unique<LogCapture>();
  broker = ZR::ZRBroker::create("bmtest");
}

void ManagerTest::startPlatform(bool withMemory, bool withPreferences, bool withFrameManager) {
  if (withMemory) memory = std::make_unique<ZR::ZRMemory>(broker);
  if (withPreferences) preferences = std::make_unique<ZR::ZRPreferences>(broker);
  if (withFrameManager) frameManager = std::make_unique<ZR::ZRFrameManager>(broker);
  if (withMemory) events = std::make_unique<EventRecorder>(broker, managerEventKeys());
}

ZRBehaviorManager& ManagerTest::startManager() {
  manager = std::make_unique<ZRBehaviorManager>(broker, "ZRBehaviorManager",
                                                fHome.string() + "/.tuqvu/behaviors");
  return *manager;
}

void ManagerTest::stopManager() {
  manager.reset();
}

void ManagerTest::TearDown() {
  manager.reset();
  // The recorder must not go while the memory is still delivering to it.
  if (memory) memory->flushNotifications(kDeliveryTimeoutMs);
  events.reset();
  frameManager.reset();
  preferences.reset();
  memory.reset();
  broker.reset();
  logs.reset();
  for (const auto& [name, value] : fSavedEnv) {
    if (value == "\x01unset")
      unsetenv(name.c_str());
    else
      setenv(name.c_str(), value.c_str(), 1);
  }
  boost::system::error_code ignored;
  fs::remove_all(fBase, ignored);
}

}  // namespace bmtest
