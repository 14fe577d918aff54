#include <tuqvu/broker/openconnection.h>

#include <utility>

namespace tuqvu {
namespace broker {

OpenConnection::OpenConnection(ZR::ZRGauge* gauge) noexcept : fGauge(gauge) {
  if (fGauge != nullptr) fGauge->add(1);
}

OpenConnection::~OpenConnection() {
  if (fGauge != nullptr) fGauge->add(-1);
}

OpenConnection::OpenConnection(OpenConnection&& other) noexcept
    : fGauge(std::exchange(other.fGauge, nullptr)) {}

OpenConnection& OpenConnection::operator=(OpenConnection&& other) noexcept {
  if (this != &other) {
    if (fGauge != nullptr) fGauge->add(-1);
    fGauge = std::exchange(other.fGauge, nullptr);
  }
  return *this;
}

}  // namespace broker
}  // namespace tuqvu
