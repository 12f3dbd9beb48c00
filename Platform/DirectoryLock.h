#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <QXEventStoring/Platform/Error.h>

namespace qx {

/// A lock between processes that stands on a directory: flock, which the kernel hands on in order of
/// arrival and lets go when its holder dies.
///
/// Re-entrant for the thread that holds it; between the threads of one process it is a mutex. All
/// DirectoryLocks of one directory in one process are the same lock.
///
/// A holder that does not let go in time is passed by: lock() then returns false and the caller goes on
/// without it (unlock() is called all the same); as long as that holder stays, later calls pass at once.
class DirectoryLock {
 public:
  /// The lock of `directory`; null, with *error set (NSCocoaErrorDomain, POSIX error underneath), when it
  /// cannot be opened. A directory that was replaced since gives a new lock.
  static std::shared_ptr<DirectoryLock> forDirectory(const std::string& directory, ErrorPtr* error = nullptr);

  virtual ~DirectoryLock() = default;
  /// Waits for the lock, at most `patience`; whether it is now held.
  virtual bool lock(std::chrono::milliseconds patience) = 0;
  virtual void unlock() = 0;

 protected:
  DirectoryLock() = default;
};

}  // namespace qx
