// Reading a whole file in a test.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

namespace tuqvutest {

// The file's whole content; "" when it cannot be read. Takes any path type with
// c_str() (std::string, boost::filesystem::path).
inline std::string readFile(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}
template <typename Path>
std::string readFile(const Path& path) {
  return readFile(path.c_str());
}

}  // namespace tuqvutest
