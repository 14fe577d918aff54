#include <zr/zrerror.h>
#include <zr/zrmetrics.h>

#include <algorithm>
#include <cmath>

namespace ZR {

namespace {

const char* const kModule = "ZRMetrics";

[[noreturn]] void refuse(const char* operation, const std::string& why) {
  throw ZRError(kModule, operation, why, __FILE__, __LINE__);
}

bool isNameCharacter(char c, bool first, bool colonAllowed) {
  const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  if (letter || (colonAllowed && c == ':')) return true;
  return !first && c >= '0' && c <= '9';
}

bool isValidName(const std::string& name, bool colonAllowed) {
  if (name.empty() || name.size() > ZRMetrics::kMaxNameBytes) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (!isNameCharacter(name[i], i == 0, colonAllowed)) return false;
  }
  return true;
}

const char* typeName(ZRMetricType type) {
  switch (type) {
    case ZRMetricType::Counter: return "counter";
    case ZRMetricType::Gauge: return "gauge";
    case ZRMetricType::Histogram: return "histogram";
  }
  return "metric";
}

// The series of `key` in `table`, made with `arguments` the first time.
template <class Series, class... Arguments>
Series& madeOnce(std::map<std::vector<std::string>, std::unique_ptr<Series>>& table,
                 std::vector<std::string> key, const Arguments&... arguments) {
  std::unique_ptr<Series>& series = table[std::move(key)];
  if (!series) series = std::make_unique<Series>(arguments...);
  return *series;
}

}  // namespace

ZRHistogram::ZRHistogram(std::vector<double> upperBounds)
    : fUpperBounds(std::move(upperBounds)),
      fBuckets(new std::atomic<std::uint64_t>[fUpperBounds.size() + 1]) {
  for (std::size_t i = 0; i < fUpperBounds.size(); ++i) {
    if (!std::isfinite(fUpperBounds[i]) || (i > 0 && fUpperBounds[i] <= fUpperBounds[i - 1])) {
      refuse("histogram", "the upper bounds of a histogram must be finite and ascending");
    }
  }
  for (std::size_t i = 0; i <= fUpperBounds.size(); ++i) fBuckets[i].store(0);
}

void ZRHistogram::observe(double value) noexcept {
  if (std::isnan(value)) return;  // it would fall in no bucket and spoil the sum for good
  // The first bound at or above the value: Prometheus buckets are "less or equal".
  const std::size_t bucket = static_cast<std::size_t>(
      std::lower_bound(fUpperBounds.begin(), fUpperBounds.end(), value) - fUpperBounds.begin());
  fBuckets[bucket].fetch_add(1, std::memory_order_relaxed);
  double sum = fSum.load(std::memory_order_relaxed);
  while (!fSum.compare_exchange_weak(sum, sum + value, std::memory_order_relaxed)) {
  }
}

ZRHistogram::Snapshot ZRHistogram::snapshot() const {
  Snapshot snapshot;
  snapshot.cumulative.reserve(fUpperBounds.size() + 1);
  std::uint64_t running = 0;
  for (std::size_t i = 0; i <= fUpperBounds.size(); ++i) {
    running += fBuckets[i].load(std::memory_order_relaxed);
    snapshot.cumulative.push_back(running);
  }
  snapshot.count = running;
  snapshot.sum = fSum.load(std::memory_order_relaxed);
  return snapshot;
}

struct ZRMetrics::Family {
  std::string help;
  ZRMetricType type;
  std::vector<std::string> labelNames;
  std::vector<double> upperBounds;
  // Each series is made once and never moves: references to it stay valid.
  std::map<std::vector<std::string>, std::unique_ptr<ZRCounter>> counters;
  std::map<std::vector<std::string>, std::unique_ptr<ZRGauge>> gauges;
  std::map<std::vector<std::string>, std::unique_ptr<ZRHistogram>> histograms;

  std::size_t seriesCount() const { return counters.size() + gauges.size() + histograms.size(); }
};

ZRMetrics::ZRMetrics() = default;
ZRMetrics::~ZRMetrics() = default;

bool ZRMetrics::isValidMetricName(const std::string& name) {
  return isValidName(name, true);
}

bool ZRMetrics::isValidLabelName(const std::string& name) {
  // Names that begin with "__" are the scraper's own.
  return isValidName(name, false) && name.compare(0, 2, "__") != 0;
}

