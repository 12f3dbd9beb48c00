#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace qx::log {

/// Where lines leave the process. Nothing here waits for a reader.
class Outlet {
 public:
  enum class Outcome {
    finished,  // written, or of no use to anyone any more
    full,      // the reader has no room at present
    away,      // there is no reader at present
    refused,   // this line will never be taken: it counts as lost
  };

  Outlet() = default;
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;
  virtual ~Outlet() = default;

  /// Writes `*rest` as far as it goes at once, and leaves in it what is still to be written.
  virtual Outcome write(std::string_view* rest) = 0;
  /// The line that tells how many were lost.
  virtual std::string lostMessage(std::uint64_t count) = 0;
  /// Called in a forked child before any other call, by its only thread.
  virtual void beginInChild() {}
};

/// Sends lines to an outlet at once while it takes them, and keeps them, in order and up to a limit of bytes,
/// while it does not; see LogTransport for the rules. Any thread.
///
/// Locks: mutex_ is never held while the background loop, lostMessage() or foreign code runs, and forking
/// takes it, so that a child finds the queue whole and the mutex free.
class Backlog : public std::enable_shared_from_this<Backlog> {
 public:
  /// Whether the outlet may be written by several threads at a time (each line goes whole or not at all), or
  /// whether a line may be taken in part, so that the next has to wait for its rest.
  enum class Writing { severalAtATime, oneAtATime };

  /// Registers what the process's end and its forks need. A lock under which backlogs are made must be
  /// registered for forks after this, since fork() takes those registered last first.
  static void prepare();

  static std::shared_ptr<Backlog> make(std::unique_ptr<Outlet> outlet, Writing writing, std::size_t limit);
  Backlog(const Backlog&) = delete;
  Backlog& operator=(const Backlog&) = delete;
  ~Backlog();

  /// Keeps errno.
  void send(std::string_view line) noexcept;
  /// Waits until nothing is kept; false when that takes longer than `patience`, or than `patienceWhenAway`
  /// while there is no reader.
  bool flush(std::chrono::milliseconds patience, std::chrono::milliseconds patienceWhenAway);

 private:
  friend class Backlogs;
  using Outcome = Outlet::Outcome;

  struct Line {
    std::string bytes;            // made when it is first written, when the line tells of lost ones
    std::size_t written = 0;      // how much of it the outlet has already
    std::uint64_t lostLines = 0;  // how many it tells of
  };

  Backlog(std::unique_ptr<Outlet> outlet, Writing writing, std::size_t limit);

  void sendOrKeep(std::string_view line);
  void keep(std::string_view line, bool isRest) noexcept;
  void drain();
  bool keepLostMessage() noexcept;
  Outcome writeFirst(std::unique_lock<std::mutex>& guard) noexcept;
  void replaceWithLostMessage(Line& line);
  void removeFirst();
  void retryLater();
  void retry();
  bool isAway();
  void beginInChild();

  const std::unique_ptr<Outlet> outlet_;
  const Writing writing_;
  const std::size_t limit_;

  std::atomic<bool> busy_ = false;  // something is kept or lost; written with mutex_ held
  std::mutex mutex_;
  // All below is guarded by mutex_. While draining_, the first line belongs to the thread that drains.
  std::deque<Line> lines_;
  std::size_t size_ = 0;    // of lines_, in bytes
  std::uint64_t lost_ = 0;  // since the last line that tells of lost ones
  bool draining_ = false;
  bool scheduled_ = false;  // a retry is in the background loop
  bool away_ = false;       // nobody took the last line that was tried
  std::chrono::milliseconds pause_;
};

}  // namespace qx::log
