// What every connection of the server shares: the call dispatcher, the threads calls run
// on, the event hub, and the count of answers still owed to clients.
#pragma once

#include <tuqvu/broker/calladmission.h>
#include <tuqvu/broker/callexecutor.h>
#include <tuqvu/broker/iolanes.h>
#include <tuqvu/broker/localclient.h>
#include <tuqvu/broker/recentlog.h>
#include <tuqvu/broker/rpcdispatcher.h>
#include <tuqvu/broker/ssehub.h>
#include <tuqvu/broker/tlscredentials.h>
#include <zr/zrfilefolders.h>
#include <zr/zrfileservermetrics.h>
#include <zr/zrmetrics.h>
#include <zr/zrnetworkaccess.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace tuqvu {
namespace broker {

struct ServerContext {
  std::shared_ptr<const RpcDispatcher> rpc;
  std::shared_ptr<CallExecutor> executor;
  // The I/O lanes, which make calls on the thread that read them while they can; null:
  // every call goes to the executor. Set and owned by the HttpServer: not shared, because
  // the lanes' pending handlers hold sessions that hold this context, and the lanes must
  // go with the server to release them.
  IoLanes* lanes = nullptr;
  // How many calls run at once, per client and in all; null: no limit.
  std::shared_ptr<CallAdmission> admission;
  // Names the local program behind a loopback connection, for the admission; null: each
  // connection looks it up on its own (localClientName).
  std::shared_ptr<LocalClientNames> localClients;
  std::shared_ptr<SseHub> hub;
  // The folders of the file API as they are now (a module may publish or withdraw them
  // at any time); unset or null: no file is served.
  std::function<std::shared_ptr<const ZR::ZRFileFolders>()> fileFolders;
  // The file API's requests and bytes in the broker's metrics; null: not counted.
  std::shared_ptr<const ZR::ZRFileServerMetrics> fileMetrics;
  // Connections open now, in the broker's metrics (which outlive the server); null: not
  // counted.
  ZR::ZRGauge* openConnections = nullptr;
  // The latest warnings and errors, answered at GET /log; null: no /log.
  std::shared_ptr<const RecentLog> recentLog;
  // Calls made whose answer is not yet written (or dropped).
  std::atomic<int> pendingAnswers{0};
  // Set when the broker shuts down: new calls are answered 503 and not made, while the
  // modules themselves may still call one another.
  std::atomic<bool> refusingCalls{false};
  // The certificate of the port's HTTPS; null: the port speaks plain HTTP only.
  std::shared_ptr<TlsCredentials> tls;
  // With tls set: whether peers other than the robot itself may still speak plain HTTP
  // (--allow-plain-http).
  bool plainHttpBeyondLoopback = false;
  // Who may reach the port: the process's network access as it was when the server
  // started (the daemon sets it once, before any server binds). Read by every request, so
  // kept here rather than asked of the process-wide settings each time.
  ZR::ZRNetworkAccess access;
  // The value of the session cookie handed to clients that presented the secret; made
  // at start-up, never the secret itself.
  std::string sessionToken;
};

}  // namespace broker
}  // namespace tuqvu
