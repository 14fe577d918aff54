// tuqvu-call --put: which files go where, and reading the broker's answer to a PUT.
#include <sys/stat.h>
#include <tuqvu/broker/cli.h>
#include <vu/text.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <stdexcept>

namespace tuqvu {
namespace broker {

void checkRemotePath(const std::string& remote) {
  if (remote.empty() || remote[0] != '/') {
    throw UsageError("the remote path must begin with '/', not \"" + remote + "\"");
  }
  // The path is sent percent-encoded: blanks, '?', '#' and '%' are names like others.
  // Control characters the broker refuses in names it creates.
  if (vu::text::holdsControlCharacter(remote)) {
    throw UsageError("the remote path \"" + remote +
                     "\" holds a control character, which no name on the robot may have");
  }
  std::size_t start = 1;
  while (start <= remote.size()) {
    std::size_t end = remote.find('/', start);
    if (end == std::string::npos) end = remote.size();
    if (remote.compare(start, end - start, "..") == 0 && end - start == 2) {
      throw UsageError("the remote path \"" + remote + "\" must not contain \"..\"");
    }
    start = end + 1;
  }
  if (remote.back() == '/') {
    throw UsageError("the remote path \"" + remote + "\" names a directory, not a file");
  }
}

namespace {

namespace fs = boost::filesystem;

std::string withoutTrailingSlashes(std::string text) {
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

// A regular file (links followed) of the upload, or an error saying what it is instead.
UploadItem uploadItem(const fs::path& local, const std::string& remote) {
  boost::system::error_code error;
  const fs::file_status status = fs::status(local, error);
  if (!fs::exists(status)) throw ClientError(local.string() + ": no such file");
  if (!fs::is_regular_file(status)) {
    throw ClientError(local.string() +
                      ": not a regular file (only files and directories can be sent)");
  }
  const std::uintmax_t size = fs::file_size(local, error);
  if (error) throw ClientError(local.string() + ": " + error.message());
  checkRemotePath(remote);
  return {local.string(), remote, static_cast<std::uint64_t>(size)};
}

}  // namespace

std::vector<UploadItem> planUpload(const std::string& local, const std::string& remote) {
  if (local.empty()) throw UsageError("no local file given");
  if (remote.empty() || remote[0] != '/') {
    throw UsageError("the remote path must begin with '/', not \"" + remote + "\"");
  }
  const fs::path localPath(withoutTrailingSlashes(local));
  std::string target = remote;
  if (target.back() == '/') target += localPath.filename().string();
  boost::system::error_code error;
  const fs::file_status status = fs::status(localPath, error);
  if (!fs::exists(status)) throw ClientError(local + ": no such file or directory");
  std::vector<UploadItem> items;
  if (!fs::is_directory(status)) {
    items.push_back(uploadItem(localPath, target));
    return items;
  }
  std::vector<std::pair<std::string, fs::path>> files;  // relative generic path, file
  fs::recursive_directory_iterator it(localPath, fs::directory_options::follow_directory_symlink,
                                      error);
  if (error) throw ClientError(local + ": " + error.message());
  for (const fs::recursive_directory_iterator end; it != end; it.increment(error)) {
    if (error) throw ClientError(local + ": " + error.message());
    if (fs::is_directory(it->path())) continue;
    files.emplace_back(it->path().lexically_relative(localPath).generic_string(), it->path());
  }
  if (error) throw ClientError(local + ": " + error.message());
  if (files.empty()) throw ClientError(local + ": the directory holds no files");
  std::sort(files.begin(), files.end());
  for (const auto& file : files)
    items.push_back(uploadItem(file.second, target + "/" + file.first));
  return items;
}

bool parseFileReply(const std::string& bytes, bool closed, FileReply& reply) {
  std::size_t headEnd = bytes.find("\n\n");
  std::size_t crlfEnd = bytes.find("\r\n\r\n");
  std::size_t bodyStart;
  if (crlfEnd != std::string::npos && (headEnd == std::string::npos || crlfEnd < headEnd)) {
    headEnd = crlfEnd;
    bodyStart = crlfEnd + 4;
  } else if (headEnd != std::string::npos) {
    bodyStart = headEnd + 2;
  } else {
    if (closed && !bytes.empty()) throw ClientError("the answer ended within its head");
    return false;
  }
  std::vector<std::string> lines;
  for (std::size_t start = 0; start < headEnd;) {
    std::size_t end = bytes.find('\n', start);
    if (end == std::string::npos || end > headEnd) end = headEnd;
    std::string line = bytes.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    start = end + 1;
  }
  const std::string statusLine = lines.empty() ? std::string() : lines.front();
  const bool digits =
      statusLine.size() >= 12 && std::all_of(statusLine.begin() + 9, statusLine.begin() + 12,
                                             [](unsigned char c) { return std::isdigit(c) != 0; });
  if (statusLine.rfind("HTTP/", 0) != 0 || !digits || statusLine[8] != ' ' ||
      (statusLine.size() > 12 && statusLine[12] != ' ')) {
    throw ClientError("no HTTP status line: \"" + statusLine.substr(0, 80) + "\"");
  }
  reply.status = std::atoi(statusLine.substr(9, 3).c_str());
  reply.reason = statusLine.size() > 13 ? statusLine.substr(13) : "";
  long long length = -1;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const std::size_t colon = lines[i].find(':');
    if (colon == std::string::npos) continue;
    std::string name = lines[i].substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (name != "content-length") continue;
    const std::string value = lines[i].substr(lines[i].find_first_not_of(" \t", colon + 1));
    const std::optional<std::uint64_t> given =
        vu::text::wholeNumber(value, std::numeric_limits<long long>::max());
    if (!given) throw ClientError("bad Content-Length \"" + value + "\"");
    length = static_cast<long long>(*given);
  }
  const std::size_t available = bytes.size() - bodyStart;
  if (length >= 0) {
    if (available < static_cast<std::size_t>(length)) {
      if (closed) throw ClientError("the answer ended within its body");
      return false;
    }
    reply.body = bytes.substr(bodyStart, static_cast<std::size_t>(length));
    return true;
  }
  if (!closed) return false;
  reply.body = bytes.substr(bodyStart);
  return true;
}

}  // namespace broker
}  // namespace tuqvu
