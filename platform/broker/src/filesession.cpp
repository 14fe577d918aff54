#include <sys/stat.h>
#include <tuqvu/broker/descriptorbody.h>
#include <tuqvu/broker/filelisting.h>
#include <tuqvu/broker/filesession.h>
#include <tuqvu/broker/filevalidators.h>
#include <tuqvu/broker/httpsession.h>
#include <tuqvu/broker/url.h>
#include <vu/beneath.h>
#include <vu/log.h>
#include <vu/replacement.h>
#include <vu/text.h>

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>

#ifndef TUQVU_VERSION
#define TUQVU_VERSION "unknown"
#endif

namespace tuqvu {
namespace broker {

namespace beast = boost::beast;
namespace net = boost::asio;

namespace {

const char* const kCategory = "tuqvu.files";

// Guards the last check of a write's preconditions together with the rename that puts
// the file in place, so that two writers holding the same ETag cannot both replace it.
std::mutex gCommitMutex;

std::string joined(const std::vector<std::string>& components, std::size_t count) {
  std::string path;
  for (std::size_t i = 0; i < count && i < components.size(); ++i) {
    if (!path.empty()) path += '/';
    path += components[i];
  }
  return path;
}

bool diskIsFull(int error) {
  return error == ENOSPC || error == EDQUOT;
}

std::chrono::seconds allowance(std::uint64_t bytes) {
  return std::chrono::seconds(FileSession::kBodyGraceSeconds +
                              static_cast<long>(bytes / FileSession::kMinBytesPerSecond));
}

bool wantsJson(const http::request_header<>& request) {
  const auto accept = request.find(http::field::accept);
  return accept != request.end() &&
         std::string(accept->value()).find("application/json") != std::string::npos;
}

ListedEntry::Type typeOf(mode_t mode) {
  if (S_ISREG(mode)) return ListedEntry::Type::File;
  if (S_ISDIR(mode)) return ListedEntry::Type::Directory;
  if (S_ISLNK(mode)) return ListedEntry::Type::Link;
  return ListedEntry::Type::Other;
}

}  // namespace

// A PUT between its checks and its answer.
struct FileSession::Upload {
  http::request_header<> header;  // for the last precondition check
  vu::beneath::UniqueFd root;
  vu::beneath::UniqueFd parent;
  std::string name;
  bool existed = false;
  mode_t mode = 0;
  std::unique_ptr<vu::beneath::Replacement> replacement;
  std::chrono::steady_clock::time_point started;
};

bool FileSession::handles(const std::string& target) {
  return target == "/files" || target.compare(0, std::strlen(kPrefix), kPrefix) == 0 ||
         target.compare(0, 7, "/files?") == 0;
}

FileSession::FileSession(Stream&& stream, beast::flat_buffer&& buffer,
                         http::request_parser<http::string_body>&& parser,
                         std::shared_ptr<ServerContext> context, std::string cookie)
    : fStream(std::move(stream)),
      fBuffer(std::move(buffer)),
      fContext(std::move(context)),
      fCookie(std::move(cookie)) {
  fParser.emplace(std::move(parser));
}

FileSession::~FileSession() = default;

void FileSession::start() {
  const http::request_header<>& request = fParser->get();
  fVersion = request.version();
  fKeepAlive = fParser->keep_alive();
  fHasBody = !fParser->is_done();

  if (fContext->fileMetrics) {
    fContext->fileMetrics->request(std::string(request.method_string())).increment();
  }

  const Target target = splitTarget(std::string(request.target()));
  if (target.path == "/files") {
    auto moved = std::make_shared<http::response<http::string_body>>(
        http::status::moved_permanently, fVersion);
    moved->set(http::field::location, kPrefix);
    moved->prepare_payload();
    return send(moved);
  }
  const std::optional<std::string> decoded =
      percentDecode(target.path.substr(std::strlen(kPrefix)));
  if (!decoded || decoded->find('\0') != std::string::npos) {
    return refuse(http::status::bad_request, "the path is not a valid percent-encoded path");
  }
  fFolders = fContext->fileFolders ? fContext->fileFolders() : nullptr;
  if (!fFolders) {
    return refuse(http::status::not_found, "no module of this robot serves files");
  }
  ZR::ZRFileTarget mapped;
  if (decoded->empty() || !fFolders->map(*decoded, &mapped)) {
    return refuse(http::status::not_found, "nothing is served at " + target.path);
  }
  if (!mapped.refusal.empty()) return refuse(http::status::forbidden, mapped.refusal);

  switch (request.method()) {
    case http::verb::get:
    case http::verb::head: return serveRead(mapped, target.path);
    case http::verb::put:
      if (vu::text::holdsControlCharacter(*decoded)) {
        return refuse(http::status::bad_request, "a name in the path holds a control character");
      }
      return serveWrite(mapped);
    case http::verb::delete_: return serveRemove(mapped);
    default: {
      auto answer = std::make_shared<Response>(
          textResponse(http::status::method_not_allowed, "405 - Method Not Allowed"));
      answer->set(http::field::allow, "GET, HEAD, PUT, DELETE");
      answer->prepare_payload();
      return send(answer);
    }
  }
}

void FileSession::serveRead(const ZR::ZRFileTarget& target, const std::string& urlPath) {
  const http::request_header<>& request = fParser->get();
  vu::beneath::UniqueFd root(vu::beneath::openDirectory(target.root));
  vu::beneath::UniqueFd file;
  if (root) {
    // Not blocking, so that a FIFO placed in a folder cannot hold the thread.
    file.reset(vu::beneath::openBeneath(root.get(), joined(target.components, SIZE_MAX),
                                        O_RDONLY | O_NONBLOCK));
  }
  if (!file) {
    if (errno == ELOOP || errno == EXDEV) {
      return refuse(http::status::forbidden, "a symbolic link on the way is not followed");
    }
    return refuse(http::status::not_found, "no file at " + urlPath);
  }
  struct stat status;
  if (::fstat(file.get(), &status) != 0) {
    return refuse(http::status::internal_server_error, std::strerror(errno));
  }
  if (S_ISDIR(status.st_mode)) {
    if (urlPath.empty() || urlPath.back() != '/') {
      // Links in the listing are relative to the folder's own URL.
      auto moved = std::make_shared<Response>(http::status::moved_permanently, fVersion);
      moved->set(http::field::location, percentEncodePath(urlPath) + "/");
      moved->prepare_payload();
      return send(moved);
    }
    return serveFolder(file.get(), urlPath);
  }
  if (!S_ISREG(status.st_mode)) {
    return refuse(http::status::forbidden, "only files and folders are served");
  }

  const Validators now = validatorsOf(status);
  const Precondition precondition = evaluatePreconditions(request, &now);
  if (precondition != Precondition::Proceed) {
    const bool notModified = precondition == Precondition::NotModified;
    auto answer = std::make_shared<http::response<http::empty_body>>(
        notModified ? http::status::not_modified : http::status::precondition_failed, fVersion);
    answer->set(http::field::etag, now.entityTag);
    answer->set(http::field::last_modified, httpDate(now.modified));
    if (!notModified) answer->content_length(0);
    return send(answer);
  }

  const std::uint64_t size = static_cast<std::uint64_t>(status.st_size);
  const ByteRange range = requestedRange(request, now, size);
  if (range.kind == ByteRange::Kind::Unsatisfiable) {
    auto answer = std::make_shared<Response>(textResponse(
        http::status::range_not_satisfiable,
        "416 - Range Not Satisfiable: the file has " + std::to_string(size) + " bytes"));
    answer->set(http::field::content_range, "bytes */" + std::to_string(size));
    answer->prepare_payload();
    return send(answer);
  }
  const bool part = range.kind == ByteRange::Kind::Part;
  const http::status status206 = part ? http::status::partial_content : http::status::ok;
  const std::uint64_t first = part ? range.first : 0;
  const std::uint64_t length = part ? range.length : size;
  auto setHeaders = [&](auto& answer) {
    answer.set(http::field::content_type,
               fFolders->contentTypeOf(target.components.empty() ? "" : target.components.back()));
    answer.set(http::field::etag, now.entityTag);
    answer.set(http::field::last_modified, httpDate(now.modified));
    answer.set(http::field::accept_ranges, "bytes");
    if (part) {
      answer.set(http::field::content_range, "bytes " + std::to_string(first) + "-" +
                                                 std::to_string(first + length - 1) + "/" +
                                                 std::to_string(size));
    }
    answer.content_length(length);
  };
  if (request.method() == http::verb::head) {
    auto answer = std::make_shared<http::response<http::empty_body>>(status206, fVersion);
    setHeaders(*answer);
    return send(answer);
  }
  // The descriptor travels with the answer and is closed once it is written.
  auto held = std::make_shared<vu::beneath::UniqueFd>(std::move(file));
  auto answer = std::make_shared<http::response<DescriptorBody>>(status206, fVersion);
  setHeaders(*answer);
  answer->body().fd = held->get();
  answer->body().offset = first;
  answer->body().length = length;
  send(answer, held);
}

void FileSession::serveFolder(int folder, const std::string& urlPath) {
  std::vector<vu::beneath::DirectoryEntry> names;
  if (!vu::beneath::listDirectory(folder, &names)) {
    return refuse(http::status::internal_server_error, std::strerror(errno));
  }
  std::vector<ListedEntry> entries;
  entries.reserve(names.size());
  for (const vu::beneath::DirectoryEntry& name : names) {
    struct stat status;
    if (::fstatat(folder, name.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    ListedEntry entry;
    entry.name = name.name;
    entry.type = typeOf(status.st_mode);
    entry.size =
        entry.type == ListedEntry::Type::File ? static_cast<std::uint64_t>(status.st_size) : 0;
    entry.modified = status.st_mtim.tv_sec;
    if (entry.type == ListedEntry::Type::File) entry.entityTag = validatorsOf(status).entityTag;
    entries.push_back(std::move(entry));
  }
  std::sort(entries.begin(), entries.end(),
            [](const ListedEntry& a, const ListedEntry& b) { return a.name < b.name; });
  const http::request_header<>& request = fParser->get();
  std::shared_ptr<Response> answer =
      wantsJson(request)
          ? std::make_shared<Response>(jsonResponse(http::status::ok, listingJson(entries)))
          : std::make_shared<Response>(
                htmlResponse(http::status::ok, listingHtml(urlPath, entries)));
  answer->set(http::field::vary, "Accept");
  answer->set(http::field::cache_control, "no-cache");
  if (request.method() == http::verb::head) {
    auto head = std::make_shared<http::response<http::empty_body>>(http::status::ok, fVersion);
    for (const auto& field : *answer) head->set(field.name_string(), field.value());
    head->content_length(answer->body().size());
    return send(head);
  }
  answer->prepare_payload();
  send(answer);
}

void FileSession::serveWrite(const ZR::ZRFileTarget& target) {
  const http::request_header<>& request = fParser->get();
  const std::uint64_t limit = fFolders->maxWriteBytes();
  const auto length = fParser->content_length();
  if (length && *length > limit) {
    return refuse(http::status::payload_too_large,
                  "the body has " + std::to_string(*length) + " bytes; this robot takes at most " +
                      std::to_string(limit) + " (TUQVU_FILE_PUT_MAX_BYTES)");
  }
  if (target.components.empty()) {
    return refuse(http::status::forbidden,
                  fFolders->changeRefusal(target, ZR::ZRFileChange::Create));
  }
  // A root that does not exist yet (a new application's data folder) is made first.
  boost::system::error_code made;
  boost::filesystem::create_directories(target.root, made);
  const std::string why = fFolders->changeRefusal(target, ZR::ZRFileChange::Create);
  if (!why.empty()) return refuse(http::status::forbidden, why);

  auto upload = std::make_unique<Upload>();
  upload->header = request;
  upload->name = target.components.back();
  upload->root.reset(vu::beneath::openDirectory(target.root));
  if (upload->root) {
    const std::vector<std::string> parents(target.components.begin(), target.components.end() - 1);
    upload->parent.reset(vu::beneath::makeDirectoriesBeneath(upload->root.get(), parents));
  }
  if (!upload->parent) {
    if (errno == ELOOP || errno == EXDEV) {
      return refuse(http::status::forbidden, "a symbolic link on the way is not followed");
    }
    if (errno == ENOTDIR || errno == EEXIST) {
      return refuse(http::status::conflict, "a name on the way is a file, not a folder");
    }
    return refuse(http::status::internal_server_error, std::strerror(errno));
  }
  struct stat existing;
  upload->existed =
      ::fstatat(upload->parent.get(), upload->name.c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0;
  if (upload->existed && !S_ISREG(existing.st_mode)) {
    return refuse(http::status::conflict, "what is there is not a file; only files are replaced");
  }
  upload->mode = upload->existed ? (existing.st_mode & 07777) : 0;
  Validators before;
  if (upload->existed) before = validatorsOf(existing);
  if (evaluatePreconditions(request, upload->existed ? &before : nullptr) !=
      Precondition::Proceed) {
    return refuse(http::status::precondition_failed,
                  "the file is not the version the request names (If-Match / If-None-Match)");
  }
  upload->replacement = std::make_unique<vu::beneath::Replacement>(upload->parent.get());
  if (!upload->replacement->valid()) {
    const int error = errno;
    return refuse(diskIsFull(error) ? http::status::insufficient_storage
                                    : http::status::internal_server_error,
                  diskIsFull(error) ? "the robot's disk is full; the file was not changed"
                                    : std::strerror(error));
  }
  upload->started = std::chrono::steady_clock::now();
  fUpload = std::move(upload);

  if (!fHasBody) return finishUpload();
  fParser->body_limit(limit);
  fParser->get().body().fd = fUpload->replacement->fd();
  if (beast::iequals(fUpload->header[http::field::expect], "100-continue")) {
    // Only now that the write may go ahead is the client asked for its body.
    auto interim = std::make_shared<http::response<http::empty_body>>(http::status::continue_, 11);
    fStream.expiresAfter(allowance(0));
    http::async_write(fStream, *interim,
                      [self = shared_from_this(), interim](beast::error_code error, std::size_t) {
                        if (!error) self->receiveBody();
                      });
    return;
  }
  receiveBody();
}

void FileSession::receiveBody() {
  fStream.expiresAt(fUpload->started + allowance(fParser->get().body().received + 65536));
  http::async_read_some(fStream, fBuffer, *fParser,
                        beast::bind_front_handler(&FileSession::onBody, shared_from_this()));
}

void FileSession::onBody(beast::error_code error, std::size_t) {
  if (fContext->fileMetrics) {
    const std::uint64_t received = fParser->get().body().received;
    fContext->fileMetrics->received->increment(received - fCountedReceived);
    fCountedReceived = received;
  }
  if (error == http::error::body_limit) {
    fKeepAlive = false;
    return refuse(http::status::payload_too_large,
                  "the body is larger than this robot takes (" +
                      std::to_string(fFolders->maxWriteBytes()) +
                      " bytes, TUQVU_FILE_PUT_MAX_BYTES); the file was not changed");
  }
  if (error && error.category() == boost::system::generic_category()) {
    // The file could not take the data.
    fKeepAlive = false;
    return refuse(diskIsFull(error.value()) ? http::status::insufficient_storage
                                            : http::status::internal_server_error,
                  diskIsFull(error.value()) ? "the robot's disk is full; the file was not changed"
                                            : error.message());
  }
  if (error) {
    // The client went away or was too slow: the file stays as it was.
    vu::log::write(vu::log::verbose, kCategory, "put", "body not received: " + error.message());
    return;
  }
  if (!fParser->is_done()) return receiveBody();
  fHasBody = false;
  finishUpload();
}

void FileSession::finishUpload() {
  Upload& upload = *fUpload;
  bool committed = false;
  int failure = 0;
  {
    std::lock_guard<std::mutex> lock(gCommitMutex);
    struct stat now;
    const bool exists =
        ::fstatat(upload.parent.get(), upload.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0;
    Validators current;
    if (exists) current = validatorsOf(now);
    if (evaluatePreconditions(upload.header, exists ? &current : nullptr) ==
        Precondition::Proceed) {
      const std::optional<mode_t> mode =
          upload.existed ? std::optional<mode_t>(upload.mode) : std::nullopt;
      committed = upload.replacement->commit(upload.name, mode);
      if (!committed) failure = errno;
    } else {
      return refuse(http::status::precondition_failed,
                    "the file changed while the body was sent; it was not replaced");
    }
  }
  if (!committed) {
    return refuse(diskIsFull(failure) ? http::status::insufficient_storage
                                      : http::status::internal_server_error,
                  diskIsFull(failure) ? "the robot's disk is full; the file was not changed"
                                      : std::strerror(failure));
  }
  auto answer = std::make_shared<http::response<http::empty_body>>(
      upload.existed ? http::status::no_content : http::status::created, fVersion);
  struct stat written;
  if (::fstatat(upload.parent.get(), upload.name.c_str(), &written, AT_SYMLINK_NOFOLLOW) == 0) {
    answer->set(http::field::etag, validatorsOf(written).entityTag);
  }
  if (!upload.existed) answer->content_length(0);
  fUpload.reset();
  send(answer);
}

void FileSession::serveRemove(const ZR::ZRFileTarget& target) {
  const std::string why = fFolders->changeRefusal(target, ZR::ZRFileChange::Remove);
  if (!why.empty()) return refuse(http::status::forbidden, why);
  vu::beneath::UniqueFd root(vu::beneath::openDirectory(target.root));
  vu::beneath::UniqueFd parent;
  if (root) {
    parent.reset(vu::beneath::openBeneath(
        root.get(), joined(target.components, target.components.size() - 1), O_PATH | O_DIRECTORY));
  }
  if (!parent) {
    if (errno == ELOOP || errno == EXDEV) {
      return refuse(http::status::forbidden, "a symbolic link on the way is not followed");
    }
    return refuse(http::status::not_found, "nothing to remove there");
  }
  struct stat existing;
  if (::fstatat(parent.get(), target.components.back().c_str(), &existing, AT_SYMLINK_NOFOLLOW) !=
      0) {
    return refuse(http::status::not_found, "nothing to remove there");
  }
  const int error =
      vu::beneath::removeTree(parent.get(), target.components.back(), fFolders->keptDirectories());
  if (error != 0) {
    vu::log::write(
        vu::log::warning, kCategory, "delete",
        "removing " + joined(target.components, SIZE_MAX) + " failed: " + std::strerror(error));
    return refuse(error == EBUSY ? http::status::forbidden : http::status::internal_server_error,
                  error == EBUSY ? "it holds a folder this robot depends on; that part stays"
                                 : std::strerror(error));
  }
  send(std::make_shared<http::response<http::empty_body>>(http::status::no_content, fVersion));
}

void FileSession::refuse(http::status status, const std::string& why) {
  const std::string code = std::to_string(static_cast<unsigned>(status));
  auto answer = std::make_shared<Response>(
      textResponse(status, code + " - " + std::string(http::obsolete_reason(status)) + ": " + why));
  answer->prepare_payload();
  send(answer);
}

template <class Body>
void FileSession::send(std::shared_ptr<http::response<Body>> response, std::shared_ptr<void> held) {
  // A request body that was not read cannot be told from the next request.
  if (fHasBody) fKeepAlive = false;
  if (!fCookie.empty()) response->set(http::field::set_cookie, fCookie);
  response->set(http::field::server, "tuqvu/" TUQVU_VERSION);
  // Whatever a client stored, a browser shows it as data from nowhere: no script of an
  // uploaded page runs with this robot's origin.
  response->set("X-Content-Type-Options", "nosniff");
  response->set("Content-Security-Policy", "default-src 'none'; sandbox");
  if (response->find(http::field::cache_control) == response->end()) {
    response->set(http::field::cache_control, "no-cache");
  }
  response->version(fVersion);
  response->keep_alive(fKeepAlive);
  const auto length = response->payload_size();
  fStream.expiresAfter(allowance(length ? *length : 0));
  http::async_write(
      fStream, *response,
      [self = shared_from_this(), response, held](beast::error_code error, std::size_t bytes) {
        if (self->fContext->fileMetrics) self->fContext->fileMetrics->sent->increment(bytes);
        if (error) {
          vu::log::write(vu::log::verbose, kCategory, "write", error.message());
          return;
        }
        self->done(!response->need_eof());
      });
}

void FileSession::done(bool keepAlive) {
  auto next = std::make_shared<HttpSession>(std::move(fStream), std::move(fBuffer), fContext);
  if (keepAlive) {
    next->resume();
  } else {
    next->close();
  }
}

}  // namespace broker
}  // namespace tuqvu
