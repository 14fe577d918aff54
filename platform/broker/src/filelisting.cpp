#include <tuqvu/broker/filelisting.h>
#include <tuqvu/broker/router.h>

#include <cctype>
#include <nlohmann/json.hpp>

namespace tuqvu {
namespace broker {
namespace {

const char* typeName(ListedEntry::Type type) {
  switch (type) {
    case ListedEntry::Type::File: return "file";
    case ListedEntry::Type::Directory: return "directory";
    case ListedEntry::Type::Link: return "link";
    case ListedEntry::Type::Other: break;
  }
  return "other";
}

std::string rfc3339(std::time_t time) {
  std::tm parts{};
  ::gmtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

bool isUnreserved(unsigned char c) {
  return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

}  // namespace

std::string percentEncodePath(const std::string& bytes) {
  static const char* const kDigits = "0123456789ABCDEF";
  std::string result;
  result.reserve(bytes.size());
  for (const char c : bytes) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (isUnreserved(byte) || byte == '/') {
      result += c;
    } else {
      result += '%';
      result += kDigits[byte >> 4];
      result += kDigits[byte & 0xf];
    }
  }
  return result;
}

std::string listingJson(const std::vector<ListedEntry>& entries) {
  nlohmann::json list = nlohmann::json::array();
  for (const ListedEntry& entry : entries) {
    nlohmann::json item = {{"name", entry.name},
                           {"type", typeName(entry.type)},
                           {"size", entry.size},
                           {"modified", rfc3339(entry.modified)}};
    if (entry.type == ListedEntry::Type::File) item["etag"] = entry.entityTag;
    list.push_back(std::move(item));
  }
  // A name that is not UTF-8 is shown with replacement characters rather than refused.
  return list.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string listingHtml(const std::string& urlPath, const std::vector<ListedEntry>& entries) {
  const std::string title = "Index of " + escapeHtml(urlPath);
  std::string page = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + title +
                     "</title></head>\n<body><h1>" + title + "</h1>\n<ul>\n";
  for (const ListedEntry& entry : entries) {
    const bool folder = entry.type == ListedEntry::Type::Directory;
    const std::string shown = entry.name + (folder ? "/" : "");
    // "./" keeps a name with a colon from reading as a scheme.
    page += "<li><a href=\"./" + percentEncodePath(entry.name) + (folder ? "/" : "") + "\">" +
            escapeHtml(shown) + "</a>";
    if (entry.type == ListedEntry::Type::File) {
      page += " " + std::to_string(entry.size) + " bytes";
    }
    page += "</li>\n";
  }
  page += "</ul>\n</body></html>\n";
  return page;
}

}  // namespace broker
}  // namespace tuqvu
