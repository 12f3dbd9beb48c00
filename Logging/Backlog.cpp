#include "Logging/Backlog.h"

#include <errno.h>
#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/BackgroundLoop.h"

namespace qx::log {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kShortestPause{1};
constexpr milliseconds kLongestPause{1000};
constexpr milliseconds kPatienceAtExit{1000};
constexpr milliseconds kPatienceAtExitWhenAway{100};
constexpr milliseconds kFlushStep{1};
constexpr std::size_t kLineOverhead = 128;  // what a kept line costs beside its bytes

}  // namespace

/// All backlogs of the process: what its end and its forks have to know. Never destroyed.
class Backlogs {
 public:
  static Backlogs& shared() {
    static Backlogs& instance = []() -> Backlogs& {
      BackgroundLoop::shared();  // made early as well
      auto& made = *new Backlogs;
      ::pthread_atfork([] { shared().beforeFork(); }, [] { shared().afterForkInParent(); },
                       [] { shared().afterForkInChild(); });
      std::atexit([] { shared().atExit(); });
      return made;
    }();
    return instance;
  }

  void add(Backlog* backlog) {
    const std::lock_guard guard(mutex_);
    backlogs_.push_back(backlog);
  }

  void remove(Backlog* backlog) {
    const std::lock_guard guard(mutex_);
    std::erase(backlogs_, backlog);
  }

 private:
  void beforeFork() {
    mutex_.lock();
    for (Backlog* backlog : backlogs_)
      backlog->mutex_.lock();
  }

  void afterForkInParent() {
    for (Backlog* backlog : backlogs_)
      backlog->mutex_.unlock();
    mutex_.unlock();
  }

  void afterForkInChild() {
    for (Backlog* backlog : backlogs_)
      backlog->beginInChild();
    afterForkInParent();
  }

  void atExit() {
    const auto end = Clock::now() + kPatienceAtExit;
    for (const auto& backlog : living()) {
      const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
      backlog->flush(left, std::min(left, kPatienceAtExitWhenAway));
    }
  }

  std::vector<std::shared_ptr<Backlog>> living() {
    const std::lock_guard guard(mutex_);
    std::vector<std::shared_ptr<Backlog>> result;
    for (Backlog* backlog : backlogs_) {
      if (auto alive = backlog->weak_from_this().lock()) result.push_back(std::move(alive));
    }
    return result;
  }

  std::mutex mutex_;                // taken before that of a backlog
  std::vector<Backlog*> backlogs_;  // guarded by mutex_
};

namespace {

// Made when the library is loaded. A child that is forked during a first use by another thread would wait for
// the end of that first use, which does not come.
[[maybe_unused]] const Backlogs& madeEarly = Backlogs::shared();

}  // namespace

void Backlog::prepare() {
  Backlogs::shared();
}

std::shared_ptr<Backlog> Backlog::make(std::unique_ptr<Outlet> outlet, Writing writing, std::size_t limit) {
  std::shared_ptr<Backlog> made(new Backlog(std::move(outlet), writing, limit));
  Backlogs::shared().add(made.get());
  return made;
}

Backlog::Backlog(std::unique_ptr<Outlet> outlet, Writing writing, std::size_t limit)
    : outlet_(std::move(outlet)), writing_(writing), limit_(limit), pause_(kShortestPause) {}

Backlog::~Backlog() {
  Backlogs::shared().remove(this);
}

void Backlog::send(std::string_view line) noexcept {
  const int callersError = errno;
  try {
    sendOrKeep(line);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a log line is never worth an operation
  }
  errno = callersError;
}

void Backlog::sendOrKeep(std::string_view line) {
  std::unique_lock guard(mutex_, std::defer_lock);
  if (writing_ == Writing::oneAtATime) guard.lock();
  auto outcome = Outcome::full;
  const std::size_t size = line.size();
  if (!busy_.load(std::memory_order_acquire)) outcome = outlet_->write(&line);
  if (outcome == Outcome::finished) return;
  if (!guard.owns_lock()) guard.lock();
  busy_.store(true, std::memory_order_release);
  keep(line, line.size() < size);  // one that was refused becomes a loss when it is its turn
  guard.unlock();
  retryLater();
}

/// With mutex_ held. Once lines were lost, more are lost until half of the room is free, so that their loss
/// is told once and not between every two lines. The rest of a line that was begun is always kept.
void Backlog::keep(std::string_view line, bool isRest) noexcept {
  const std::size_t limit = lost_ == 0 ? limit_ : limit_ / 2;
  const std::size_t size = line.size() + kLineOverhead;
  if (!isRest && size_ + size > limit) {
    ++lost_;
    return;
  }
  try {
    std::string bytes(line);
    keepLostMessage();
    lines_.push_back({std::move(bytes)});
    size_ += size;
  } catch (const std::bad_alloc&) {
    ++lost_;
  }
}

