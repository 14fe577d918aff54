// Packages: a project's files in one archive (zip or tar, compressed or not).
//
//   vu::project::ArchiveFormat format = vu::project::ArchiveFormatDetect;
//   vu::project::importProject("/tmp/wave.pkg", "/tmp/unpacked", format);  // throws on failure
//   // format is now ArchiveFormatZip or ArchiveFormatTar
#pragma once

#include <vu/project/error.h>

#include <string>

namespace vu {
namespace project {

enum ArchiveFormat {
  ArchiveFormatDetect = -2,   // find the format from the content
  ArchiveFormatUnknown = -1,  // written back when detection found no archive
  ArchiveFormatZip = 0,
  ArchiveFormatTar = 1,  // any tar dialect, compressed or not
};

// Unpacks the package into destDir, which is created (with its parents) when missing.
// format selects the archive format, or ArchiveFormatDetect to find it from the
// content; the format found is written back.
//
// Throws ProjectError ("<package> is not a package: <reason>") for a file that is
// not a zip or tar archive, a truncated or damaged archive, and an entry that would
// land outside destDir (absolute path, ".." component, link pointing outside). The
// archive is unpacked beside destDir first, so a failure leaves nothing behind: what
// the call created is removed and an existing destDir is not touched. A destDir the
// call created is taken by BehaviorLibraryProject::importBehavior as a scratch copy that
// may be moved into the library rather than copied.
void importProject(const std::string& packagePath, const std::string& destDir,
                   ArchiveFormat& format);

}  // namespace project
}  // namespace vu
