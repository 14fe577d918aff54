#include <dirent.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>
#include <tuqvu/broker/metricsexposition.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tuqvu {
namespace broker {

const char* const kMetricsContentType = "text/plain; version=0.0.4; charset=utf-8";

namespace {

// The first line of a small /proc file; empty when it cannot be read.
std::string firstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::optional<std::int64_t> bootTimeSeconds(const std::string& procRoot) {
  std::ifstream file(procRoot + "/stat");
  std::string line;
  while (std::getline(file, line)) {
    if (line.compare(0, 6, "btime ") == 0) return std::strtoll(line.c_str() + 6, nullptr, 10);
  }
  return std::nullopt;
}

std::optional<std::int64_t> openDescriptors(const std::string& proc) {
  DIR* folder = ::opendir((proc + "/fd").c_str());
  if (folder == nullptr) return std::nullopt;
  // The listing holds the descriptor that reads it; it is not one of the process's own.
  const std::string own = std::to_string(::dirfd(folder));
  std::int64_t count = 0;
  while (const dirent* entry = ::readdir(folder)) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && name != own) ++count;
  }
  ::closedir(folder);
  return count;
}

// The format's escapes of a help text. prometheus-cpp 1.0 writes help texts as they are
// (label values it escapes), so a newline in one would end the line early.
std::string escapedHelp(const std::string& help) {
  std::string escaped;
  escaped.reserve(help.size());
  for (const char c : help) {
    if (c == '\\') {
      escaped += "\\\\";
    } else if (c == '\n') {
      escaped += "\\n";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

prometheus::MetricType typeOf(ZR::ZRMetricType type) {
  switch (type) {
    case ZR::ZRMetricType::Counter: return prometheus::MetricType::Counter;
    case ZR::ZRMetricType::Gauge: return prometheus::MetricType::Gauge;
    case ZR::ZRMetricType::Histogram: return prometheus::MetricType::Histogram;
  }
  return prometheus::MetricType::Untyped;
}

}  // namespace

ProcessFigures readProcessFigures(const std::string& proc, const std::string& procRoot) {
  ProcessFigures figures;
  figures.openDescriptors = openDescriptors(proc);

  // The command name in parentheses may hold spaces and parentheses itself: the fields
  // are counted from the last ')'. After it come field 3 (state) onwards.
  const std::string stat = firstLine(proc + "/stat");
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos) return figures;
  std::istringstream fields(stat.substr(close + 1));
  std::string field;
  const long pageBytes = ::sysconf(_SC_PAGESIZE);
  const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  for (int number = 3; fields >> field; ++number) {
    if (number == 20) figures.threads = std::strtoll(field.c_str(), nullptr, 10);
    if (number == 22 && ticksPerSecond > 0) {
      const double startedAfterBoot = std::strtod(field.c_str(), nullptr) / ticksPerSecond;
      if (const std::optional<std::int64_t> boot = bootTimeSeconds(procRoot)) {
        figures.startTimeSeconds = *boot + static_cast<std::int64_t>(startedAfterBoot);
      }
      const std::string uptime = firstLine(procRoot + "/uptime");
      if (!uptime.empty()) {
        const double upFor = std::strtod(uptime.c_str(), nullptr) - startedAfterBoot;
        figures.uptimeSeconds = upFor > 0 ? static_cast<std::int64_t>(upFor) : 0;
      }
    }
    if (number == 24 && pageBytes > 0) {
      figures.residentBytes = std::strtoll(field.c_str(), nullptr, 10) * pageBytes;
      break;
    }
  }
  return figures;
}

void recordProcessFigures(ZR::ZRMetrics& registry, const ProcessFigures& figures) {
  const auto record = [&registry](const char* name, const char* help,
                                  const std::optional<std::int64_t>& value) {
    if (value) registry.gauge(name, help).set(*value);
  };
  record("process_resident_memory_bytes", "Resident memory of the broker process, in bytes.",
         figures.residentBytes);
  record("process_threads", "Threads of the broker process.", figures.threads);
  record("process_open_fds", "Open file descriptors of the broker process.",
         figures.openDescriptors);
  record("process_start_time_seconds",
         "When the broker process started, in seconds since the epoch.", figures.startTimeSeconds);
  record("tuqvu_uptime_seconds", "How long the broker process has run, in seconds.",
         figures.uptimeSeconds);
}

std::string exposition(const ZR::ZRMetrics& registry) {
  std::vector<prometheus::MetricFamily> families;
  for (const ZR::ZRMetrics::FamilyValues& values : registry.snapshot()) {
    prometheus::MetricFamily family;
    family.name = values.name;
    family.help = escapedHelp(values.help);
    family.type = typeOf(values.type);
    for (const ZR::ZRMetrics::SeriesValues& series : values.series) {
      prometheus::ClientMetric metric;
      for (const auto& label : series.labels) metric.label.push_back({label.first, label.second});
      switch (values.type) {
        case ZR::ZRMetricType::Counter:
          metric.counter.value = static_cast<double>(series.counter);
          break;
        case ZR::ZRMetricType::Gauge: metric.gauge.value = static_cast<double>(series.gauge); break;
        case ZR::ZRMetricType::Histogram:
          metric.histogram.sample_count = series.histogram.count;
          metric.histogram.sample_sum = series.histogram.sum;
          // The serializer writes the +Inf bucket from sample_count itself.
          for (std::size_t i = 0; i < values.upperBounds.size(); ++i) {
            metric.histogram.bucket.push_back(
                {series.histogram.cumulative[i], values.upperBounds[i]});
          }
          break;
      }
      family.metric.push_back(std::move(metric));
    }
    families.push_back(std::move(family));
  }
  return prometheus::TextSerializer().Serialize(families);
}

std::string metricsText(ZR::ZRMetrics& registry) {
  recordProcessFigures(registry, readProcessFigures());
  return exposition(registry);
}

}  // namespace broker
}  // namespace tuqvu
