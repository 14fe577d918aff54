// Small file helpers for the file-transfer tests.
#pragma once

#include <boost/filesystem/path.hpp>
#include <string>

namespace zrft_test {

// Writes `content` to `file`, creating its parent directories.
void writeFile(const boost::filesystem::path& file, const std::string& content);

// The whole content of `file`; throws when it cannot be read.
std::string readFile(const boost::filesystem::path& file);

}  // namespace zrft_test
