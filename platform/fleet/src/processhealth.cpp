#include <dirent.h>
#include <tuqvu/fleet/processhealth.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace tuqvu {
namespace fleet {

ProcessHealth processHealth() {
  ProcessHealth health;
  std::ifstream statm("/proc/self/statm");
  std::uint64_t size = 0, resident = 0;
  if (statm >> size >> resident) {
    health.residentBytes = resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  }
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Threads:", 0) == 0) health.threads = std::stoi(line.substr(8));
  }
  if (DIR* folder = ::opendir("/proc/self/fd")) {
    while (const dirent* entry = ::readdir(folder)) {
      if (entry->d_name[0] != '.') ++health.descriptors;
    }
    ::closedir(folder);
    --health.descriptors;  // the listing's own
  }
  return health;
}

}  // namespace fleet
}  // namespace tuqvu
