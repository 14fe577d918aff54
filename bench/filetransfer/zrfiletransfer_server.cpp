// Runs one ZRFileTransfer until SIGINT or SIGTERM. Prints the bound port on the first
// line of its output, then "stopped after <ms> ms" once the destructor has returned.
// HOME, TMPDIR and TUQVU_SDK_PREFIX decide what it serves, as in the module.
#include <signal.h>
#include <zr/zrerror.h>
#include <zrfiletransfer/zrfiletransfer.h>

#include <chrono>
#include <cstdio>
#include <exception>

int main() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  // Blocked before the listener thread exists, so only sigwait below receives them.
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  try {
    auto* server = new ZR::ZRFileTransfer();
    std::printf("%d\n", server->httpFileTransferPort());
    std::fflush(stdout);
    int received = 0;
    sigwait(&stopSignals, &received);
    const auto before = std::chrono::steady_clock::now();
    delete server;
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - before);
    std::printf("stopped after %lld ms\n", static_cast<long long>(elapsed.count()));
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
}
