#include "detail/unpacker.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/statvfs.h>
#include <vu/beneath.h>
#include <vu/project/error.h>
#include <vu/settings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "detail/paths.h"

namespace vu {
namespace project {
namespace detail {
namespace {

struct ReaderDeleter {
  void operator()(struct archive* a) const { archive_read_free(a); }
};
struct WriterDeleter {
  void operator()(struct archive* a) const { archive_write_free(a); }
};

std::string errorText(struct archive* a) {
  const char* text = archive_error_string(a);
  return text != nullptr ? text : "unknown error";
}

// How much a package may unpack to: at most maxBytes, at most `ratio` times its own size
// (a small archive that unpacks to gigabytes is a bomb, not a behavior) unless it stays
// under kRatioFloor, and never so much that the disk would keep less than reserveBytes
// (0: no such check; a full disk then fails the write itself).
struct UnpackLimits {
  static constexpr std::uint64_t kRatioFloor = std::uint64_t{16} << 20;
  std::uint64_t maxBytes = std::uint64_t{1} << 30;
  std::uint64_t ratio = 200;
  std::uint64_t reserveBytes = std::uint64_t{256} << 20;
  // Entries of every kind: each costs a file, a folder or a link on disk and time to
  // copy and remove, whatever its size.
  std::uint64_t maxEntries = 50000;

  static UnpackLimits fromEnvironment() {
    UnpackLimits limits;
    limits.maxBytes =
        vu::settings::positiveNumber("TUQVU_PACKAGE_MAX_UNPACKED_BYTES", limits.maxBytes);
    limits.ratio = vu::settings::positiveNumber("TUQVU_PACKAGE_MAX_RATIO", limits.ratio,
                                                std::uint64_t{1} << 32);
    limits.reserveBytes =
        vu::settings::wholeNumber("TUQVU_PACKAGE_DISK_RESERVE_BYTES", limits.reserveBytes, 0);
    limits.maxEntries =
        vu::settings::positiveNumber("TUQVU_PACKAGE_MAX_ENTRIES", limits.maxEntries);
    return limits;
  }

  // The most a package of `packageBytes` bytes may unpack to.
  std::uint64_t allowedFor(std::uint64_t packageBytes) const {
    const std::uint64_t byRatio =
        packageBytes > UINT64_MAX / ratio ? UINT64_MAX : packageBytes * ratio;
    return std::min(maxBytes, std::max(kRatioFloor, byRatio));
  }
};

class Unpacker {
public:
  Unpacker(const std::string& package, const std::string& into, std::uint64_t packageBytes)
      : fPackage(package),
        fInto(into),
        fLimits(UnpackLimits::fromEnvironment()),
        fAllowed(fLimits.allowedFor(packageBytes)) {}

  ArchiveFormat run(ArchiveFormat format) {
    std::unique_ptr<struct archive, ReaderDeleter> reader(archive_read_new());
    std::unique_ptr<struct archive, WriterDeleter> writer(archive_write_disk_new());
    if (!reader || !writer) {
      throw ProjectError("cannot unpack " + fPackage + ": out of memory");
    }
    archive_read_support_filter_all(reader.get());
    if (format == ArchiveFormatDetect || format == ArchiveFormatZip) {
      archive_read_support_format_zip(reader.get());
    }
    if (format == ArchiveFormatDetect || format == ArchiveFormatTar) {
      archive_read_support_format_tar(reader.get());
    }
    // Entries never pass through a link on disk, nor climb with "..".
    archive_write_disk_set_options(writer.get(), ARCHIVE_EXTRACT_TIME |
                                                     ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                                     ARCHIVE_EXTRACT_SECURE_NODOTDOT);
    if (archive_read_open_filename(reader.get(), fPackage.c_str(), 64 * 1024) != ARCHIVE_OK) {
      fail(errorText(reader.get()));
    }
    int files = 0;
    std::uint64_t entries = 0;
    for (;;) {
      struct archive_entry* entry = nullptr;
      const int status = archive_read_next_header(reader.get(), &entry);
      if (status == ARCHIVE_EOF) {
        break;
      }
      if (status < ARCHIVE_WARN) {
        fail(errorText(reader.get()));
      }
      if (++entries > fLimits.maxEntries) {
        throw ProjectError(fPackage + " is refused: it holds more than " +
                           std::to_string(fLimits.maxEntries) +
                           " entries (TUQVU_PACKAGE_MAX_ENTRIES)");
      }
      if (unpackEntry(reader.get(), writer.get(), entry)) {
        ++files;
      }
    }
    if (archive_write_close(writer.get()) != ARCHIVE_OK) {
      fail("cannot finish unpacking: " + errorText(writer.get()));
    }
    if (files == 0) {
      fail("the archive holds no file");
    }
    switch (archive_format(reader.get()) & ARCHIVE_FORMAT_BASE_MASK) {
      case ARCHIVE_FORMAT_ZIP: return ArchiveFormatZip;
      case ARCHIVE_FORMAT_TAR: return ArchiveFormatTar;
      default: return ArchiveFormatUnknown;
    }
  }

private:
  [[noreturn]] void fail(const std::string& reason) const {
    throw ProjectError(fPackage + " is not a package: " + reason);
  }

