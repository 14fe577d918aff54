// GET /metrics: the broker's ZRMetrics in the Prometheus text exposition format 0.0.4,
// written by prometheus-cpp's TextSerializer, with the figures of the process read from
// /proc/self at each scrape:
//
//   process_resident_memory_bytes, process_threads, process_open_fds,
//   process_start_time_seconds, tuqvu_uptime_seconds
//
//   std::string text = metricsText(broker->metrics());   // answered with kMetricsContentType
#pragma once

#include <zr/zrmetrics.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tuqvu {
namespace broker {

extern const char* const kMetricsContentType;  // text/plain; version=0.0.4; charset=utf-8

// What /proc says about this process; a figure that cannot be read is missing.
struct ProcessFigures {
  std::optional<std::int64_t> residentBytes;
  std::optional<std::int64_t> threads;
  std::optional<std::int64_t> openDescriptors;
  std::optional<std::int64_t> startTimeSeconds;  // since the epoch
  std::optional<std::int64_t> uptimeSeconds;
};
// `proc` is the folder of the process (/proc/self), `procRoot` that of the system (/proc).
ProcessFigures readProcessFigures(const std::string& proc = "/proc/self",
                                  const std::string& procRoot = "/proc");

// Sets the registry's process gauges to `figures` (registering them the first time).
void recordProcessFigures(ZR::ZRMetrics& registry, const ProcessFigures& figures);

// The text of a snapshot of `registry`.
std::string exposition(const ZR::ZRMetrics& registry);

// The answer of one scrape: the process figures read and recorded, then the exposition.
std::string metricsText(ZR::ZRMetrics& registry);

}  // namespace broker
}  // namespace tuqvu
