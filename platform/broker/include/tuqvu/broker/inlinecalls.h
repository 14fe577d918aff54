// Which calls run on the I/O thread that read them. A call handed to a worker thread
// costs two thread hand-offs (there and back), which on a small machine cost more than
// most calls themselves. A call runs in place as long as another I/O thread stays free to
// serve every other connection, so that a call that blocks (a behavior run lasts as long
// as the behavior) holds up nothing else; once only one I/O thread is left free, calls go
// to the executor.
//
//   InlineCalls inlineCalls(3);                  // the server's I/O threads
//   if (InlineCalls::Slot slot = inlineCalls.tryEnter()) {
//     ...run the call on this thread; the thread is free again when `slot` goes
//   } else {
//     executor->submit(call);
//   }
#pragma once

#include <atomic>

namespace tuqvu {
namespace broker {

class InlineCalls {
public:
  // A claim on the calling I/O thread for one call; empty when none could be made.
  class Slot {
  public:
    Slot() = default;
    explicit Slot(std::atomic<int>* free) : fFree(free) {}
    Slot(Slot&& other) noexcept : fFree(other.fFree) { other.fFree = nullptr; }
    Slot& operator=(Slot&& other) noexcept;
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;
    ~Slot() { release(); }

    explicit operator bool() const { return fFree != nullptr; }
    void release();

  private:
    std::atomic<int>* fFree = nullptr;
  };

  explicit InlineCalls(int ioThreads) : fFree(ioThreads) {}

  // A slot when at least one other I/O thread would stay free.
  Slot tryEnter();
  int freeThreads() const { return fFree.load(); }

private:
  std::atomic<int> fFree;  // I/O threads not inside a call
};

}  // namespace broker
}  // namespace tuqvu
