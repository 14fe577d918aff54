#include <tuqvu/broker/metricsexposition.h>
#include <tuqvu/fleet/processhealth.h>

namespace tuqvu {
namespace fleet {

// The same reading of /proc/self as the broker's GET /metrics, so the fleet's health and
// the scrape never disagree on what they count.
ProcessHealth processHealth() {
  const broker::ProcessFigures figures = broker::readProcessFigures();
  ProcessHealth health;
  health.residentBytes = static_cast<std::uint64_t>(figures.residentBytes.value_or(0));
  health.threads = static_cast<int>(figures.threads.value_or(0));
  health.descriptors = static_cast<int>(figures.openDescriptors.value_or(0));
  return health;
}

}  // namespace fleet
}  // namespace tuqvu