/// Writes what is kept until the outlet takes no more.
void Backlog::drain() {
  std::unique_lock guard(mutex_);
  if (draining_) return;
  draining_ = true;
  bool progress = false;
  while (!lines_.empty() || keepLostMessage()) {
    const std::size_t written = lines_.front().written;
    const Outcome outcome = writeFirst(guard);
    Line& line = lines_.front();
    away_ = outcome == Outcome::away || outcome == Outcome::refused;
    progress |= outcome == Outcome::finished || line.written > written;
    if (outcome == Outcome::finished) {
      removeFirst();
    } else if (outcome == Outcome::refused && line.lostLines == 0) {
      replaceWithLostMessage(line);
    } else {
      break;
    }
  }
  draining_ = false;
  pause_ = progress ? kShortestPause : std::min(pause_ * 2, kLongestPause);
  busy_.store(!lines_.empty() || lost_ > 0, std::memory_order_release);
}

/// With mutex_ held: makes room for the line that tells of lost ones; false when there are none.
bool Backlog::keepLostMessage() noexcept {
  if (lost_ == 0) return false;
  try {
    lines_.push_back({{}, 0, lost_});
  } catch (const std::bad_alloc&) {
    return false;
  }
  size_ += kLineOverhead;
  lost_ = 0;
  return true;
}

/// With mutex_ held, which is let go while the outlet is at work; the line itself changes only under it, so
/// that a child forked meanwhile can destroy it.
Backlog::Outcome Backlog::writeFirst(std::unique_lock<std::mutex>& guard) noexcept {
  Line& line = lines_.front();  // stays where it is while others add lines
  const std::uint64_t lostLines = line.lostLines;
  const bool isMade = lostLines == 0 || !line.bytes.empty();
  std::string_view rest = std::string_view(line.bytes).substr(line.written);
  std::string made;
  auto outcome = Outcome::full;
  guard.unlock();
  try {
    if (!isMade) rest = made = outlet_->lostMessage(lostLines);
    outcome = outlet_->write(&rest);
  } catch (...) {  // NOLINT(bugprone-empty-catch): no memory at present, so as if there was no room
  }
  guard.lock();
  if (!isMade) line.bytes.swap(made);
  line.written = line.bytes.size() - rest.size();
  return outcome;
}

/// With mutex_ held. The loss is told where it happened.
void Backlog::replaceWithLostMessage(Line& line) {
  size_ -= line.bytes.size();
  line = {{}, 0, 1};
}

/// With mutex_ held.
void Backlog::removeFirst() {
  const Line& line = lines_.front();
  size_ -= kLineOverhead + (line.lostLines == 0 ? line.bytes.size() : 0);
  lines_.pop_front();
}

void Backlog::retryLater() {
  std::unique_lock guard(mutex_);
  if (scheduled_ || !busy_.load(std::memory_order_relaxed)) return;
  scheduled_ = true;
  const milliseconds pause = pause_;
  guard.unlock();
  bool accepted = false;
  try {
    accepted = BackgroundLoop::shared().after(pause, [self = shared_from_this()] { self->retry(); });
  } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): as when no thread could be started
  }
  if (accepted) return;
  guard.lock();
  scheduled_ = false;
  guard.unlock();
  drain();  // at least each send tries again
}

void Backlog::retry() {
  {
    const std::lock_guard guard(mutex_);
    scheduled_ = false;
  }
  drain();
  retryLater();
}

bool Backlog::flush(milliseconds patience, milliseconds patienceWhenAway) {
  const auto start = Clock::now();
  for (;;) {
    drain();
    if (!busy_.load(std::memory_order_acquire)) return true;
    const auto passed = Clock::now() - start;
    if (passed >= patience || (isAway() && passed >= patienceWhenAway)) return false;
    std::this_thread::sleep_for(kFlushStep);
  }
}

bool Backlog::isAway() {
  const std::lock_guard guard(mutex_);
  return away_;
}

/// With mutex_ held by the forking thread, the only one now. What is kept is the parent's to send.
void Backlog::beginInChild() {
  lines_.clear();
  size_ = 0;
  lost_ = 0;
  busy_.store(false, std::memory_order_relaxed);
  draining_ = false;
  scheduled_ = false;
  away_ = false;
  pause_ = kShortestPause;
  outlet_->beginInChild();
}

}  // namespace qx::log
