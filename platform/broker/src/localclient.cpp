#include <dirent.h>
#include <sys/stat.h>
#include <tuqvu/broker/localclient.h>
#include <tuqvu/broker/socketowner.h>
#include <unistd.h>
#include <vu/text.h>

#include <string>

namespace tuqvu {
namespace broker {
namespace {

using boost::asio::ip::tcp;

// Whether the process `pid` (its /proc folder's name) has the socket `wanted`
// ("socket:[INODE]") among its descriptors.
bool holdsSocket(const std::string& pid, const std::string& wanted) {
  const std::string folder = "/proc/" + pid + "/fd";
  DIR* descriptors = ::opendir(folder.c_str());
  if (!descriptors) return false;  // another user's, or gone
  bool held = false;
  while (const dirent* descriptor = ::readdir(descriptors)) {
    if (!vu::text::isAllDigits(descriptor->d_name)) continue;
    char target[64];
    const std::string link = folder + "/" + descriptor->d_name;
    const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
    if (length > 0 &&
        wanted.compare(0, std::string::npos, target, static_cast<std::size_t>(length)) == 0) {
      held = true;
      break;
    }
  }
  ::closedir(descriptors);
  return held;
}

std::string socketLink(unsigned long inode) {
  return "socket:[" + std::to_string(inode) + "]";
}

// The process of `uid` that holds the socket `inode`, or 0.
unsigned long processHolding(unsigned long uid, unsigned long inode) {
  const std::string wanted = socketLink(inode);
  DIR* processes = ::opendir("/proc");
  if (!processes) return 0;
  unsigned long holder = 0;
  while (holder == 0) {
    const dirent* process = ::readdir(processes);
    if (!process) break;
    if (!vu::text::isAllDigits(process->d_name)) continue;
    struct stat owner;
    const std::string base = std::string("/proc/") + process->d_name;
    if (::stat(base.c_str(), &owner) != 0 || owner.st_uid != uid) continue;
    if (holdsSocket(process->d_name, wanted)) holder = std::stoul(process->d_name);
  }
  ::closedir(processes);
  return holder;
}

// A dual-stack listener sees an IPv4 client as ::ffff:a.b.c.d; the client's own socket is
// an IPv4 one.
tcp::endpoint unmapped(const tcp::endpoint& endpoint) {
  const auto address = endpoint.address();
  if (address.is_v6() && address.to_v6().is_v4_mapped()) {
    return tcp::endpoint(
        boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6()),
        endpoint.port());
  }
  return endpoint;
}

std::string nameFor(const SocketOwner& owner, unsigned long process) {
  if (process == 0) return "local user " + std::to_string(owner.uid);
  return "local process " + std::to_string(process);
}

}  // namespace

std::string localClientName(const tcp::endpoint& peer, const tcp::endpoint& local) {
  const std::optional<SocketOwner> owner = socketOwner(unmapped(peer), unmapped(local));
  if (!owner) return "local";
  return nameFor(*owner, processHolding(owner->uid, owner->inode));
}

std::string LocalClientNames::nameOf(const tcp::endpoint& peer, const tcp::endpoint& local) {
  const std::optional<SocketOwner> owner = socketOwner(unmapped(peer), unmapped(local));
  if (!owner) return "local";
  unsigned long last = 0;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    const auto found = fLastHolder.find(owner->uid);
    if (found != fLastHolder.end()) last = found->second;
  }
  unsigned long process = 0;
  if (last != 0 && holdsSocket(std::to_string(last), socketLink(owner->inode))) {
    process = last;
  } else {
    process = processHolding(owner->uid, owner->inode);
  }
  if (process != 0) {
    std::lock_guard<std::mutex> lock(fMutex);
    fLastHolder[owner->uid] = process;
  }
  return nameFor(*owner, process);
}

}  // namespace broker
}  // namespace tuqvu
