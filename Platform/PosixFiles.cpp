// The machine's files.
//
// What to know before changing anything here:
// - The store's tree is world-writable: anyone may put a symbolic link where we expect a file. A path's
//   last component is therefore never followed, and what is changed is pinned by an O_PATH descriptor.
// - POSIX record locks, SQLite's among them, belong to the pair of process and file: they are gone as soon
//   as the process closes any descriptor of that file. No file is opened here other than with O_PATH, whose
//   close leaves the locks alone, or in a descriptor table of its own.

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Platform/DirectoryLock.h"
#include "Platform/FileDescriptor.h"
#include "Platform/FileError.h"
#include "Platform/Host.h"
#include "Platform/QuietThread.h"

namespace qx {

namespace {

constexpr mode_t kAllModeBits = 07777;

bool hasNul(const std::string& path) {
  return path.find('\0') != std::string::npos;
}

FileDescriptor openPathOnly(const std::string& path) {
  return FileDescriptor(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

/// Status of `path` below `directory`, or of `directory` itself for an empty path; 0 or the error number.
int readStatus(int directory, const std::string& path, FileStatus* status) {
  if (hasNul(path)) return EINVAL;
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (directory == AT_FDCWD ? 0 : AT_EMPTY_PATH);
  struct statx found;
  if (::statx(directory, path.c_str(), flags, STATX_TYPE | STATX_MODE | STATX_INO | STATX_SIZE | STATX_NLINK,
              &found) != 0) {
    return errno;
  }
  status->isDirectory = S_ISDIR(found.stx_mode);
  status->isRegular = S_ISREG(found.stx_mode);
  status->isSymbolicLink = S_ISLNK(found.stx_mode);
  status->links = found.stx_nlink;
  status->immutable = (found.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
  status->permissions = found.stx_mode & kAllModeBits;
  status->device = ::makedev(found.stx_dev_major, found.stx_dev_minor);
  status->inode = found.stx_ino;
  status->size = found.stx_size;
  return 0;
}

/// The name under which the kernel reaches what an O_PATH descriptor pins, for calls that refuse such a
/// descriptor itself (open(2), "O_PATH").
std::string pinnedName(const FileDescriptor& item) {
  return "/proc/thread-self/fd/" + std::to_string(item.get());
}

int changePermissions(const FileDescriptor& item, mode_t permissions) {
  return ::chmod(pinnedName(item).c_str(), permissions) == 0 ? 0 : errno;
}

bool meansNoSuchFlag(int errorNumber) {
  return errorNumber == ENOTTY || errorNumber == EOPNOTSUPP || errorNumber == ENOSYS;
}

/// Opens the item for real, so it must run in a descriptor table that has no locks to lose.
int changeImmutableFlagHere(const FileDescriptor& item, bool immutable) {
  const FileDescriptor file(::open(pinnedName(item).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file) return errno;
  int flags = 0;
  if (::ioctl(file.get(), FS_IOC_GETFLAGS, &flags) != 0) {
    return meansNoSuchFlag(errno) && !immutable ? 0 : errno;
  }
  const int wanted = immutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
  if (wanted == flags) return 0;
  return ::ioctl(file.get(), FS_IOC_SETFLAGS, &wanted) == 0 ? 0 : errno;
}

/// The flag can only be changed through a real descriptor, and closing one would drop the process's record
/// locks on the file. The kernel keys these locks by descriptor table, though: a thread that has left the
/// shared table owns none of them and may open and close as it likes.
int changeImmutableFlag(const FileDescriptor& item, bool immutable) {
  int result = 0;
  try {
    startQuietThread([&] {
      result = ::unshare(CLONE_FILES) == 0 ? changeImmutableFlagHere(item, immutable) : errno;
    }).join();
  } catch (const std::system_error& failure) {
    return failure.code().value();
  }
  return result;
}

int changeAttributes(const std::string& path, const FileAttributes& wanted) {
  FileStatus now;
  if (const int failed = readStatus(AT_FDCWD, path, &now)) return failed;
  if (now.isSymbolicLink) return ELOOP;
  // A second name may be somebody's link to a file that is not ours to open up.
  if (now.isRegular && now.links > 1) return EMLINK;
  const bool otherPermissions = wanted.permissions && *wanted.permissions != now.permissions;
  const bool immutableAtEnd = wanted.immutable.value_or(now.immutable);
  if (!otherPermissions && immutableAtEnd == now.immutable) return 0;

  const FileDescriptor item = openPathOnly(path);
  if (!item) return errno;
  if (const int failed = readStatus(item.get(), "", &now)) return failed;  // it may be another by now
  if (now.isSymbolicLink) return ELOOP;
  if (now.isRegular && now.links > 1) return EMLINK;
  if (!now.isRegular && !now.isDirectory && wanted.immutable.value_or(false)) return EINVAL;
  const bool unlock = now.immutable && wanted.immutable && (otherPermissions || !immutableAtEnd);
  if (unlock) {
    if (const int failed = changeImmutableFlag(item, false)) return failed;
  }
  if (otherPermissions) {
    if (const int failed = changePermissions(item, *wanted.permissions)) return failed;
  }
  if (immutableAtEnd && (unlock || !now.immutable)) return changeImmutableFlag(item, true);
  return 0;
}

std::string parentOf(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {};
  return path.substr(0, std::max<std::size_t>(slash, 1));
}

/// mkdir(2), with missing parents when `intermediate`; 0 or the error number.
int makeDirectory(const std::string& path, bool intermediate) {
  if (::mkdir(path.c_str(), 0777) == 0) return 0;
  if (errno != ENOENT || !intermediate) return errno;
  const std::string parent = parentOf(path);
  if (parent.empty() || parent.size() >= path.size()) return ENOENT;
  const int failed = makeDirectory(parent, true);
  if (failed != 0 && failed != EEXIST) return failed;
  // A narrow umask must not shut others out of what stands below.
  if (failed == 0) ::chmod(parent.c_str(), 0755);
  return ::mkdir(path.c_str(), 0777) == 0 ? 0 : errno;
}

int setNewDirectoryPermissions(const std::string& path, mode_t permissions) {
  const FileDescriptor item = openPathOnly(path);
  if (!item) return errno;
  FileStatus status;
  if (const int failed = readStatus(item.get(), "", &status)) return failed;
  if (!status.isDirectory) return ENOTDIR;
  return status.permissions == permissions ? 0 : changePermissions(item, permissions);
}

}  // namespace

bool PosixHost::fileExists(const std::string& path) const {
  return !hasNul(path) && ::faccessat(AT_FDCWD, path.c_str(), F_OK, AT_EACCESS) == 0;
}

bool PosixHost::isWritable(const std::string& path) const {
  FileStatus status;
  if (readStatus(AT_FDCWD, path, &status) != 0 || status.isSymbolicLink) return false;
  return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

std::optional<FileStatus> PosixHost::status(const std::string& path, ErrorPtr* error) const {
  FileStatus status;
  const int failed = readStatus(AT_FDCWD, path, &status);
  if (failed == 0) return status;
  setError(error, makeFileError(FileAccess::read, failed, "look at", path));
  return std::nullopt;
}

bool PosixHost::setAttributes(const std::string& path, const FileAttributes& attributes, ErrorPtr* error) {
  const int failed = changeAttributes(path, attributes);
  if (failed == 0) return true;
  setError(error, makeFileError(FileAccess::write, failed, "change the attributes of", path));
  return false;
}

bool PosixHost::createDirectory(const std::string& path, bool intermediate, std::optional<mode_t> permissions,
                                ErrorPtr* error) {
  int failed = hasNul(path) ? EINVAL : makeDirectory(path, intermediate);
  if (failed == EEXIST && intermediate) {
    FileStatus status;
    if (readStatus(AT_FDCWD, path, &status) == 0 && status.isDirectory) return true;
  }
  if (failed == 0 && permissions) failed = setNewDirectoryPermissions(path, *permissions);
  if (failed == 0) return true;
  setError(error, makeFileError(FileAccess::write, failed, "create the directory", path));
  return false;
}

// libstdc++ walks the tree with openat and unlinkat, each step relative to the directory it has open and
// with O_NOFOLLOW: a link that is put in place meanwhile is removed, not followed. It opens directories
// only, so no record lock is lost.
bool PosixHost::removeItem(const std::string& path, ErrorPtr* error) {
  FileStatus status;
  int failed = readStatus(AT_FDCWD, path, &status);
  if (failed == 0) {
    std::error_code code;
    std::filesystem::remove_all(path, code);
    failed = code.value();
  }
  if (failed == 0) return true;
  setError(error, makeFileError(FileAccess::write, failed, "remove", path));
  return false;
}

std::optional<std::vector<std::string>> PosixHost::contentsOfDirectory(const std::string& path,
                                                                       bool skipHidden,
                                                                       ErrorPtr* error) const {
  const auto fail = [&](int errorNumber) -> std::optional<std::vector<std::string>> {
    setError(error, makeFileError(FileAccess::read, errorNumber, "list", path));
    return std::nullopt;
  };
  if (hasNul(path)) return fail(EINVAL);
  FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) return fail(errno);
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(directory.get()), ::closedir);
  if (!stream) return fail(errno);
  directory.release();  // the stream closes it

  std::vector<std::string> names;
  errno = 0;
  while (const dirent* const entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == ".." || (skipHidden && name.front() == '.')) continue;
    names.emplace_back(name);
  }
  if (errno != 0) return fail(errno);
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<std::uint64_t> PosixHost::freeSize(const std::string& path, ErrorPtr* error) const {
  const FileDescriptor item = openPathOnly(path);
  struct statvfs found;
  if (hasNul(path) || !item || ::fstatvfs(item.get(), &found) != 0) {
    setError(error,
             makeFileError(FileAccess::read, hasNul(path) ? EINVAL : errno, "measure free space at", path));
    return std::nullopt;
  }
  return std::uint64_t{found.f_bavail} * found.f_frsize;
}

void PosixHost::coordinateWriting(const std::string& directory, ErrorPtr* error,
                                  const std::function<void()>& accessor) {
  const std::shared_ptr<DirectoryLock> lock = DirectoryLock::forDirectory(directory, error);
  if (!lock) return accessor();
  if (!lock->lock(std::chrono::milliseconds(kPatienceMilliseconds))) {
    setError(error, makeFileError(FileAccess::write, ETIMEDOUT, "get the lock of", directory));
  }
  struct Unlocking {
    DirectoryLock& lock;
    ~Unlocking() { lock.unlock(); }
  } const unlocking{*lock};
  accessor();
}

}  // namespace qx
