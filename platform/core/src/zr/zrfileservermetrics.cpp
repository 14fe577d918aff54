#include <zr/zrfileservermetrics.h>

namespace ZR {

namespace {

const char* const kRequests = "tuqvu_file_requests_total";
const char* const kRequestsHelp = "Requests to the file servers, by server and method.";
const char* const kBytes = "tuqvu_file_bytes_total";
const char* const kBytesHelp = "Bytes the file servers received and sent, by server.";

}  // namespace

ZRFileServerMetrics::ZRFileServerMetrics(ZRMetrics& registry, const std::string& server) {
  const auto requests = [&](const char* method) {
    return &registry.counter(kRequests, kRequestsHelp, {{"server", server}, {"method", method}});
  };
  get = requests("GET");
  head = requests("HEAD");
  put = requests("PUT");
  remove = requests("DELETE");
  other = requests("other");
  received = &registry.counter(kBytes, kBytesHelp, {{"server", server}, {"direction", "received"}});
  sent = &registry.counter(kBytes, kBytesHelp, {{"server", server}, {"direction", "sent"}});
}

ZRCounter& ZRFileServerMetrics::request(const std::string& method) const {
  if (method == "GET") return *get;
  if (method == "HEAD") return *head;
  if (method == "PUT") return *put;
  if (method == "DELETE") return *remove;
  return *other;
}

}  // namespace ZR
