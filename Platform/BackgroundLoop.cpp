// The loop's thread sleeps in poll(2) while descriptors are watched, and on a condition variable while none
// is: what is only due later needs no descriptor, and goes on where a process has used all of its own.

#include "Platform/BackgroundLoop.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Platform/OwnDescriptor.h"
#include "Platform/PerProcess.h"
#include "Platform/QuietThread.h"

namespace qx {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLongestDelay = std::chrono::hours(24 * 365 * 100);  // far from the clock's last value
constexpr milliseconds kLongestSleep{5000};  // in poll(2): whoever closes our descriptors may lose a wake-up
constexpr milliseconds kPause{1000};         // while poll(2) fails, or nothing could wake it

void runTask(const BackgroundLoop::Task& task) {
  try {
    task();
  } catch (...) {  // NOLINT(bugprone-empty-catch)
  }
}

/// Ends another thread's poll(2). A socket pair and no eventfd(2): its ends can be told from the program's
/// own files, its calls refuse what is no socket, and it wakes the reader when the writer's end is closed.
/// One thread at a time.
class WakeUp {
 public:
  /// The descriptor to poll; made anew when it is not ours any more, -1 when it cannot be had.
  int descriptor() {
    if (!reader_.isOurs() || !writer_.isOurs()) make();
    return reader_.get();
  }
  void send() const {
    if (writer_.isOurs()) ::send(writer_.get(), "", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  void take() const {
    std::array<char, 256> bytes{};
    if (reader_.isOurs()) ::recv(reader_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  }
  void close() {
    reader_.reset();
    writer_.reset();
  }

 private:
  void make() {
    close();
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return;
    reader_ = OwnDescriptor(FileDescriptor(ends[0]));
    writer_ = OwnDescriptor(FileDescriptor(ends[1]));
    if (reader_.get() < 0 || writer_.get() < 0) close();
  }

  OwnDescriptor reader_;
  OwnDescriptor writer_;
};

}  // namespace

struct BackgroundLoop::State {
  using Guard = std::unique_lock<std::mutex>;
  using SharedTask = std::shared_ptr<const Task>;

  std::mutex mutex;
  // All below is guarded by mutex.
  std::condition_variable changed;                // the thread has something new to look at
  std::condition_variable ended;                  // a descriptor's task has ended
  std::multimap<Clock::time_point, Task> timers;  // those of the same time in order of arrival
  std::map<int, SharedTask> readers;
  WakeUp wakeUp;
  bool polling = false;
  int runningReader = -1;      // the descriptor whose task runs
  std::uint64_t readsRun = 0;  // descriptors' tasks that have ended
  std::optional<std::thread::id> thread;
  std::optional<Clock::time_point> standingTime;  // of stopTime()
  bool leftBehind = false;

  void leaveToParent() {
    leftBehind = true;
    wakeUp.close();
  }

  // With the mutex held, all of them; those that take it let it go meanwhile.

  bool startThread() {
    if (thread) return true;
    try {
      std::thread started = startQuietThread([this] { run(); });
      thread = started.get_id();
      started.detach();
    } catch (const std::system_error&) {
      return false;  // the next task tries again
    }
    return true;
  }

  void wake() {
    changed.notify_all();
    if (polling) wakeUp.send();
  }

  void runFirstTimer(Guard& guard) {
    {
      const Task task = std::move(timers.begin()->second);
      timers.erase(timers.begin());
      guard.unlock();
      runTask(task);
    }
    guard.lock();
  }

 private:
  struct Polled {
    std::vector<pollfd> descriptors;  // the first one is wakeUp, which poll(2) passes by when there is none
    std::vector<SharedTask> tasks;    // of the others
  };

  void run() {
    Guard guard(mutex);
    while (!leftBehind) {
      runDueTimers(Clock::now(), guard);
      if (leftBehind) return;  // a task has forked, and this is the child
      if (readers.empty()) {
        awaitTimer(guard);
      } else {
        awaitReaders(guard);
      }
    }
  }

  void runDueTimers(Clock::time_point now, Guard& guard) {
    while (!leftBehind && nextDue() && *nextDue() <= now)
      runFirstTimer(guard);
  }

  std::optional<Clock::time_point> nextDue() const {
    if (standingTime || timers.empty()) return std::nullopt;
    return timers.begin()->first;
  }

  void awaitTimer(Guard& guard) {
    if (const auto due = nextDue()) {
      changed.wait_until(guard, *due);
    } else {
      changed.wait(guard);
    }
  }

  /// How long to sleep at most.
  milliseconds sleepLimit(milliseconds longest) const {
    const auto due = nextDue();
    if (!due) return longest;
    return std::clamp(std::chrono::ceil<milliseconds>(*due - Clock::now()), milliseconds(0), longest);
  }

  void awaitReaders(Guard& guard) {
    Polled polled;
    polled.descriptors.push_back({wakeUp.descriptor(), POLLIN, 0});
    for (const auto& [descriptor, task] : readers) {
      polled.descriptors.push_back({descriptor, POLLIN, 0});
      polled.tasks.push_back(task);
    }
    const bool canBeWoken = polled.descriptors.front().fd >= 0;
    const auto limit = static_cast<int>(sleepLimit(canBeWoken ? kLongestSleep : kPause).count());
    polling = true;
    guard.unlock();
    const int ready = ::poll(polled.descriptors.data(), polled.descriptors.size(), limit);
    guard.lock();
    polling = false;
    if (ready > 0) runReaders(polled, guard);
    if (ready < 0) changed.wait_for(guard, sleepLimit(kPause));
    guard.unlock();
    polled.tasks.clear();  // the last of an unwatched task may go with them
    guard.lock();
  }

  void runReaders(const Polled& polled, Guard& guard) {
    if (polled.descriptors.front().revents != 0) wakeUp.take();
    for (std::size_t i = 0; i < polled.tasks.size() && !leftBehind; ++i) {
      const pollfd& descriptor = polled.descriptors[i + 1];
      if (descriptor.revents != 0) runReader(descriptor, polled.tasks[i], guard);
    }
  }

  void runReader(const pollfd& polled, const SharedTask& task, Guard& guard) {
    const auto reader = readers.find(polled.fd);
    if (reader == readers.end() || reader->second != task) return;  // unwatched meanwhile
    if ((polled.revents & POLLNVAL) != 0) readers.erase(reader);
    runningReader = polled.fd;
    guard.unlock();
    runTask(*task);
    guard.lock();
    if (leftBehind) return;
    runningReader = -1;
    ++readsRun;
    ended.notify_all();
  }
};

BackgroundLoop& BackgroundLoop::shared() {
  static BackgroundLoop& loop = *new BackgroundLoop;
  state();
  return loop;
}

BackgroundLoop::State& BackgroundLoop::state() {
  return PerProcess<State>::current();
}

bool BackgroundLoop::after(milliseconds delay, Task task) {
  delay = std::clamp(delay, milliseconds(0), kLongestDelay);
  State& loop = state();
  const std::lock_guard guard(loop.mutex);
  if (!loop.standingTime && !loop.startThread()) return false;
  loop.timers.emplace(loop.standingTime.value_or(Clock::now()) + delay, std::move(task));
  loop.wake();
  return true;
}

bool BackgroundLoop::watchReadable(int descriptor, Task task) {
  auto shared = std::make_shared<const Task>(std::move(task));  // destroyed after the lock is let go
  State& loop = state();
  const std::lock_guard guard(loop.mutex);
  if (!loop.startThread()) return false;
  loop.readers[descriptor].swap(shared);
  loop.wake();
  return true;
}

void BackgroundLoop::unwatch(int descriptor) {
  State::SharedTask unneeded;  // destroyed after the lock is let go
  State& loop = state();
  State::Guard guard(loop.mutex);
  if (const auto reader = loop.readers.find(descriptor); reader != loop.readers.end()) {
    unneeded = std::move(reader->second);
    loop.readers.erase(reader);
    loop.wake();
  }
  if (loop.thread == std::this_thread::get_id()) return;
  loop.ended.wait(guard, [&, before = loop.readsRun] {
    return loop.runningReader != descriptor || loop.readsRun != before;
  });
}

void BackgroundLoop::stopTime() {
  State& loop = state();
  const std::lock_guard guard(loop.mutex);
  loop.standingTime = Clock::now();
  loop.wake();
}

void BackgroundLoop::advance(milliseconds duration) {
  State& loop = state();
  State::Guard guard(loop.mutex);
  if (!loop.standingTime) return;
  const Clock::time_point end = *loop.standingTime + duration;
  while (!loop.leftBehind && !loop.timers.empty() && loop.timers.begin()->first <= end) {
    loop.standingTime = std::max(*loop.standingTime, loop.timers.begin()->first);
    loop.runFirstTimer(guard);
  }
  loop.standingTime = end;
}

}  // namespace qx
