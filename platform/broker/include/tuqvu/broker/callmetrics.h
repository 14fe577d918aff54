// The counts of the remote calls (JSON-RPC and ?eval=), kept in the broker's ZRMetrics:
//
//   tuqvu_rpc_calls_total{method="Module.method",outcome="ok|error|refused"}
//   tuqvu_rpc_call_duration_seconds{method="Module.method"}     (calls that were made)
//   tuqvu_rpc_rejected_total{reason="method_not_found|invalid_request|too_many_calls"}
//
// A method gets its series the first time it is counted, and only a method that exists
// does: a call of a name no module has is counted once, as method_not_found, so clients
// cannot add series by making names up.
//
// Counting is on every call's path, so it is kept to a lookup without a lock and a few
// atomic increments: the methods counted so far are in a sorted table that is replaced,
// never changed, when a method is added (once per method in the life of the broker).
//
//   CallMetrics calls(broker->metrics());
//   if (const CallMetrics::Method* m = calls.method("ZRMemory", "getData")) m->ok->increment();
#pragma once

#include <zr/zrmetrics.h>

#include <array>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

class CallMetrics {
public:
  // At most this many methods get series (three counters each, within the registry's
  // kMaxSeriesPerFamily); any beyond are not counted, and that is logged once.
  static constexpr std::size_t kMaxMethods = 600;

  enum class Rejection { MethodNotFound, InvalidRequest, TooManyCalls };

  // The series of one method.
  struct Method {
    ZR::ZRCounter* ok = nullptr;
    ZR::ZRCounter* error = nullptr;    // the method threw
    ZR::ZRCounter* refused = nullptr;  // not made: the wrong number or kind of arguments
    ZR::ZRHistogram* duration = nullptr;
  };

  // The upper bounds of the duration histogram, in seconds.
  static const std::vector<double>& durationBounds();

  explicit CallMetrics(ZR::ZRMetrics& registry);
  ~CallMetrics();
  CallMetrics(const CallMetrics&) = delete;
  CallMetrics& operator=(const CallMetrics&) = delete;

  // The series of module.method, made the first time; the caller vouches that the method
  // exists. Null when no more methods may be added or the registry refused the series.
  const Method* method(const std::string& module, const std::string& name);

  void rejected(Rejection reason) const {
    fRejected[static_cast<std::size_t>(reason)]->increment();
  }

private:
  struct Entry {
    std::string module;
    std::string name;
    Method series;
  };
  using Table = std::vector<const Entry*>;  // ordered by module, then name

  static const Entry* find(const Table& table, const std::string& module, const std::string& name);
  const Method* add(const std::string& module, const std::string& name);

  ZR::ZRMetrics& fRegistry;
  std::array<ZR::ZRCounter*, 3> fRejected{};
  // The table callers read; replaced whole, with a release store, when a method is added.
  std::atomic<const Table*> fTable;
  // Guards fEntries, fTables, fFullLogged and the replacement of fTable; taken only when a
  // method is counted for the first time (or is one too many). The registry's own lock is
  // taken inside it, and nothing else.
  std::mutex fAddMutex;
  std::deque<Entry> fEntries;  // never moved: tables point into it
  // Every table made, kept until the end: a caller may still read one that was replaced.
  // They hold pointers only, and one is made per method.
  std::vector<std::unique_ptr<const Table>> fTables;
  bool fFullLogged = false;
};

}  // namespace broker
}  // namespace tuqvu
