// The operators' dashboard: static files installed with the broker under
// <prefix>/share/tuqvu/ui, served at /ui/. What the pages do, they do through /rpc,
// /events and /files/ like any other client; the broker only hands out the files.
//
//   GET /ui            301 to /ui/
//   GET /ui/           index.html of the folder
//   GET /ui/app.js     the file, opened beneath the folder (vu::beneath): no "..", no link
#pragma once

#include <tuqvu/broker/httptypes.h>

#include <string>

namespace tuqvu {
namespace broker {

// The folder the dashboard's files are installed in; "" when the installation has none.
std::string dashboardFolder();

// The answer to GET of `relative` (the decoded request path after "/ui/") from the
// files in `folder`: the file with its type and the dashboard's security headers, 404
// for anything missing, outside the folder, reached through a link or not a regular file.
Response dashboardFile(const std::string& folder, const std::string& relative);

// The Content-Type of a dashboard file, by its extension.
std::string dashboardContentType(const std::string& name);

}  // namespace broker
}  // namespace tuqvu
