// The request side of the file-transfer service: the gSOAP hooks for GET, PUT and
// DELETE, the dispatcher that drives them on one connection, the mapping of request
// paths to the file system, and the content-type table. All run on the listener thread.
//
//   GET    /behaviors/User/walk/behavior.xar    reads  <home>/.tuqvu/behaviors/walk/behavior.xar
//   PUT    /boxlibraries/a/b.txt                writes <home>/.tuqvu/boxlibraries/a/b.txt
//   DELETE /tmp/upload                          removes <tmp>/upload and all below it
//
// Replies use "\n" line ends and the "Server: TuqVu" header. A path that is not served
// (unmapped, "?eval", a ".." component, or a target outside its mapped root) gets no
// reply at all.
#pragma once

#include <stdsoap2.h>
#include <zr/zrfileservermetrics.h>

#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "zrserverlimits.h"

namespace ZR {

// The GET hook: 0 when a reply was sent, -1 (no reply, the exchange ends) otherwise.
int httpGet(soap* connection);

// Does the work of GET; false when the path is empty or not served (nothing was sent).
bool httpGetFile(soap* connection);

// The PUT hook: 0 after a reply ("ok", or 411 without a length), -1 without a reply.
int httpPut(soap* connection);

// The DELETE hook: 0 after the "ok" reply, -1 when the path is empty or not served.
int httpDel(soap* connection);

// Serves the requests of one accepted connection through the hooks above, held to the
// serving server's `limits`, and returns when the connection is finished (closed, timed
// out, not reusable, at its request limit, or idle while another client waits, which
// `othersWaiting` tells; empty: none is watched). Its requests and bytes are counted in
// `metrics` unless it is null.
int soap_serve(soap* connection, const detail::ServerLimits& limits,
               std::function<bool()> othersWaiting = {},
               const ZRFileServerMetrics* metrics = nullptr);

// Maps a relative request path to a file-system path; an empty result means the path
// is not served.
boost::filesystem::path translateHttp(const boost::filesystem::path& requestPath);

// Where a request path leads: the root directory of its mapping and the path below it,
// as the request named it ("" for the root itself). translateHttp() is root / relative.
struct MappedPath {
  boost::filesystem::path root;
  boost::filesystem::path relative;
  // Set for a path that is mapped but that no request may read or change (the data of
  // another application): the hooks answer 403 with this text.
  std::string refusal;
};

// The applications whose data folders are served below /share/<application>/: this
// system's own. Other programs of the same account keep their data to themselves.
bool isServedApplication(const std::string& application);

// Maps like translateHttp, keeping the root apart; false where translateHttp answers an
// empty path (and with the same log lines).
bool mapRequestPath(const boost::filesystem::path& requestPath, MappedPath* mapped);

// The components of a relative path, without "." and empty ones: "a/./b/" gives a, b.
std::vector<std::string> pathComponents(const boost::filesystem::path& relative);

// "<home>/.tuqvu/<name>", created with its parents when missing.
std::string behaviorsPath(const std::string& name);

// `s` with every occurrence of `from` replaced by `to` (inserted text is not rescanned).
std::string replaceSpecialChar(const std::string& s, const std::string& from,
                               const std::string& to);

// The process-wide content-type table: extension with its dot, lower case, to MIME type.
// fillContentTypeTable() (re)writes its rows; contentTypeFor() looks an extension up in
// any case and answers "application/octet-stream" for what the table does not know.
void fillContentTypeTable();
std::map<std::string, std::string> contentTypeTable();
std::string contentTypeFor(const std::string& extension);

}  // namespace ZR
