// Folder listings of the file API: JSON for programs, a small page of links for people
// and for `wget -r`.
//
//   std::vector<ListedEntry> entries = ...;   // from the open folder
//   response.body() = listingJson(entries);  // or listingHtml("/files/tmp/", entries)
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

struct ListedEntry {
  enum class Type { File, Directory, Link, Other };
  std::string name;
  Type type = Type::Other;
  std::uint64_t size = 0;
  std::time_t modified = 0;
  std::string entityTag;  // files only
};

// [{"name","type":"file"|"directory"|"link"|"other","size","modified" (RFC 3339, UTC),
//   "etag" (files)}], in the order given.
std::string listingJson(const std::vector<ListedEntry>& entries);
// An HTML page titled with `urlPath` (the folder's URL path, ending in "/"), one relative
// link per entry, folders with a trailing "/".
std::string listingHtml(const std::string& urlPath, const std::vector<ListedEntry>& entries);

// `bytes` with everything but unreserved characters and "/" written as %XX.
std::string percentEncodePath(const std::string& bytes);

}  // namespace broker
}  // namespace tuqvu
