// The content-type table of GET replies. It is built empty at load time and filled by
// every ZRFileTransfer constructor; a lock keeps a second server's constructor from
// racing a first server's listener.
#include <boost/algorithm/string/case_conv.hpp>
#include <mutex>

#include "zrhttphandlers.h"

namespace ZR {
namespace {

// Guards table().
std::mutex& tableMutex() {
  static std::mutex mutex;
  return mutex;
}

std::map<std::string, std::string>& table() {
  static std::map<std::string, std::string> types;
  return types;
}

}  // namespace

void fillContentTypeTable() {
  std::lock_guard<std::mutex> lock(tableMutex());
  std::map<std::string, std::string>& types = table();
  types[".jpg"] = "image/jpeg";
  types[".png"] = "image/png";
  types[".gif"] = "image/gif";
  types[".mp3"] = "audio/mp3";
  types[".wav"] = "audio/x-wav";
  types[".xar"] = "text/plain";
  types[".xml"] = "text/plain";
  types[".txt"] = "text/plain";
  types[".vkp"] = "application/octet-stream";
}

std::map<std::string, std::string> contentTypeTable() {
  std::lock_guard<std::mutex> lock(tableMutex());
  return table();
}

std::string contentTypeFor(const std::string& extension) {
  const std::string key = boost::algorithm::to_lower_copy(extension);
  std::lock_guard<std::mutex> lock(tableMutex());
  const std::map<std::string, std::string>& types = table();
  const auto found = types.find(key);
  return found == types.end() ? std::string("application/octet-stream") : found->second;
}

}  // namespace ZR
