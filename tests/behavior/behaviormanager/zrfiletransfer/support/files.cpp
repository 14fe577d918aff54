#include "files.h"

#include <boost/filesystem/operations.hpp>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zrft_test {

void writeFile(const boost::filesystem::path& file, const std::string& content) {
  boost::filesystem::create_directories(file.parent_path());
  std::ofstream out(file.string(), std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) {
    throw std::runtime_error("cannot write " + file.string());
  }
}

std::string readFile(const boost::filesystem::path& file) {
  std::ifstream in(file.string(), std::ios::binary);
  if (!in) {
    throw std::runtime_error("cannot read " + file.string());
  }
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

}  // namespace zrft_test
