#include <tuqvu/broker/cli.h>

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

#include <boost/filesystem.hpp>

#include <tuqvu/broker/json_io.h>

namespace tuqvu {
namespace broker {

using nlohmann::json;

Url parseUrl(const std::string& text) {
  std::string rest = text;
  const std::size_t scheme = rest.find("://");
  if (scheme != std::string::npos) {
    if (rest.substr(0, scheme) != "http") {
      throw std::invalid_argument("only http:// URLs are supported, not \"" + text + "\"");
    }
    rest.erase(0, scheme + 3);
  }
  Url url;
  const std::size_t slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  if (slash != std::string::npos) url.basePath = rest.substr(slash);
  while (!url.basePath.empty() && url.basePath.back() == '/') url.basePath.pop_back();
  if (authority.empty()) throw std::invalid_argument("no host in the URL \"" + text + "\"");
  std::string port = "80";
  if (authority[0] == '[') {  // [IPv6]:port
    const std::size_t close = authority.find(']');
    if (close == std::string::npos) throw std::invalid_argument("unclosed '[' in \"" + text + "\"");
    url.host = authority.substr(1, close - 1);
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') throw std::invalid_argument("malformed URL \"" + text + "\"");
      port = authority.substr(close + 2);
    }
  } else {
    const std::size_t colon = authority.rfind(':');
    url.host = authority.substr(0, colon);
    if (colon != std::string::npos) port = authority.substr(colon + 1);
  }
  if (url.host.empty()) throw std::invalid_argument("no host in the URL \"" + text + "\"");
  if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
      std::stoi(port) > 65535) {
    throw std::invalid_argument("bad port in the URL \"" + text + "\"");
  }
  url.port = port;
  return url;
}

json parseCliArgument(const std::string& text) {
  json value = json::parse(text, nullptr, false);
  if (value.is_discarded()) return json(text);
  return value;
}

std::string buildCallRequest(const std::string& method, const std::vector<std::string>& args) {
  json params = json::array();
  for (const std::string& arg : args) params.push_back(parseCliArgument(arg));
  return dumpJson({{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}});
}

std::string percentEncode(const std::string& text) {
  static const char* const kHex = "0123456789ABCDEF";
  std::string out;
  for (const unsigned char c : text) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '_' || c == '.' || c == '~' || c == '/') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string eventsTarget(const std::string& basePath, const std::vector<std::string>& keys) {
  std::string target = basePath + "/events";
  for (std::size_t i = 0; i < keys.size(); ++i) {
    target += (i == 0 ? "?key=" : "&key=") + percentEncode(keys[i]);
  }
  return target;
}

CallAnswer interpretAnswer(const std::string& body) {
  json answer;
  try {
    answer = parseJson(body);
  } catch (const std::exception& error) {
    throw std::runtime_error(std::string("the broker's answer is not JSON: ") + error.what());
  }
  if (answer.is_object() && answer.contains("result")) return {0, answer["result"].dump(2, ' ', false, json::error_handler_t::replace)};
  if (answer.is_object() && answer.contains("error") && answer["error"].is_object()) {
    const json& error = answer["error"];
    const auto data = error.find("data");
    if (data != error.end() && data->is_object() && data->contains("description") &&
        (*data)["description"].is_string()) {
      return {1, (*data)["description"].get<std::string>()};
    }
    if (error.contains("message") && error["message"].is_string()) {
      return {1, error["message"].get<std::string>()};
    }
    return {1, error.dump()};
  }
  throw std::runtime_error("the broker's answer is no JSON-RPC response: " + body);
}

CliCommand parseCommandLine(const std::vector<std::string>& args) {
  CliCommand command;
  bool watch = false, put = false, help = false;
  std::vector<std::string> words;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& argument = args[i];
    if (!command.method.empty()) {
      words.push_back(argument);  // arguments of the call, taken as they are
    } else if (argument == "--help" || argument == "-h") {
      help = true;
    } else if (argument == "--url") {
      if (i + 1 >= args.size()) throw UsageError("--url needs a URL");
      command.url = args[++i];
    } else if (argument.rfind("--url=", 0) == 0) {
      command.url = argument.substr(6);
    } else if (argument == "--watch") {
      watch = true;
    } else if (argument == "--put") {
      if (i + 2 >= args.size()) throw UsageError("--put needs LOCAL and REMOTE");
      if (put) throw UsageError("--put can be given once only");
      put = true;
      words.push_back(args[i + 1]);
      words.push_back(args[i + 2]);
      i += 2;
    } else if (argument == "--progress") {
      command.progress = true;
    } else if (argument.size() > 1 && argument[0] == '-' && (watch || put || words.empty())) {
      throw UsageError("unknown option " + argument);
    } else if (watch || put) {
      words.push_back(argument);
    } else {
      command.method = argument;
    }
  }
  if (help) {
    command.kind = CliCommand::Help;
    return command;
  }
  if (watch && put) throw UsageError("--watch and --put cannot be combined");
  if (put) {
    if (words.size() != 2) throw UsageError("--put takes LOCAL and REMOTE only, not \"" + words[2] + "\"");
    command.kind = CliCommand::Put;
  } else if (watch) {
    command.kind = CliCommand::Watch;
  } else {
    if (command.method.empty()) throw UsageError("no method given");
    const std::size_t dot = command.method.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == command.method.size()) {
      throw UsageError("the method must be written Module.method, not \"" + command.method + "\"");
    }
  }
  command.words = std::move(words);
  try {
    parseUrl(command.url);
  } catch (const std::invalid_argument& error) {
    throw UsageError(error.what());
  }
  return command;
}

