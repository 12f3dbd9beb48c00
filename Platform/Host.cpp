// Which host is in force, and where the machine-wide tree stands.

#include "Platform/Host.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>

#include <QXEventStoring/Platform/Volume.h>

#include "Platform/FileError.h"
#include "Platform/ForkSafety.h"

namespace qx {

namespace {

std::atomic<Host*> hostInForce{nullptr};

struct VolumeRoot {
  std::mutex mutex;
  std::string path;    // guarded by mutex; no slash at its end, empty for "/"
  bool inUse = false;  // guarded by mutex; paths have been handed out
};

VolumeRoot& theVolumeRoot() {
  return KeptThroughFork<VolumeRoot>::get();
}

}  // namespace

void prepareHostForFork() {
  theVolumeRoot();
  Host::current();
}

Host& Host::current() {
  if (Host* const host = hostInForce.load(std::memory_order_acquire)) return *host;
  static PosixHost& machine = *new PosixHost;
  return machine;
}

ScopedHost::ScopedHost(Host& host) : previous_(hostInForce.exchange(&host)) {}

ScopedHost::~ScopedHost() {
  hostInForce.store(previous_);
}

std::string PosixHost::resolve(std::string_view fixedPath) const {
  VolumeRoot& root = theVolumeRoot();
  const std::lock_guard guard(root.mutex);
  root.inUse = true;
  if (root.path.empty()) return std::string(fixedPath);
  if (fixedPath == "/") return root.path;
  return root.path + std::string(fixedPath);
}

bool setVolumeRoot(std::string_view directory, ErrorPtr* error) {
  const auto refuse = [&](int errorNumber) {
    setError(error, makeFileError(FileAccess::read, errorNumber, "use as volume root", directory));
    return false;
  };
  const std::string name(directory);
  if (name.find('\0') != std::string::npos) return refuse(EINVAL);
  char resolved[PATH_MAX];
  if (::realpath(name.c_str(), resolved) == nullptr) return refuse(errno);
  const std::optional<FileStatus> status = PosixHost().status(resolved, error);
  if (!status) return false;
  if (!status->isDirectory) return refuse(ENOTDIR);

  VolumeRoot& root = theVolumeRoot();
  const std::lock_guard guard(root.mutex);
  if (root.inUse) return refuse(EBUSY);
  root.path = std::string_view(resolved) == "/" ? "" : resolved;
  return true;
}

std::string volumeRoot() {
  VolumeRoot& root = theVolumeRoot();
  const std::lock_guard guard(root.mutex);
  return root.path;
}

}  // namespace qx
