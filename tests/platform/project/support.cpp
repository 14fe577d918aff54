#include "support.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace projecttest {

ScratchDir::ScratchDir() {
  const fs::path base =
      fs::temp_directory_path() / fs::unique_path("vu-project-test-%%%%-%%%%-%%%%");
  fs::create_directories(base);
  fPath = fs::canonical(base).string();
}

ScratchDir::~ScratchDir() {
  boost::system::error_code ignored;
  fs::remove_all(fPath, ignored);
}

void writeFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) {
    throw std::runtime_error("cannot write " + path);
  }
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

bool exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(dir), end; it != end; ++it) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string projectXml(const std::string& type, const std::vector<std::string>& tags) {
  std::string xml = "<?xml version=\"1.0\"?>\n<project>\n";
  if (!type.empty()) {
    xml += "  <metadata key=\"Type\" value=\"" + type + "\"/>\n";
  }
  for (const std::string& tag : tags) {
    xml += "  <tag>" + tag + "</tag>\n";
  }
  return xml + "</project>\n";
}

void makeBehavior(const std::string& dir, const std::vector<std::string>& tags,
                  const std::string& xar) {
  fs::create_directories(dir);
  if (!tags.empty()) {
    writeFile(dir + "/project.xml", projectXml("Behavior", tags));
  }
  writeFile(dir + "/behavior.xar", xar);
}

void writeArchive(const std::string& file, Container container,
                  const std::vector<ArchiveEntry>& entries) {
  struct archive* a = archive_write_new();
  if (container == Container::Zip) {
    archive_write_set_format_zip(a);
  } else {
    archive_write_set_format_pax_restricted(a);
    if (container == Container::TarGz) {
      archive_write_add_filter_gzip(a);
    }
  }
  if (archive_write_open_filename(a, file.c_str()) != ARCHIVE_OK) {
    const std::string error = archive_error_string(a);
    archive_write_free(a);
    throw std::runtime_error("cannot write " + file + ": " + error);
  }
  for (const ArchiveEntry& item : entries) {
    struct archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, item.path.c_str());
    archive_entry_set_mtime(entry, 1700000000, 0);
    switch (item.kind) {
      case ArchiveEntry::File:
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_perm(entry, 0644);
        archive_entry_set_size(entry, static_cast<la_int64_t>(item.data.size()));
        break;
      case ArchiveEntry::Directory:
        archive_entry_set_filetype(entry, AE_IFDIR);
        archive_entry_set_perm(entry, 0755);
        break;
      case ArchiveEntry::Symlink:
        archive_entry_set_filetype(entry, AE_IFLNK);
        archive_entry_set_perm(entry, 0777);
        archive_entry_set_symlink(entry, item.data.c_str());
        break;
      case ArchiveEntry::Hardlink:
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_perm(entry, 0644);
        archive_entry_set_hardlink(entry, item.data.c_str());
        archive_entry_set_size(entry, 0);
        break;
    }
    if (archive_write_header(a, entry) != ARCHIVE_OK) {
      const std::string error = archive_error_string(a);
      archive_entry_free(entry);
      archive_write_free(a);
      throw std::runtime_error("cannot add " + item.path + ": " + error);
    }
    if (item.kind == ArchiveEntry::File && !item.data.empty()) {
      archive_write_data(a, item.data.data(), item.data.size());
    }
    archive_entry_free(entry);
  }
  archive_write_close(a);
  archive_write_free(a);
}

std::string noise(std::size_t size) {
  std::mt19937 generator(12345);
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(generator() & 0xff);
  }
  return bytes;
}

const std::vector<ArchiveEntry>& wavePackage() {
  static const std::vector<ArchiveEntry> entries = {
      {"project.xml", ArchiveEntry::File,
       "<project><metadata key=\"Type\" value=\"Behavior\"/></project>"},
      {"behavior.xar", ArchiveEntry::File, "<xar/>"},
      {"data/", ArchiveEntry::Directory, ""},
      {"data/anim.bin", ArchiveEntry::File, "frames"},
      {"data/link", ArchiveEntry::Symlink, "anim.bin"},
      {"data/up", ArchiveEntry::Symlink, "../behavior.xar"},
  };
  return entries;
}

}  // namespace projecttest