void checkRemotePath(const std::string& remote) {
  if (remote.empty() || remote[0] != '/') {
    throw UsageError("the remote path must begin with '/', not \"" + remote + "\"");
  }
  for (const unsigned char c : remote) {
    if (c <= ' ' || c == 0x7f || c == '?' || c == '#' || c == '%') {
      throw UsageError("the remote path \"" + remote +
                       "\" holds a character the file-transfer service cannot take "
                       "(blank, control character, '?', '#' or '%')");
    }
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
  if (!fs::exists(status)) throw std::runtime_error(local.string() + ": no such file");
  if (!fs::is_regular_file(status)) {
    throw std::runtime_error(local.string() + ": not a regular file (only files and directories can be sent)");
  }
  const std::uintmax_t size = fs::file_size(local, error);
  if (error) throw std::runtime_error(local.string() + ": " + error.message());
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
  if (!fs::exists(status)) throw std::runtime_error(local + ": no such file or directory");
  std::vector<UploadItem> items;
  if (!fs::is_directory(status)) {
    items.push_back(uploadItem(localPath, target));
    return items;
  }
  std::vector<std::pair<std::string, fs::path>> files;  // relative generic path, file
  fs::recursive_directory_iterator it(localPath, fs::directory_options::follow_directory_symlink,
                                      error);
  if (error) throw std::runtime_error(local + ": " + error.message());
  for (const fs::recursive_directory_iterator end; it != end; it.increment(error)) {
    if (error) throw std::runtime_error(local + ": " + error.message());
    if (fs::is_directory(it->path())) continue;
    files.emplace_back(it->path().lexically_relative(localPath).generic_string(), it->path());
  }
  if (error) throw std::runtime_error(local + ": " + error.message());
  if (files.empty()) throw std::runtime_error(local + ": the directory holds no files");
  std::sort(files.begin(), files.end());
  for (const auto& file : files) items.push_back(uploadItem(file.second, target + "/" + file.first));
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
    if (closed && !bytes.empty()) throw std::runtime_error("the answer ended within its head");
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
  const bool digits = statusLine.size() >= 12 &&
                      std::all_of(statusLine.begin() + 9, statusLine.begin() + 12,
                                  [](unsigned char c) { return std::isdigit(c) != 0; });
  if (statusLine.rfind("HTTP/", 0) != 0 || !digits || statusLine[8] != ' ' ||
      (statusLine.size() > 12 && statusLine[12] != ' ')) {
    throw std::runtime_error("no HTTP status line: \"" + statusLine.substr(0, 80) + "\"");
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
    if (value.empty() || value.size() > 15 || value.find_first_not_of("0123456789") != std::string::npos) {
      throw std::runtime_error("bad Content-Length \"" + value + "\"");
    }
    length = std::stoll(value);
  }
  const std::size_t available = bytes.size() - bodyStart;
  if (length >= 0) {
    if (available < static_cast<std::size_t>(length)) {
      if (closed) throw std::runtime_error("the answer ended within its body");
      return false;
    }
    reply.body = bytes.substr(bodyStart, static_cast<std::size_t>(length));
    return true;
  }
  if (!closed) return false;
  reply.body = bytes.substr(bodyStart);
  return true;
}

std::string formatBytes(std::uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes) / 1024;
  int unit = 0;
  while (value >= 1024 && unit < 3) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit >= 2 ? "%.2f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string formatTransfer(std::uint64_t sent, std::uint64_t total, double seconds) {
  const unsigned percent =
      total == 0 ? 100u : static_cast<unsigned>((static_cast<long double>(sent) * 100) / total);
  std::string text = formatBytes(sent) + " / " + formatBytes(total) + "  " +
                     std::to_string(percent) + "%";
  if (seconds >= 0.1) {
    text += "  " + formatBytes(static_cast<std::uint64_t>(static_cast<double>(sent) / seconds)) + "/s";
  }
  return text;
}

