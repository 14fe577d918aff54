#include <tuqvu/broker/dashboard.h>
#include <tuqvu/broker/requestguard.h>
#include <vu/beneath.h>
#include <vu/path.h>

#include <vector>

namespace tuqvu {
namespace broker {
namespace {

// The dashboard's files are a page, its scripts, styles and icons: anything larger is
// not one of them.
constexpr std::size_t kMaxFileBytes = 4 * 1024 * 1024;

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
  std::string beneath;
  for (const std::string& component : components) {
    beneath += (beneath.empty() ? "" : "/") + component;
  }
  std::string body;
  if (vu::beneath::readFileBeneath(root.get(), beneath, kMaxFileBytes, &body) != 0) {
    return notFound(relative);
  }
  Response response =
      makeResponse(http::status::ok, dashboardContentType(beneath), std::move(body));
  addPageSecurityHeaders(response, kDashboardPolicy);
  return response;
}

}  // namespace broker
}  // namespace tuqvu
