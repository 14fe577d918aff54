// Helpers the GET, PUT and DELETE hooks share to read the request line and write their
// replies. Replies use "\n" line ends; the header block and a small body leave in one
// write.
#pragma once

#include <stdsoap2.h>

#include <boost/filesystem/path.hpp>
#include <string>
#include <vector>

namespace ZR {
namespace detail {

// The category of every log line of the service.
constexpr const char* kNetworkLog = "core.common.network";

// The request path as gSOAP read it from the request line (query included, undecoded),
// without its leading "/". `decodeDots` first turns "%2E" into ".".
boost::filesystem::path relativeRequestPath(const soap* connection, bool decodeDots);

// Logs "Refused request path: <path> (<reason>)" at level 3 for the hook `function`.
void logRefusedPath(const char* function, const boost::filesystem::path& requestPath,
                    const std::string& reason);

// The components joined with "/" (the first `count` of them, all by default).
std::string joinComponents(const std::vector<std::string>& components,
                           std::size_t count = static_cast<std::size_t>(-1));

// "HTTP/<the context's HTTP version> <status>\n".
std::string statusLine(const soap* connection, const std::string& status);

// Sends `text` at once. Inside a hook the context is still in receive mode, where a
// chunked request leaves chunked output on; that is switched off first, since it would
// only buffer the reply.
int sendNow(soap* connection, const std::string& text);

// The reply of a PUT or DELETE that was done: "200 OK" with the body "ok\n".
int sendOk(soap* connection);

}  // namespace detail
}  // namespace ZR
