#include <zr/zrmutex.h>

namespace ZR {

boost::shared_ptr<ZRMutex> ZRMutex::createZRMutex() {
  return boost::shared_ptr<ZRMutex>(new ZRMutex());
}

void ZRMutex::lock() {
  fMutex.lock();
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