std::string formatWaiting(const std::string& method, double seconds, unsigned frame) {
  static const char kSpinner[] = {'|', '/', '-', '\\'};
  char elapsed[32];
  std::snprintf(elapsed, sizeof elapsed, "%.1f s", seconds);
  return std::string(1, kSpinner[frame % 4]) + " waiting for " + method + "  " + elapsed;
}

std::string cliHelpText() {
  return "Usage:\n"
         "  tuqvu-call [OPTIONS] Module.method [ARG ...]\n"
         "  tuqvu-call [OPTIONS] --watch [KEY ...]\n"
         "  tuqvu-call [OPTIONS] --put LOCAL REMOTE\n"
         "  tuqvu-call --help\n"
         "\n"
         "Talks to a tuqvu broker over HTTP.\n"
         "\n"
         "Module.method [ARG ...]\n"
         "  Calls a method of a module hosted by the broker (JSON-RPC, POST /rpc) and\n"
         "  prints its result as JSON on standard output (exit status 0), or the error's\n"
         "  description on standard error (exit status 1). Each ARG is read as a JSON\n"
         "  literal (5, 1.5, true, null, [1,\"a\"], \"quoted text\") and otherwise taken as a\n"
         "  plain string; everything after Module.method is an argument, even when it\n"
         "  begins with '-'. A call that has not been answered after a second shows an\n"
         "  elapsed-time spinner on standard error when that is a terminal (runBehavior,\n"
         "  for instance, answers when the behavior ends). ZRBroker.getModules lists the\n"
         "  modules and ZRBroker.getMethods MODULE describes the methods of one.\n"
         "\n"
         "--watch [KEY ...]\n"
         "  Prints the memory events for the given keys (every key when none is given) as\n"
         "  they are raised, one JSON object {\"key\":..,\"value\":..} per line, until the\n"
         "  broker ends the stream or the command is interrupted (Ctrl-C).\n"
         "\n"
         "--put LOCAL REMOTE\n"
         "  Uploads LOCAL through the behavior manager's file-transfer service: its port\n"
         "  is asked from ZRBehaviorManager._httpFileTransferPort, and the file is sent\n"
         "  with HTTP PUT to that port on the broker's host, at the request path REMOTE.\n"
         "  A directory is sent file by file under REMOTE (empty directories are not\n"
         "  sent). A REMOTE ending in '/' gets LOCAL's name appended. Request paths:\n"
         "    /behaviors/User/P   the user's behaviors folder (~/.tuqvu/behaviors/P)\n"
         "    /tmp/P              the broker's temporary folder (for packages to install)\n"
         "  Missing folders are created and existing files replaced. Each file sent is\n"
         "  printed on standard output once the service confirmed it; progress (bytes\n"
         "  sent, percentage, rate) shows on standard error when that is a terminal, and\n"
         "  a summary line at the end in any case.\n"
         "\n"
         "Options:\n"
         "  --url URL    the broker (default http://127.0.0.1:9600)\n"
         "  --progress   show progress and the waiting spinner on standard error even\n"
         "               when it is not a terminal\n"
         "  --help, -h   show this text\n"
         "\n"
         "Examples:\n"
         "  tuqvu-call ZRBroker.getModules\n"
         "  tuqvu-call ZRBroker.getMethods ZRBehaviorManager\n"
         "  tuqvu-call ZRBehaviorManager.getInstalledBehaviors\n"
         "  tuqvu-call ZRBehaviorManager.runBehavior System/animations/wave\n"
         "  tuqvu-call ZRBehaviorManager.stopBehavior System/animations/wave\n"
         "  tuqvu-call ZRMemory.insertData Demo/Count 3\n"
         "  tuqvu-call ZRMemory.insertData Demo/Text '\"3\"'\n"
         "  tuqvu-call --url http://robot:9600 ZRBehaviorManager.getRunningBehaviors\n"
         "  tuqvu-call --watch BehaviorsRun ZRBehaviorManager/BehaviorAdded\n"
         "  tuqvu-call --put hello /behaviors/User/greetings/\n"
         "  tuqvu-call ZRBehaviorManager.installBehavior greetings/hello\n"
         "  tuqvu-call --put wave.zip /tmp/wave.zip\n"
         "  tuqvu-call ZRBehaviorManager.installBehavior /tmp/wave.zip moves/wave false\n"
         "\n"
         "Exit status: 0 success; 1 the call or upload failed or the broker cannot be\n"
         "reached; 2 the command line is wrong.\n";
}


}  // namespace broker
}  // namespace tuqvu
