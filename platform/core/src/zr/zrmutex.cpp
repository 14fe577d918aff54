#include <zr/zrmutex.h>

namespace ZR {

boost::shared_ptr<ZRMutex> ZRMutex::createZRMutex() {
  return boost::shared_ptr<ZRMutex>(new ZRMutex());
}

void ZRMutex::lock() {
  if (fMutex.try_lock()) return;
  fWaiting.fetch_add(1);
  fMutex.lock();
  fWaiting.fetch_sub(1);
}
void ZRMutex::unlock() {
  fMutex.unlock();
}
bool ZRMutex::tryLock() {
  return fMutex.try_lock();
}

ZRCriticalSection::ZRCriticalSection(boost::shared_ptr<ZRMutex> mutex) : fMutex(std::move(mutex)) {
  fMutex->lock();
}

ZRCriticalSection::~ZRCriticalSection() {
  fMutex->unlock();
}

}  // namespace ZR
