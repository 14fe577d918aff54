#include <tuqvu/broker/inlinecalls.h>

namespace tuqvu {
namespace broker {

InlineCalls::Slot& InlineCalls::Slot::operator=(Slot&& other) noexcept {
  if (this != &other) {
    release();
    fFree = other.fFree;
    other.fFree = nullptr;
  }
  return *this;
}

void InlineCalls::Slot::release() {
  if (fFree != nullptr) {
    fFree->fetch_add(1);
    fFree = nullptr;
  }
}

InlineCalls::Slot InlineCalls::tryEnter() {
  int free = fFree.load();
  while (free > 1) {
    if (fFree.compare_exchange_weak(free, free - 1)) return Slot(&fFree);
  }
  return Slot();
}

}  // namespace broker
}  // namespace tuqvu
