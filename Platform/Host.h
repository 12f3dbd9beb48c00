#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

/// What setAttributes() is to change; a missing member stays as it is.
struct FileAttributes {
  std::optional<mode_t> permissions;  // the nine permission bits
  std::optional<bool> immutable;      // the file system's immutable flag
};

/// What the machine says of a file, without opening it.
struct FileStatus {
  bool isDirectory = false;
  bool isRegular = false;
  bool isSymbolicLink = false;
  bool immutable = false;
  mode_t permissions = 0;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::uint64_t links = 1;  // names that lead to it
};

/// The machine: files, users, disk, processes. One real implementation (PosixHost); tests override
/// single functions with a ScopedHost.
///
/// Threads: any. Functions that take a path take it as it is, except resolve(). None of them follows a
/// symbolic link in a path's last component, unless it says so: the store's tree is world-writable.
class Host {
 public:
  virtual ~Host() = default;

  /// The host in force.
  static Host& current();

  /// A fixed machine-wide path ("/Users/Shared/...", or "/" for the disk) under the volume root.
  virtual std::string resolve(std::string_view fixedPath) const = 0;

  /// Whether anything is at `path` (a symbolic link counts by what it points to).
  virtual bool fileExists(const std::string& path) const = 0;
  /// Whether the process (by its effective user) may write there; false when missing.
  virtual bool isWritable(const std::string& path) const = 0;
  /// Empty when there is nothing at `path`, with *error of NSCocoaErrorDomain: 260 missing, 257 no right
  /// to look, else 256, and the POSIX error underneath.
  virtual std::optional<FileStatus> status(const std::string& path, ErrorPtr* error = nullptr) const = 0;
  /// Makes only the system calls that change something. The immutable flag is cleared before, and set
  /// after, the permissions. A path whose last component is a symbolic link, and a file with a second name,
  /// are refused (513). False, with *error set, when anything could not be done; a file system without the
  /// flag counts as not immutable. Never drops the record locks that this process holds on the file.
  virtual bool setAttributes(const std::string& path, const FileAttributes& attributes,
                             ErrorPtr* error = nullptr) = 0;
  /// With `intermediate`, missing parents are made too (with default permissions), and a directory that is
  /// there already is fine. `permissions`: exactly these, whatever the umask; none means the default.
  virtual bool createDirectory(const std::string& path, bool intermediate, std::optional<mode_t> permissions,
                               ErrorPtr* error = nullptr) = 0;
  /// Removes a file, a symbolic link (not its target) or a directory with all that is in it.
  virtual bool removeItem(const std::string& path, ErrorPtr* error = nullptr) = 0;
  /// Names in the directory, sorted; without those that begin with "." when `skipHidden`.
  virtual std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path,
                                                                      bool skipHidden,
                                                                      ErrorPtr* error = nullptr) const = 0;
  /// Free bytes (for ordinary users) of the file system that holds `path`.
  virtual std::optional<std::uint64_t> freeSize(const std::string& path, ErrorPtr* error = nullptr) const = 0;

  /// Runs `accessor` while other processes' coordinated writing of `directory` is held off (flock on the
  /// directory; the kernel lets go when a process dies). When the lock cannot be had - no such directory,
  /// or its holder does not let go for `kPatience` - the accessor runs all the same and *error tells why:
  /// the lock keeps order among the well-behaved, the store itself is guarded by SQLite's locks.
  virtual void coordinateWriting(const std::string& directory, ErrorPtr* error,
                                 const std::function<void()>& accessor) = 0;
  static constexpr std::uint64_t kPatienceMilliseconds = 5000;

  /// Login name of the process's effective user; its number as text when it has no name.
  virtual std::string userName() const = 0;

  /// One line for each process of the effective user: its number, a blank, and its full command line with
  /// blanks between the arguments; empty when the list cannot be read. Decoded as UTF-8 as far as it is.
  virtual String processListing() const = 0;
  /// Starts a program in a session of its own, with standard streams on /dev/null, and does not wait for
  /// it; no shell, and no child left behind as a zombie.
  virtual bool startDetached(const std::string& executable, const std::vector<std::string>& arguments,
                             ErrorPtr* error = nullptr) = 0;
};

/// The machine itself.
class PosixHost : public Host {
 public:
  std::string resolve(std::string_view fixedPath) const override;
  bool fileExists(const std::string& path) const override;
  bool isWritable(const std::string& path) const override;
  std::optional<FileStatus> status(const std::string& path, ErrorPtr* error) const override;
  bool setAttributes(const std::string& path, const FileAttributes& attributes, ErrorPtr* error) override;
  bool createDirectory(const std::string& path, bool intermediate, std::optional<mode_t> permissions,
                       ErrorPtr* error) override;
  bool removeItem(const std::string& path, ErrorPtr* error) override;
  std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path, bool skipHidden,
                                                              ErrorPtr* error) const override;
  std::optional<std::uint64_t> freeSize(const std::string& path, ErrorPtr* error) const override;
  void coordinateWriting(const std::string& directory, ErrorPtr* error,
                         const std::function<void()>& accessor) override;
  std::string userName() const override;
  String processListing() const override;
  bool startDetached(const std::string& executable, const std::vector<std::string>& arguments,
                     ErrorPtr* error) override;
};

/// Puts `host` in force for as long as it lives (tests). Not nested across threads.
class ScopedHost {
 public:
  explicit ScopedHost(Host& host);
  ~ScopedHost();
  ScopedHost(const ScopedHost&) = delete;
  ScopedHost& operator=(const ScopedHost&) = delete;

 private:
  Host* previous_;
};

}  // namespace qx
