#include <sys/stat.h>
#include <tuqvu/broker/dashboard.h>
#include <unistd.h>
#include <vu/beneath.h>
#include <vu/path.h>

#include <cerrno>
#include <vector>

namespace tuqvu {
namespace broker {
namespace {

// The dashboard's files are a page, its scripts, styles and icons: anything larger is
// not one of them.
constexpr off_t kMaxFileBytes = 4 * 1024 * 1024;

Response notFound(const std::string& relative) {
  return textResponse(http::status::not_found, "no such file of the dashboard: " + relative);
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

std::string dashboardFolder() {
  return vu::path::findData("tuqvu", "ui");
}

std::string dashboardContentType(const std::string& name) {
  static const std::vector<std::pair<std::string, std::string>> types = {
      {".html", "text/html; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".mjs", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".json", "application/json"},
      {".txt", "text/plain; charset=utf-8"}};
  for (const auto& [extension, type] : types) {
    if (endsWith(name, extension)) return type;
  }
  return "application/octet-stream";
}

void addDashboardSecurityHeaders(Response& response) {
  // No 'unsafe-inline' anywhere: a name of a behavior that slipped into the page as
  // markup could not run as script nor restyle it. Requests go to the broker alone.
  response.set("Content-Security-Policy",
               "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
               "connect-src 'self'; manifest-src 'self'; frame-ancestors 'none'; "
               "base-uri 'none'; form-action 'none'");
  response.set("X-Frame-Options", "DENY");
  response.set("Referrer-Policy", "no-referrer");
}

Response dashboardFile(const std::string& folder, const std::string& relative) {
  if (folder.empty()) {
    return textResponse(http::status::not_found, "this installation has no dashboard");
  }
  std::string name = relative;
  if (name.empty() || name.back() == '/') name += "index.html";
  std::vector<std::string> components;
  // ".." never reaches the kernel; openBeneath below refuses links and escapes whatever
  // the spelling.
  if (!vu::beneath::splitRelative(name, &components) || components.empty()) {
    return notFound(relative);
  }
  vu::beneath::UniqueFd root(vu::beneath::openDirectory(folder));
  if (!root) return textResponse(http::status::not_found, "this installation has no dashboard");
  // Opened by its components alone, so that "//etc/passwd" is "etc/passwd" of the folder.
  // O_NONBLOCK: a FIFO planted in the folder is opened without waiting for a writer,
  // then refused as no regular file.
  std::string beneath;
  for (const std::string& component : components) {
    beneath += (beneath.empty() ? "" : "/") + component;
  }
  vu::beneath::UniqueFd file(
      vu::beneath::openBeneath(root.get(), beneath, O_RDONLY | O_NOCTTY | O_NONBLOCK));
  if (!file) return notFound(relative);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_size > kMaxFileBytes) {
    return notFound(relative);
  }
  std::string body(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t done = 0;
  while (done < body.size()) {
    const ssize_t got = ::read(file.get(), body.data() + done, body.size() - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  body.resize(done);
  Response response =
      makeResponse(http::status::ok, dashboardContentType(beneath), std::move(body));
  addDashboardSecurityHeaders(response);
  return response;
}

}  // namespace broker
}  // namespace tuqvu
