// ZRMetrics — the counters, gauges and histograms of one broker process, which the broker
// exposes at GET /metrics. A module registers what it counts once, when it is made, and
// keeps the reference it gets; counting is then one atomic operation on that series, with
// no lock and no allocation.
//
//   ZR::ZRCounter& installed = broker->metrics().counter(
//       "tuqvu_behavior_installs_total", "Behavior installs by outcome.",
//       {{"outcome", "installed"}});
//   installed.increment();
//
// A series lives as long as the registry, that is as long as the broker: a reference
// never dangles while the broker lives, and a module loaded again gets its series back
// with the counts they had. Registering the same name and labels again returns the same
// series; the type and the label names of a name are fixed by its first registration (its
// help text too: a later, different one is ignored).
//
// What a registry can be made to hold is bounded (kMaxFamilies, kMaxSeriesPerFamily and
// the lengths below): whoever decides the label values, the scrape stays small. Anything
// beyond the limits, or a name the exposition format does not allow, is a ZRError.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ZR {

// Label names and values, in the order the family's first registration gave the names.
using ZRMetricLabels = std::vector<std::pair<std::string, std::string>>;

// A count that only goes up.
class ZRCounter {
public:
  void increment(std::uint64_t by = 1) noexcept { fValue.fetch_add(by, std::memory_order_relaxed); }
  std::uint64_t value() const noexcept { return fValue.load(std::memory_order_relaxed); }

private:
  std::atomic<std::uint64_t> fValue{0};
};

// A value that goes up and down.
class ZRGauge {
public:
  void set(std::int64_t value) noexcept { fValue.store(value, std::memory_order_relaxed); }
  void add(std::int64_t by) noexcept { fValue.fetch_add(by, std::memory_order_relaxed); }
  std::int64_t value() const noexcept { return fValue.load(std::memory_order_relaxed); }

private:
  std::atomic<std::int64_t> fValue{0};
};

// Observations counted into buckets with fixed upper bounds (and the +Inf one), with
// their sum. Observing touches two atomics and a CAS loop on the sum; no lock.
class ZRHistogram {
public:
  // `upperBounds` ascending, finite; ZRError otherwise.
  explicit ZRHistogram(std::vector<double> upperBounds);

  // A NaN is not counted.
  void observe(double value) noexcept;

  struct Snapshot {
    std::vector<std::uint64_t> cumulative;  // one per upper bound, then +Inf
    std::uint64_t count = 0;                // equals the +Inf bucket
    double sum = 0;
  };
  // Read while others observe, the buckets and the count agree with each other; the sum
  // may already hold an observation the buckets do not yet show.
  Snapshot snapshot() const;
  const std::vector<double>& upperBounds() const { return fUpperBounds; }

private:
  const std::vector<double> fUpperBounds;
  // One count per bucket, not cumulative (so an observation touches one); the last is +Inf.
  std::unique_ptr<std::atomic<std::uint64_t>[]> fBuckets;
  std::atomic<double> fSum{0};
};

enum class ZRMetricType { Counter, Gauge, Histogram };

class ZRMetrics {
public:
  static constexpr std::size_t kMaxFamilies = 256;
  static constexpr std::size_t kMaxSeriesPerFamily = 2048;
  static constexpr std::size_t kMaxLabels = 8;
  static constexpr std::size_t kMaxNameBytes = 128;        // metric and label names
  static constexpr std::size_t kMaxLabelValueBytes = 256;  // bytes of one label value
  static constexpr std::size_t kMaxHelpBytes = 512;
  static constexpr std::size_t kMaxBuckets = 64;

  ZRMetrics();
  ~ZRMetrics();
  ZRMetrics(const ZRMetrics&) = delete;
  ZRMetrics& operator=(const ZRMetrics&) = delete;

  ZRCounter& counter(const std::string& name, const std::string& help,
                     const ZRMetricLabels& labels = {});
  ZRGauge& gauge(const std::string& name, const std::string& help,
                 const ZRMetricLabels& labels = {});
  // Every series of one name shares the upper bounds of its first registration.
  ZRHistogram& histogram(const std::string& name, const std::string& help,
                         const std::vector<double>& upperBounds, const ZRMetricLabels& labels = {});

  // The values of every series at one moment, for the exposition: families ordered by
  // name, series by their label values.
  struct SeriesValues {
    ZRMetricLabels labels;
    std::uint64_t counter = 0;
    std::int64_t gauge = 0;
    ZRHistogram::Snapshot histogram;
  };
  struct FamilyValues {
    std::string name;
    std::string help;
    ZRMetricType type = ZRMetricType::Counter;
    std::vector<double> upperBounds;  // histograms
    std::vector<SeriesValues> series;
  };
  std::vector<FamilyValues> snapshot() const;

  // Whether a text may be a metric name, or a label name, in the exposition format.
  static bool isValidMetricName(const std::string& name);
  static bool isValidLabelName(const std::string& name);

private:
  struct Family;
  // Finds or makes the family of `name`, checking what the registration says against it;
  // with fMutex held.
  Family& familyFor(const std::string& name, const std::string& help, ZRMetricType type,
                    const ZRMetricLabels& labels, const char* operation);
  // The label values as the series' key, checked against the family; with fMutex held.
  std::vector<std::string> seriesKey(const Family& family, const ZRMetricLabels& labels,
                                     const char* operation) const;

  // Guards fFamilies and every family's table of series (never the values: those are
  // atomics, counted without it). Held only while a series is found or made and while a
  // snapshot copies the values; nothing else is called with it held.
  mutable std::mutex fMutex;
  std::map<std::string, std::unique_ptr<Family>> fFamilies;
};

}  // namespace ZR
