// One connection the server counts as open. The count lives in a gauge of the broker's
// metrics; it goes up when the connection is accepted and down when the last session that
// had the connection lets it go, whichever sessions (TLS opening, HTTP, event stream,
// file API) it passed through on the way.
#pragma once

#include <zr/zrmetrics.h>

namespace tuqvu {
namespace broker {

class OpenConnection {
public:
  // Counts one more in `gauge`; null: counts nothing.
  explicit OpenConnection(ZR::ZRGauge* gauge = nullptr) noexcept;
  ~OpenConnection();

  OpenConnection(OpenConnection&& other) noexcept;
  OpenConnection& operator=(OpenConnection&& other) noexcept;
  OpenConnection(const OpenConnection&) = delete;
  OpenConnection& operator=(const OpenConnection&) = delete;

private:
  ZR::ZRGauge* fGauge;
};

}  // namespace broker
}  // namespace tuqvu
