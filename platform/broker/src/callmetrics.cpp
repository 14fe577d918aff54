#include <tuqvu/broker/callmetrics.h>
#include <vu/log.h>
#include <zr/zrerror.h>

#include <cstddef>

namespace tuqvu {
namespace broker {

namespace {

const char* const kCalls = "tuqvu_rpc_calls_total";
const char* const kCallsHelp = "Remote calls (JSON-RPC and ?eval=) by method and outcome.";
const char* const kDuration = "tuqvu_rpc_call_duration_seconds";
const char* const kDurationHelp = "Time remote calls that were made took, by method.";

// Where module.name is, or would go, in a table ordered by module, then name.
template <class Table>
std::size_t positionIn(const Table& table, const std::string& module, const std::string& name) {
  std::size_t low = 0;
  std::size_t high = table.size();
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    const int byModule = table[middle]->module.compare(module);
    if (byModule < 0 || (byModule == 0 && table[middle]->name.compare(name) < 0)) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

}  // namespace

const std::vector<double>& CallMetrics::durationBounds() {
  // From a read of memory on an idle I/O thread (tens of microseconds) to runs of
  // behaviors, which hold their call for as long as they run.
  static const std::vector<double> bounds = {0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005,
                                             0.01,   0.025,   0.05,   0.1,   0.25,   0.5,
                                             1,      2.5,     5,      10,    30,     60};
  return bounds;
}

CallMetrics::CallMetrics(ZR::ZRMetrics& registry) : fRegistry(registry) {
  const char* const name = "tuqvu_rpc_rejected_total";
  const char* const help =
      "Remote calls refused before any method was chosen: a method no module has, a request "
      "that is not one, or too many calls running.";
  fRejected[static_cast<std::size_t>(Rejection::MethodNotFound)] =
      &registry.counter(name, help, {{"reason", "method_not_found"}});
  fRejected[static_cast<std::size_t>(Rejection::InvalidRequest)] =
      &registry.counter(name, help, {{"reason", "invalid_request"}});
  fRejected[static_cast<std::size_t>(Rejection::TooManyCalls)] =
      &registry.counter(name, help, {{"reason", "too_many_calls"}});
  fTables.push_back(std::make_unique<const Table>());
  fTable.store(fTables.back().get(), std::memory_order_release);
}

CallMetrics::~CallMetrics() = default;

const CallMetrics::Entry* CallMetrics::find(const Table& table, const std::string& module,
                                            const std::string& name) {
  const std::size_t at = positionIn(table, module, name);
  if (at == table.size() || table[at]->module != module || table[at]->name != name) return nullptr;
  return table[at];
}

const CallMetrics::Method* CallMetrics::method(const std::string& module, const std::string& name) {
  // Acquire: the entries the table points to were made before it was published.
  if (const Entry* entry = find(*fTable.load(std::memory_order_acquire), module, name)) {
    return &entry->series;
  }
  return add(module, name);
}

const CallMetrics::Method* CallMetrics::add(const std::string& module, const std::string& name) {
  std::lock_guard<std::mutex> lock(fAddMutex);
  const Table& current = *fTable.load(std::memory_order_relaxed);
  if (const Entry* entry = find(current, module, name)) return &entry->series;  // added meanwhile
  if (current.size() >= kMaxMethods) {
    if (!fFullLogged) {
      fFullLogged = true;
      vu::log::write(vu::log::warning, "tuqvu.metrics", "calls",
                     "calls of more than " + std::to_string(kMaxMethods) +
                         " methods are not counted by method");
    }
    return nullptr;
  }
  Method series;
  const std::string label = module + "." + name;
  try {
    series.ok = &fRegistry.counter(kCalls, kCallsHelp, {{"method", label}, {"outcome", "ok"}});
    series.error =
        &fRegistry.counter(kCalls, kCallsHelp, {{"method", label}, {"outcome", "error"}});
    series.refused =
        &fRegistry.counter(kCalls, kCallsHelp, {{"method", label}, {"outcome", "refused"}});
    series.duration =
        &fRegistry.histogram(kDuration, kDurationHelp, durationBounds(), {{"method", label}});
  } catch (const ZR::ZRError& error) {
    vu::log::write(vu::log::warning, "tuqvu.metrics", "calls",
                   "the calls of " + label + " are not counted: " + error.description());
    return nullptr;
  }
  fEntries.push_back(Entry{module, name, series});
  auto next = std::make_unique<Table>(current);
  const Entry* added = &fEntries.back();
  next->insert(next->begin() + static_cast<std::ptrdiff_t>(positionIn(*next, module, name)), added);
  fTables.push_back(std::move(next));
  fTable.store(fTables.back().get(), std::memory_order_release);
  return &added->series;
}

}  // namespace broker
}  // namespace tuqvu
