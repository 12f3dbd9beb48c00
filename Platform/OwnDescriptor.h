#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "Platform/FileDescriptor.h"

namespace qx {

/// A descriptor that the library keeps open. A program that closes descriptors it does not know may give the
/// number to a file of its own since: that one is neither used nor closed.
///
/// Files are told apart by device and inode; those that share one inode (eventfd(2), inotify(7)) only from
/// files of other kinds. One thread at a time.
class OwnDescriptor {
 public:
  OwnDescriptor() = default;
  /// Takes over `opened`, at a number past the standard streams', which are left to the program; none, with
  /// errno set, when that cannot be had.
  explicit OwnDescriptor(FileDescriptor opened) {
    constexpr int kFirst = 3;
    if (opened && opened.get() < kFirst) {
      opened = FileDescriptor(::fcntl(opened.get(), F_DUPFD_CLOEXEC, kFirst));
    }
    if (opened && ::fstat(opened.get(), &made_) == 0) descriptor_ = std::move(opened);
  }
  OwnDescriptor(OwnDescriptor&&) noexcept = default;
  OwnDescriptor& operator=(OwnDescriptor&& other) noexcept {
    reset();
    descriptor_ = std::move(other.descriptor_);
    made_ = other.made_;
    return *this;
  }
  ~OwnDescriptor() { reset(); }

  int get() const { return descriptor_.get(); }
  /// Whether it is open and still what was opened.
  bool isOurs() const {
    struct stat now {};
    return descriptor_ && ::fstat(descriptor_.get(), &now) == 0 && now.st_dev == made_.st_dev &&
           now.st_ino == made_.st_ino && (now.st_mode & S_IFMT) == (made_.st_mode & S_IFMT);
  }
  /// Without closing it.
  void forget() { descriptor_.release(); }
  void reset() {
    if (!isOurs()) forget();
    descriptor_.reset();
  }

 private:
  FileDescriptor descriptor_;
  struct stat made_ {};
};

}  // namespace qx
