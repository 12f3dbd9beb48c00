// A lock between processes that stands on a directory.
//
// flock(2) alone does not share fairly: the kernel wakes the first waiter in line when the lock is let go,
// but who asks again before that waiter has run gets the lock, and a process in a tight loop always does.
// So a process that has to wait says so: it puts a shared record lock (F_OFD_SETLK, which a directory that
// is open for reading allows) on one byte of the directory, at an offset of its own. Who wants the lock and
// sees such a mark does not snatch it, but lets the one who has been waiting longest go first, and then
// joins the kernel's line. The marks keep order only; exclusion is flock's alone. Deference is bounded, and
// a mark that outlived it once (a stopped process, or malice) is never deferred to again.
//
// flock(2) has no time limit either. What has to wait is therefore done by a thread of the lock's own, and
// callers wait for that thread as long as they care to.

#include "Platform/DirectoryLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "Platform/FileDescriptor.h"
#include "Platform/FileError.h"
#include "Platform/QuietThread.h"

namespace qx {

namespace {

using Clock = std::chrono::steady_clock;

/// The directory's locks as the kernel has them: no state of this process but the descriptor's.
class KernelLock {
 public:
  explicit KernelLock(FileDescriptor directory) : directory_(std::move(directory)) {}

  /// Takes the lock if it is free and nobody has been waiting for it.
  bool tryLock() { return !oldestMark() && ::flock(directory_.get(), LOCK_EX | LOCK_NB) == 0; }

  /// Waits for the lock in order of arrival. One thread at a time.
  bool lock() {
    const std::optional<off64_t> oldest = oldestMark();
    const off64_t mark = offsets_(random_);
    setMark(F_RDLCK, mark);
    if (oldest) deferTo(*oldest);
    int result = 0;
    do {
      result = ::flock(directory_.get(), LOCK_EX);
    } while (result != 0 && errno == EINTR);
    setMark(F_UNLCK, mark);
    return result == 0;
  }

  void unlock() { ::flock(directory_.get(), LOCK_UN); }

  bool isRemoved() const {
    struct stat status;
    return ::fstat(directory_.get(), &status) != 0 || status.st_nlink == 0;
  }

 private:
  static constexpr std::chrono::milliseconds kDeference{20};
  static constexpr std::size_t kIgnoredMarks = 64;

  static struct flock64 recordLock(short type, off64_t start, off64_t length) {
    struct flock64 lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return lock;
  }