  // The entry's path inside the package, checked: relative and without "..".
  std::string checkedPath(const char* name, const char* what) const {
    if (name == nullptr || *name == '\0') {
      fail(std::string("an entry has no ") + what);
    }
    if (name[0] == '/') {
      fail(std::string("entry \"") + name + "\" has an absolute " + what);
    }
    std::string rel;
    if (!detail::normalizeRelative(name, rel)) {
      fail(std::string("entry \"") + name + "\" leads outside the package (\"..\" in its " + what +
           ")");
    }
    return rel;
  }

  // Unpacks one entry; false for an entry that names the top level itself.
  bool unpackEntry(struct archive* reader, struct archive* writer, struct archive_entry* entry) {
    // Copied: the entry's own strings change with archive_entry_set_pathname below.
    const char* rawName = archive_entry_pathname(entry);
    const std::string name = rawName != nullptr ? rawName : "";
    const std::string rel = checkedPath(rawName, "path");
    const mode_t type = archive_entry_filetype(entry);
    const char* rawHardlink = archive_entry_hardlink(entry);
    const bool hardlink = rawHardlink != nullptr;
    if (rel.empty()) {
      if (type != AE_IFDIR) {
        fail(std::string("entry \"") + name + "\" is not a file name");
      }
      archive_read_data_skip(reader);
      return false;
    }
    std::string hardlinkTarget;
    if (hardlink) {
      hardlinkTarget = detail::joinPath(fInto, checkedPath(rawHardlink, "link target"));
    } else if (type == AE_IFLNK) {
      const char* target = archive_entry_symlink(entry);
      // Checked against the package's top, the folder a package install puts in place;
      // copies of a folder below it check its links again (vu::beneath::copyTree).
      if (target == nullptr || !vu::beneath::linkStaysWithin(rel, target)) {
        fail(std::string("entry \"") + name + "\" is a link pointing outside the package (to \"" +
             (target != nullptr ? target : "") + "\")");
      }
    } else if (type != AE_IFREG && type != AE_IFDIR) {
      fail(std::string("entry \"") + name + "\" is not a file, a directory or a link");
    }
    const std::string full = detail::joinPath(fInto, rel);
    archive_entry_set_pathname(entry, full.c_str());
    if (hardlink) {
      archive_entry_set_hardlink(entry, hardlinkTarget.c_str());
    }
    if (archive_write_header(writer, entry) < ARCHIVE_WARN) {
      fail(std::string("cannot unpack entry \"") + name + "\": " + errorText(writer));
    }
    if (archive_entry_size_is_set(entry) == 0 || archive_entry_size(entry) > 0) {
      const void* block = nullptr;
      size_t size = 0;
      la_int64_t offset = 0;
      for (;;) {
        const int status = archive_read_data_block(reader, &block, &size, &offset);
        if (status == ARCHIVE_EOF) {
          break;
        }
        if (status < ARCHIVE_WARN) {
          fail(std::string("cannot read entry \"") + name + "\": " + errorText(reader));
        }
        admit(size);
        // A write that fails (a full disk, an I/O error) is only a warning to libarchive,
        // which then leaves the file short; unlike its harmless warnings it carries errno.
        archive_clear_error(writer);
        const la_ssize_t written = archive_write_data_block(writer, block, size, offset);
        const int error = archive_errno(writer);
        if (written < ARCHIVE_WARN || (written == ARCHIVE_WARN && error != 0)) {
          fail(std::string("cannot unpack entry \"") + name + "\": " + errorText(writer) +
               (error != 0 ? std::string(": ") + std::strerror(error) : std::string()));
        }
      }
    }
    if (archive_write_finish_entry(writer) < ARCHIVE_WARN) {
      fail(std::string("cannot unpack entry \"") + name + "\": " + errorText(writer));
    }
    return true;
  }

  // Counts `size` more bytes unpacked; refuses the package when that passes its limit or
  // would leave the disk with less than the reserve.
  void admit(std::size_t size) {
    fUnpacked += size;
    if (fUnpacked > fAllowed) {
      throw ProjectError(
          fPackage + " is refused: it unpacks to more than " + std::to_string(fAllowed) +
          " bytes (at most " + std::to_string(fLimits.ratio) + " times its size above " +
          std::to_string(UnpackLimits::kRatioFloor) + ", TUQVU_PACKAGE_MAX_RATIO, and at most " +
          std::to_string(fLimits.maxBytes) + ", TUQVU_PACKAGE_MAX_UNPACKED_BYTES)");
    }
    struct statvfs disk;
    if (fLimits.reserveBytes > 0 && ::statvfs(fInto.c_str(), &disk) == 0) {
      const std::uint64_t free = static_cast<std::uint64_t>(disk.f_bavail) * disk.f_frsize;
      if (free < fLimits.reserveBytes + size) {
        throw ProjectError(fPackage + " is refused: unpacking it would leave less than " +
                           std::to_string(fLimits.reserveBytes) +
                           " bytes free on the disk (TUQVU_PACKAGE_DISK_RESERVE_BYTES)");
      }
    }
  }

  const std::string fPackage;
  const std::string fInto;  // a real path (no link in it), so link checks start inside
  const UnpackLimits fLimits;
  const std::uint64_t fAllowed;
  std::uint64_t fUnpacked = 0;
};

}  // namespace

ArchiveFormat unpackInto(const std::string& package, const std::string& into,
                         std::uint64_t packageBytes, ArchiveFormat format) {
  return Unpacker(package, into, packageBytes).run(format);
}

}  // namespace detail
}  // namespace project
}  // namespace vu
