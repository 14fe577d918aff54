// DELETE: removes the mapped file or directory tree and answers "ok", also when nothing
// was there or the removal failed (the failure is logged).
#include <zrfiletransfer/zrhttphandlers.h>

#include <boost/filesystem/operations.hpp>

#include <vu/log.h>

#include "zrhttpreply.h"

namespace fs = boost::filesystem;

namespace ZR {

int httpDel(soap* connection) {
  if (detail::refusedWithoutSecret(connection)) {
    return 0;
  }
  const fs::path relative = detail::relativeRequestPath(connection, true);
  if (relative.empty()) {
    return -1;
  }
  const fs::path target = translateHttp(relative);
  if (target.empty()) {
    return -1;
  }

  bool exists = false;
  try {
    exists = fs::exists(fs::status(target));
  } catch (const fs::filesystem_error& e) {
    vu::log::write(vu::log::warning, detail::kNetworkLog, "httpDel",
                   std::string("Delete file error: ") + e.what());
  }
  if (exists) {
    try {
      fs::remove_all(target);
    } catch (const fs::filesystem_error& e) {
      vu::log::write(vu::log::warning, detail::kNetworkLog, "httpDel",
                     std::string("Removing path failed: ") + e.what());
    }
  }

  detail::sendNow(connection, detail::statusLine(connection, "200 OK") +
                                  "Server: TuqVu\n"
                                  "Content-Length: 3\n"
                                  "Content-Type: text/plain\n"
                                  "Connection: keep-alive\n"
                                  "\n"
                                  "ok\n");
  return 0;
}

}  // namespace ZR
