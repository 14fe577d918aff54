// Copying one regular file, for the project library and the modules that install into it.
#pragma once

#include <boost/system/error_code.hpp>
#include <string>

namespace vu {
namespace project {

// Copies the regular file `from` to the new path `to` (which must not exist yet), with
// the same permission bits. On failure `code` says why and a partial copy may remain at
// `to` for the caller to remove. Unlike boost::filesystem::copy_file of Boost 1.74, the
// copy is not flushed to disk file by file: one fdatasync per file made a 10,000-file
// copy a hundred times slower than cp.
void copyFile(const std::string& from, const std::string& to, boost::system::error_code& code);

}  // namespace project
}  // namespace vu