  /// The first mark of another in [start, start + length); the kernel keeps them in order of arrival.
  std::optional<off64_t> firstMark(off64_t start, off64_t length) const {
    struct flock64 lock = recordLock(F_WRLCK, start, length);
    if (::fcntl(directory_.get(), F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return std::nullopt;
    return lock.l_start;
  }

  /// The first mark that is not ignored: the oldest, as long as no mark is ignored.
  std::optional<off64_t> oldestMark() const {
    const std::lock_guard guard(ignoredMutex_);
    off64_t start = 0;
    for (const off64_t ignored : ignored_) {
      if (ignored > start) {
        if (const auto mark = firstMark(start, ignored - start)) return mark;
      }
      start = ignored + 1;
    }
    return firstMark(start, 0);  // 0: to the end
  }

  void setMark(short type, off64_t mark) {
    struct flock64 lock = recordLock(type, mark, 1);
    ::fcntl(directory_.get(), F_OFD_SETLK, &lock);
  }

  void deferTo(off64_t mark) {
    const Clock::time_point end = Clock::now() + kDeference;
    std::chrono::microseconds pause{50};
    while (firstMark(mark, 1)) {
      if (Clock::now() >= end) return ignore(mark);
      std::this_thread::sleep_for(pause);
      // Short against a commit: whoever polls must stand in line before the present holder lets go.
      pause = std::min(pause * 2, std::chrono::microseconds{200});
    }
  }

  void ignore(off64_t mark) {
    const std::lock_guard guard(ignoredMutex_);
    if (ignored_.size() >= kIgnoredMarks) ignored_.clear();
    ignored_.insert(mark);
  }

  const FileDescriptor directory_;
  std::mt19937_64 random_{std::random_device{}()};  // used by lock() only
  std::uniform_int_distribution<off64_t> offsets_{0, off64_t{1} << 61};
  mutable std::mutex ignoredMutex_;
  std::set<off64_t> ignored_;  // guarded by ignoredMutex_
};

/// What callers and the waiting thread share; lives as long as either.
struct State {
  explicit State(FileDescriptor directory) : kernel(std::move(directory)) {}

  enum class Waiting { idle, wanted, underWay, got };

  KernelLock kernel;
  std::mutex mutex;
  // All below is guarded by mutex.
  std::condition_variable changed;
  std::optional<std::thread::id> owner;  // who holds the lock
  std::size_t depth = 0;                 // how often it does
  std::list<int> queue;                  // those of this process who wait, in order of arrival
  Waiting waiting = Waiting::idle;       // what the waiting thread is about
  bool threadRuns = false;
  bool abandoned = false;                        // no caller is left: the thread ends
  std::optional<Clock::time_point> waitedSince;  // when waiting for the present holder began
};

/// Waits for the kernel's lock whenever callers want it; gives it back when none wants it any more.
void waitForKernelLock(const std::shared_ptr<State>& state) {
  std::unique_lock guard(state->mutex);
  for (;;) {
    state->changed.wait(guard, [&] { return state->abandoned || state->waiting == State::Waiting::wanted; });
    if (state->abandoned) return;
    state->waiting = State::Waiting::underWay;
    guard.unlock();
    const bool got = state->kernel.lock();
    guard.lock();
    if (!got || state->queue.empty()) {
      if (got) state->kernel.unlock();
      state->waiting = State::Waiting::idle;
      state->waitedSince.reset();
    } else {
      state->waiting = State::Waiting::got;
    }
    state->changed.notify_all();
  }
}

class FlockDirectoryLock : public DirectoryLock {
 public:
  explicit FlockDirectoryLock(FileDescriptor directory)
      : state_(std::make_shared<State>(std::move(directory))) {}

  FlockDirectoryLock(const FlockDirectoryLock&) = delete;
  FlockDirectoryLock& operator=(const FlockDirectoryLock&) = delete;

  ~FlockDirectoryLock() override {
    const std::lock_guard guard(state_->mutex);
    state_->abandoned = true;
    state_->changed.notify_all();
  }

  bool lock(std::chrono::milliseconds patience) override {
    std::unique_lock guard(state_->mutex);
    if (state_->owner == std::this_thread::get_id()) {
      ++state_->depth;
      return true;
    }
    if (state_->queue.empty() && takeAtOnce()) return true;

    if (patience <= std::chrono::milliseconds::zero()) return false;
    const Clock::time_point now = Clock::now();
    if (!state_->waitedSince) state_->waitedSince = now;
    if (now - *state_->waitedSince >= patience) return false;  // others have waited long enough already
    return waitUntil(now + patience, guard);
  }

  void unlock() override {
    const std::lock_guard guard(state_->mutex);
    if (state_->owner != std::this_thread::get_id() || --state_->depth > 0) return;
    state_->owner.reset();
    state_->waitedSince.reset();
    state_->kernel.unlock();
    if (!state_->queue.empty()) state_->changed.notify_all();
  }

  bool isRemoved() const { return state_->kernel.isRemoved(); }

 private:
  // All with state_->mutex held.

  bool takeAtOnce() {
    if (state_->owner || state_->waiting != State::Waiting::idle || !state_->kernel.tryLock()) return false;
    becomeOwner();
    return true;
  }

  void becomeOwner() {
    state_->owner = std::this_thread::get_id();
    state_->depth = 1;
    state_->waitedSince.reset();
  }

  bool waitUntil(Clock::time_point deadline, std::unique_lock<std::mutex>& guard) {
    const auto place = state_->queue.insert(state_->queue.end(), 0);
    bool held = false;
    for (bool late = false;;) {
      const bool first = place == state_->queue.begin();
      held = first && advance();
      if (held || late) break;
      late = state_->changed.wait_until(guard, deadline) == std::cv_status::timeout;
    }
    state_->queue.erase(place);
    if (state_->queue.empty()) {
      settle();
    } else {
      if (held) state_->waitedSince = Clock::now();
      state_->changed.notify_all();  // another is first now
    }
    return held;
  }

  /// One step of the first in line; whether it has the lock now.
  bool advance() {
    if (state_->owner) return false;
    if (takeAtOnce()) return true;
    if (state_->waiting == State::Waiting::got) {
      state_->waiting = State::Waiting::idle;
      becomeOwner();
      return true;
    }
    if (state_->waiting == State::Waiting::idle && startThread()) {
      state_->waiting = State::Waiting::wanted;
      state_->changed.notify_all();
    }
    return false;
  }

  /// When nobody waits any more: gives back what was waited for.
  void settle() {
    if (state_->waiting == State::Waiting::got) {
      state_->kernel.unlock();
      state_->waiting = State::Waiting::idle;
    }
    if (!state_->owner && state_->waiting == State::Waiting::idle) state_->waitedSince.reset();
  }

  bool startThread() {
    if (state_->threadRuns) return true;
    try {
      startQuietThread([state = state_] { waitForKernelLock(state); }).detach();
      state_->threadRuns = true;
    } catch (const std::system_error&) {
      return false;  // the caller goes on without the lock when its patience ends
    }
    return true;
  }

  const std::shared_ptr<State> state_;
};

/// The process's locks. An entry keeps its directory open, so its number cannot come to mean another.
class Registry {
 public:
  using Identity = std::pair<dev_t, ino_t>;

  std::shared_ptr<DirectoryLock> lockFor(const std::string& directory, int* errorNumber) {
    struct stat status;
    if (::lstat(directory.c_str(), &status) != 0) return fail(errorNumber);
    const std::lock_guard guard(mutex_);
    const auto known = locks_.find({status.st_dev, status.st_ino});
    if (known != locks_.end()) return known->second;

    FileDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened || ::fstat(opened.get(), &status) != 0) return fail(errorNumber);
    forgetUseless();
    std::shared_ptr<FlockDirectoryLock>& lock = locks_[{status.st_dev, status.st_ino}];
    if (!lock) lock = std::make_shared<FlockDirectoryLock>(std::move(opened));
    return lock;
  }

 private:
  static constexpr std::size_t kKeptLocks = 32;  // directories that were moved away keep theirs

  static std::nullptr_t fail(int* errorNumber) {
    *errorNumber = errno;
    return nullptr;
  }

  void forgetUseless() {
    for (auto entry = locks_.begin(); entry != locks_.end();) {
      const bool unused = entry->second.use_count() == 1;
      const bool useless = entry->second->isRemoved() || locks_.size() > kKeptLocks;
      entry = unused && useless ? locks_.erase(entry) : std::next(entry);
    }
  }

  std::mutex mutex_;
  std::map<Identity, std::shared_ptr<FlockDirectoryLock>> locks_;  // guarded by mutex_
};

}  // namespace

std::shared_ptr<DirectoryLock> DirectoryLock::forDirectory(const std::string& directory, ErrorPtr* error) {
  static Registry& registry = *new Registry;  // never destroyed: other threads may outlive main()
  int errorNumber = 0;
  std::shared_ptr<DirectoryLock> lock = registry.lockFor(directory, &errorNumber);
  if (!lock) setError(error, makeFileError(FileAccess::write, errorNumber, "open the directory", directory));
  return lock;
}

}  // namespace qx
