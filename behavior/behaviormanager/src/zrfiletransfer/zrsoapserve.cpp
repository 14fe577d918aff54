// The dispatcher of one accepted connection. gSOAP reads each request and hands GET,
// PUT and DELETE to the hooks; the service has no SOAP operations, so anything else that
// reaches this loop (a POST or a SOAP request) is answered 405 and ends the connection,
// and so are OPTIONS, HEAD and PATCH (see zrrequestguard.h).
#include "zrhttphandlers.h"
#include "zrrequestguard.h"

namespace ZR {

int soap_serve(soap* connection, const detail::ServerLimits& limits,
               std::function<bool()> othersWaiting, const ZRFileServerMetrics* metrics) {
  detail::ConnectionGuard guard(connection, limits, std::move(othersWaiting), metrics);
  connection->max_keep_alive = limits.maxRequests;
  connection->keep_alive = connection->max_keep_alive < 0 ? -1 : connection->max_keep_alive + 1;
  do {
    if (connection->keep_alive > 0 && connection->max_keep_alive > 0) {
      --connection->keep_alive;
    }
    guard.beginRequest();
    if (soap_begin_serve(connection) != SOAP_OK) {
      const int error = connection->error;
      if (error >= SOAP_STOP && error < SOAP_POST) {
        continue;  // a hook answered (or chose not to)
      }
      if (error < SOAP_STOP) {
        return error;  // closed, timed out, unreadable, or answered by gSOAP itself
      }
    }
    // A request no hook serves; its body is unread, so the connection cannot go on.
    detail::sendMethodNotAllowed(connection);
    return SOAP_OK;
  } while (connection->keep_alive != 0);
  return SOAP_OK;
}

}  // namespace ZR
