// ZRFileTransfer — the HTTP server through which the authoring application reads, writes
// and deletes files in the robot's behaviors tree. Constructing one binds port 15000 (or
// the next free port above it) and starts the listener thread; destroying it stops the
// listener. The module publishes the bound port through httpFileTransferPort().
//
//   ZR::ZRFileTransfer server;                  // throws ZR::ZRError if it cannot bind
//   int port = server.httpFileTransferPort();   // 15000 unless that port was taken
//
// This header deliberately includes nothing from gSOAP.
#pragma once

namespace ZR {

class ZRFileTransferPrivate;
class ZRMetrics;

class ZRFileTransfer {
public:
  // With `metrics`, its requests and bytes are counted there (label server="file-transfer").
  explicit ZRFileTransfer(ZRMetrics* metrics = nullptr);
  ~ZRFileTransfer();

  ZRFileTransfer(const ZRFileTransfer&) = delete;
  ZRFileTransfer& operator=(const ZRFileTransfer&) = delete;

  // The port really bound, which can differ from the preferred 15000; 0 when the
  // administrator switched the server off (ZRNetworkAccess::fileServer).
  int httpFileTransferPort();

private:
  ZRFileTransferPrivate* _p;
};

}  // namespace ZR
