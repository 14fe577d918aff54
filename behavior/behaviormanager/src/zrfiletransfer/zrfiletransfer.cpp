#include <vu/os.h>
#include <zr/zrnetworkaccess.h>
#include <zrfiletransfer/zrfiletransfer.h>
#include <zrfiletransfer/zrhttphandlers.h>

#include "zrfiletransferprivate.h"

namespace ZR {
namespace {

constexpr int kPreferredPort = 15000;
// Pause between binding and serving.
constexpr unsigned int kStartDelayMs = 400;

}  // namespace

ZRFileTransfer::ZRFileTransfer() : _p(new ZRFileTransferPrivate) {
  try {
    // The address the broker listens on (loopback unless the administrator opened it).
    _p->newServer(networkAccess().bindAddress, kPreferredPort);
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
