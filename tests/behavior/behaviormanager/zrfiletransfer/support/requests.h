// Requests to the file server as an authoring tool writes them, and its plain "ok" reply.
#pragma once

#include <string>

namespace zrft_test {

inline const char* const kOk =
    "HTTP/1.1 200 OK\nServer: TuqVu\nContent-Length: 3\nContent-Type: text/plain\n"
    "Connection: keep-alive\n\nok\n";

inline std::string put(const std::string& path, const std::string& body) {
  return "PUT " + path + " HTTP/1.1\nHost: robot\nContent-Length: " + std::to_string(body.size()) +
         "\n\n" + body;
}

inline std::string del(const std::string& path) {
  return "DELETE " + path + " HTTP/1.1\nHost: robot\n\n";
}

}  // namespace zrft_test
