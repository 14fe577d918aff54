// Fuzzes the reader of project.xml, the metadata file of a project (its "Type", its
// tags). The input is the file's content, written into a project directory. A malformed
// file must be read as having no metadata (logged, never thrown); a file that is read
// gives tags that are sorted, unique and trimmed, and the same metadata through the
// public Project API as through the reader itself.
#include <sys/stat.h>
#include <vu/project/project.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "../common/sandbox.h"
#include "detail/projectfile.h"

namespace {

std::string gDir;

[[noreturn]] void fail(const std::string& what, const std::string& input) {
  std::fprintf(stderr, "project.xml: %s\n  input: %s\n", what.c_str(),
               fuzzsupport::printable(input).c_str());
  std::abort();
}

bool blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silenceLog();
  gDir = fuzzsupport::makeTempDir("tuqvu-fuzz-projectxml", true) + "/wave";
  fuzzsupport::removeTree(gDir);
  std::atexit([] { fuzzsupport::removeTree(gDir.substr(0, gDir.rfind('/'))); });
  if (::mkdir(gDir.c_str(), 0755) != 0) std::abort();
  fuzzsupport::writeFileOrDie(gDir + "/behavior.xar", "<behavior/>\n");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  fuzzsupport::writeFileOrDie(gDir + "/project.xml", input);

  vu::project::detail::ProjectFile file;
  const auto result = vu::project::detail::readProjectFile(gDir, file, "fuzz");
  const vu::project::Project project(gDir);
  const std::string type = project.getMetadata("Type");

  if (result != vu::project::detail::ReadResult::ok) {
    if (!file.metadata.empty() || !file.tags.empty()) fail("a refused file gave metadata", input);
    if (!type.empty()) fail("a refused file gave the type " + type, input);
    return 0;
  }
  const auto entry = file.metadata.find("Type");
  if (type != (entry == file.metadata.end() ? std::string() : entry->second)) {
    fail("the Project API disagrees with the reader on the type", input);
  }
  for (std::size_t i = 0; i < file.tags.size(); ++i) {
    const std::string& tag = file.tags[i];
    if (tag.empty() || blank(tag.front()) || blank(tag.back())) fail("untrimmed tag", input);
    if (i > 0 && !(file.tags[i - 1] < tag)) fail("tags not sorted and unique", input);
  }
  return 0;
}
