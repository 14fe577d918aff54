// This process's resident memory, threads and open descriptors, from /proc/self as
// GET /metrics reads them (tuqvu/broker/metricsexposition.h).
#pragma once

#include <cstdint>

namespace tuqvu {
namespace fleet {

struct ProcessHealth {
  std::uint64_t residentBytes = 0;
  int threads = 0;
  int descriptors = 0;
};

// Zeros for what cannot be read.
ProcessHealth processHealth();

}  // namespace fleet
}  // namespace tuqvu