ZRMetrics::Family& ZRMetrics::familyFor(const std::string& name, const std::string& help,
                                        ZRMetricType type, const ZRMetricLabels& labels,
                                        const char* operation) {
  const auto found = fFamilies.find(name);
  if (found != fFamilies.end()) {
    Family& family = *found->second;
    if (family.type != type) {
      refuse(operation, name + " is registered as a " + typeName(family.type) + ", not as a " +
                            typeName(type));
    }
    return family;
  }
  if (!isValidMetricName(name)) {
    refuse(operation, "\"" + name.substr(0, kMaxNameBytes) + "\" is not a valid metric name");
  }
  if (help.size() > kMaxHelpBytes) {
    refuse(operation, "the help text of " + name + " is longer than " +
                          std::to_string(kMaxHelpBytes) + " bytes");
  }
  if (labels.size() > kMaxLabels) {
    refuse(operation, name + " has more than " + std::to_string(kMaxLabels) + " labels");
  }
  if (fFamilies.size() >= kMaxFamilies) {
    refuse(operation, "the registry holds " + std::to_string(kMaxFamilies) + " metrics already; " +
                          name + " is not added");
  }
  auto family = std::make_unique<Family>();
  family->help = help;
  family->type = type;
  for (const auto& label : labels) {
    const bool reserved = type == ZRMetricType::Histogram && label.first == "le";
    if (!isValidLabelName(label.first) || reserved) {
      refuse(operation, "\"" + label.first.substr(0, kMaxNameBytes) +
                            "\" is not a valid label name for " + name);
    }
    if (std::find(family->labelNames.begin(), family->labelNames.end(), label.first) !=
        family->labelNames.end()) {
      refuse(operation, name + " names the label " + label.first + " twice");
    }
    family->labelNames.push_back(label.first);
  }
  return *fFamilies.emplace(name, std::move(family)).first->second;
}

std::vector<std::string> ZRMetrics::seriesKey(const Family& family, const ZRMetricLabels& labels,
                                              const char* operation) const {
  bool sameNames = labels.size() == family.labelNames.size();
  for (std::size_t i = 0; sameNames && i < labels.size(); ++i) {
    sameNames = labels[i].first == family.labelNames[i];
  }
  if (!sameNames) {
    refuse(operation, "the labels differ from those the metric was registered with");
  }
  std::vector<std::string> key;
  key.reserve(labels.size());
  for (const auto& label : labels) {
    if (label.second.size() > kMaxLabelValueBytes) {
      refuse(operation, "the value of the label " + label.first + " is longer than " +
                            std::to_string(kMaxLabelValueBytes) + " bytes");
    }
    key.push_back(label.second);
  }
  if (family.seriesCount() >= kMaxSeriesPerFamily &&
      family.counters.count(key) + family.gauges.count(key) + family.histograms.count(key) == 0) {
    refuse(operation, "the metric holds " + std::to_string(kMaxSeriesPerFamily) +
                          " series already; no more are added");
  }
  return key;
}

ZRCounter& ZRMetrics::counter(const std::string& name, const std::string& help,
                              const ZRMetricLabels& labels) {
  std::lock_guard<std::mutex> lock(fMutex);
  Family& family = familyFor(name, help, ZRMetricType::Counter, labels, "counter");
  return madeOnce(family.counters, seriesKey(family, labels, "counter"));
}

ZRGauge& ZRMetrics::gauge(const std::string& name, const std::string& help,
                          const ZRMetricLabels& labels) {
  std::lock_guard<std::mutex> lock(fMutex);
  Family& family = familyFor(name, help, ZRMetricType::Gauge, labels, "gauge");
  return madeOnce(family.gauges, seriesKey(family, labels, "gauge"));
}

ZRHistogram& ZRMetrics::histogram(const std::string& name, const std::string& help,
                                  const std::vector<double>& upperBounds,
                                  const ZRMetricLabels& labels) {
  if (upperBounds.size() > kMaxBuckets) {
    refuse("histogram", name + " has more than " + std::to_string(kMaxBuckets) + " buckets");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  const bool known = fFamilies.count(name) != 0;
  Family& family = familyFor(name, help, ZRMetricType::Histogram, labels, "histogram");
  if (!known) {
    try {
      family.upperBounds = ZRHistogram(upperBounds).upperBounds();  // checks them
    } catch (...) {
      fFamilies.erase(name);
      throw;
    }
  } else if (family.upperBounds != upperBounds) {
    refuse("histogram", name + " is registered with other bucket bounds");
  }
  return madeOnce(family.histograms, seriesKey(family, labels, "histogram"), family.upperBounds);
}

std::vector<ZRMetrics::FamilyValues> ZRMetrics::snapshot() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<FamilyValues> families;
  families.reserve(fFamilies.size());
  for (const auto& entry : fFamilies) {
    const Family& family = *entry.second;
    FamilyValues values;
    values.name = entry.first;
    values.help = family.help;
    values.type = family.type;
    values.upperBounds = family.upperBounds;
    const auto labelsOf = [&family](const std::vector<std::string>& key) {
      ZRMetricLabels labels;
      for (std::size_t i = 0; i < key.size(); ++i)
        labels.emplace_back(family.labelNames[i], key[i]);
      return labels;
    };
    for (const auto& series : family.counters) {
      values.series.push_back({labelsOf(series.first), series.second->value(), 0, {}});
    }
    for (const auto& series : family.gauges) {
      values.series.push_back({labelsOf(series.first), 0, series.second->value(), {}});
    }
    for (const auto& series : family.histograms) {
      values.series.push_back({labelsOf(series.first), 0, 0, series.second->snapshot()});
    }
    families.push_back(std::move(values));
  }
  return families;
}

}  // namespace ZR
