#include <vu/log.h>
#include <vu/os.h>
#include <zr/zrnetworkaccess.h>
#include <zrfiletransfer/zrfiletransfer.h>

#include "zrfiletransferprivate.h"
#include "zrhttphandlers.h"

namespace ZR {
namespace {

constexpr int kPreferredPort = 15000;
// Pause between binding and serving.
constexpr unsigned int kStartDelayMs = 400;

}  // namespace

ZRFileTransfer::ZRFileTransfer(ZRMetrics* metrics)
    : _p(new ZRFileTransferPrivate(
          metrics ? std::make_unique<const ZRFileServerMetrics>(*metrics, "file-transfer")
                  : nullptr)) {
  const ZRNetworkAccess access = networkAccess();
  if (!access.fileServer) {
    vu::log::write(vu::log::info, "core.common.network", "ZRFileTransfer",
                   "the file-transfer server is switched off (--no-file-server)");
    return;  // no port: httpFileTransferPort() is 0
  }
  try {
    // The address the broker listens on (loopback unless the administrator opened it).
    _p->newServer(access.bindAddress, kPreferredPort);
  } catch (...) {
    delete _p;
    throw;
  }
  // Filled before the listener runs, so no request ever sees a partial table.
  fillContentTypeTable();
  vu::os::msleep(kStartDelayMs);
  _p->start();
}

ZRFileTransfer::~ZRFileTransfer() {
  delete _p;
}

int ZRFileTransfer::httpFileTransferPort() {
  return _p->fPort;
}

}  // namespace ZR
