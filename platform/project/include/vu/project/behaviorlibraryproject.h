// vu::project::BehaviorLibraryProject — a directory of behaviors: listing, tags, import,
// removal, and notifications of the changes made through it.
//
//   vu::project::BehaviorLibraryProject library(root);
//   library.behaviorAdded.connect(boost::bind(&Client::onAdded, this, boost::placeholders::_1));
//   library.importBehavior("/tmp/unpacked", "greetings/wave", true);  // fires "added"
//   library.behaviorPaths("greetings", true);                         // {"greetings/wave"}
//
// Paths given to and returned by the library are relative to its root, with "/"
// separators and no leading or trailing separator; "" is the whole library. Every
// query reflects the disk at the time of the call, including changes made by other
// programs. All members may be called from several threads at once.
#pragma once

#include <vu/project/library.h>
#include <vu/project/project.h>

#include <boost/signals2/signal.hpp>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace vu {
namespace project {

namespace detail {
class LibraryIndex;
}

class BehaviorLibraryProject : public Project {
public:
  // The library rooted at root. "" gives an invalid library that holds nothing; a root
  // that does not exist yet is watched for and indexed once it appears.
  explicit BehaviorLibraryProject(const std::string& root);
  // A library of the same root; the new object has its own signals, with no slot.
  BehaviorLibraryProject(const BehaviorLibraryProject& other);
  // Makes this object the library other is. The signals of this object and their
  // connected slots stay as they are.
  BehaviorLibraryProject& operator=(const BehaviorLibraryProject& other);
  ~BehaviorLibraryProject() override;

  // The behaviors at or below subPath, sorted: subPath itself when it is a behavior,
  // else the behaviors below it (all depths when recursive, only its direct children
  // otherwise). A behavior directory is not looked into, so a behavior inside another
  // is not listed. A subPath with a ".." component gives the empty set.
  std::set<std::string> behaviorPaths(const std::string& subPath, bool recursive) const;

  // True when relPath names a behavior of the library (as listed by behaviorPaths).
  bool hasBehavior(const std::string& relPath) const;

  // The tags of the behaviors behaviorPaths(subPath, recursive) lists, merged.
  std::set<std::string> tags(const std::string& subPath, bool recursive) const;

  // The paths of the behaviors that carry tag.
  std::set<std::string> findTag(const std::string& tag) const;

  // Copies the behavior directory sourceDir to <root>/<localPath> and fires
  // behaviorUpdated when the library already knew a behavior at localPath, else
  // behaviorAdded (behaviorRemoved first for behaviors that lay below localPath and are
  // hidden or replaced now). The library knows the behaviors that were on disk when it
  // was opened and those imported through it since, less those removed through it: a
  // behavior written below the root by other means (a file server) and then imported in
  // place is "added" the first time and "updated" afterwards. When sourceDir already is
  // the destination directory nothing is copied, whatever overwrite says. Returns false,
  // and fires nothing, when sourceDir is not a behavior, localPath is empty, leaves the
  // root or lies inside another behavior, something else exists at the destination and
  // overwrite is false, or the copy fails. An overwrite copies beside the destination and
  // swaps the two, so the path never shows a half-copied behavior.
  //
  // A sourceDir that importProject created and filled (and that still is that directory)
  // is a scratch copy of a package: it is moved into the library instead of copied when
  // it lies on the library's file system, and so is gone after a successful import. A
  // failed import leaves it where it was.
  bool importBehavior(const std::string& sourceDir, const std::string& localPath, bool overwrite);

  // Deletes the behavior directory relPath and fires behaviorRemoved. False when relPath
  // is not a behavior of the library or cannot be deleted.
  bool removeBehavior(const std::string& relPath);

  // Notifications of the changes made through this object, carrying the behavior path.
  // They are fired on the calling thread with no lock of the library held, so a slot
  // may query the library. Changes made by other means are seen by the queries but
  // not announced.
  boost::signals2::signal<void(const std::string&)> behaviorAdded;
  boost::signals2::signal<void(const std::string&)> behaviorUpdated;
  boost::signals2::signal<void(const std::string&)> behaviorRemoved;

private:
  std::shared_ptr<detail::LibraryIndex> index() const;

  // Guards fIndex and fKnown, which operator= replaces while other threads read them.
  // Taken after the index's write lock when both are held, never while a signal fires.
  mutable std::mutex fMutex;
  std::shared_ptr<detail::LibraryIndex> fIndex;  // null for a library made from ""
  std::set<std::string> fKnown;  // the behaviors the library knows (see importBehavior)
};

}  // namespace project
}  // namespace vu
