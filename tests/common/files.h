// Reading and writing a whole file in a test, and the deep relative paths the link tests
// build.
#pragma once

#include <filesystem>
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

// Writes `text` as the whole file, making the folders above it first.
inline void writeFile(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}
template <typename Path>
void writeFile(const Path& path, const std::string& text) {
  writeFile(std::string(path.c_str()), text);
}

// `part` repeated `times` times, joined by slashes: repeated("..", 3) is "../../..".
inline std::string repeated(const std::string& part, int times) {
  std::string path;
  for (int i = 0; i < times; ++i) {
    path += (i == 0 ? "" : "/") + part;
  }
  return path;
}

}  // namespace tuqvutest
