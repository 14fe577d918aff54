// The counts every file server of the process keeps in the broker's ZRMetrics, told
// apart by the label "server" ("files" for the broker's file API, "file-transfer" for
// the behavior manager's server):
//
//   tuqvu_file_requests_total{server, method="GET|HEAD|PUT|DELETE|other"}
//   tuqvu_file_bytes_total{server, direction="received|sent"}
//
// Registered once when the server is made; counting is then one atomic increment.
//
//   const ZRFileServerMetrics files(broker->metrics(), "files");
//   files.request("PUT").increment();
//   files.received->increment(bytes);
#pragma once

#include <zr/zrmetrics.h>

#include <string>

namespace ZR {

struct ZRFileServerMetrics {
  ZRFileServerMetrics(ZRMetrics& registry, const std::string& server);

  // The counter of requests with this method; "other" for any but the four.
  ZRCounter& request(const std::string& method) const;

  ZRCounter* get;
  ZRCounter* head;
  ZRCounter* put;
  ZRCounter* remove;  // DELETE
  ZRCounter* other;
  ZRCounter* received;  // bytes of request bodies (uploads) read from clients
  ZRCounter* sent;      // bytes of answers written to clients, their headers included
};

}  // namespace ZR
