#include "ObjectStore/StoreFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "ObjectStore/SQLiteErrors.h"
#include "Platform/Host.h"
#include "Platform/UUID.h"

namespace qx {

namespace {

constexpr std::string_view kUnfinishedSuffix = ".new";
// A store is shared by all users from the moment it can be seen.
constexpr mode_t kOpenToAll = 0666;
constexpr std::time_t kUnfinishedAge = 3600;  // seconds after which nobody can still be at work on one

/// Removes what makers that died left behind: `.NAME-UUID.new` files of more than an hour ago.
void removeAbandoned(const std::string& directory, const std::string& prefix) {
  const auto names = Host::current().contentsOfDirectory(directory, false, nullptr);
  if (!names) return;
  for (const std::string& name : *names) {
    if (!name.starts_with(prefix) || !name.ends_with(kUnfinishedSuffix)) continue;
    const std::string path = directory + "/" + name;
    struct stat status = {};
    const bool old = ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
                     std::time(nullptr) - status.st_mtime > kUnfinishedAge;
    if (old) ::unlink(path.c_str());
  }
}

/// rename(2) that refuses to replace anything; 0 or errno.
int renameToFreeName(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without that flag: a hard link refuses too.
  if (::link(from.c_str(), to.c_str()) != 0) return errno;
  ::unlink(from.c_str());
  return 0;
}

void syncDirectory(const std::string& directory) {
  const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return;
  ::fsync(descriptor);
  ::close(descriptor);
}

}  // namespace

std::optional<FileIdentity> storeFileIdentity(const std::string& path, ErrorPtr* error) {
  const auto status = Host::current().status(path, error);
  if (!status) return std::nullopt;
  if (status->isRegular) return FileIdentity{status->device, status->inode};
  setError(error, storeError(kStoreCorrupt, path,
                             status->isSymbolicLink ? "a symbolic link stands in its place"
                                                    : "what stands in its place is no regular file"));
  return std::nullopt;
}

NewStoreFile::NewStoreFile(const std::string& path) : path_(path) {
  const std::size_t slash = path.rfind('/');
  directory_ = path.substr(0, slash);
  const std::string prefix = "." + path.substr(slash + 1) + "-";
  removeAbandoned(directory_, prefix);
  temporary_ = directory_ + "/" + prefix + makeUUID() + std::string(kUnfinishedSuffix);
}

NewStoreFile::~NewStoreFile() {
  if (!moved_) ::unlink(temporary_.c_str());
}

/// The journal of a file that is gone belongs to nobody; SQLite would play it into ours.
void NewStoreFile::removeOrphans() const {
  struct stat status = {};
  if (::lstat(path_.c_str(), &status) == 0 && !S_ISLNK(status.st_mode)) return;
  for (const char* suffix : {"-journal", "-wal", "-shm"})
    ::unlink((path_ + suffix).c_str());
}

bool NewStoreFile::moveIntoPlace(ErrorPtr* error) {
  removeOrphans();
  ::chmod(temporary_.c_str(), kOpenToAll);
  int problem = renameToFreeName(temporary_, path_);
  if (problem == EEXIST) {
    struct stat status = {};
    if (::lstat(path_.c_str(), &status) == 0 && S_ISLNK(status.st_mode))
      problem = std::rename(temporary_.c_str(), path_.c_str()) == 0 ? 0 : errno;
  }
  if (problem == EEXIST) {
    setError(error, storeError(kStoreFileExists, path_, "there is a file already"));
    return false;
  }
  if (problem != 0) {
    setError(error, storeError(kStoreSaveRefused, path_, std::strerror(problem)));
    return false;
  }
  moved_ = true;
  syncDirectory(directory_);
  return true;
}

}  // namespace qx
