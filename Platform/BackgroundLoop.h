#pragma once

#include <chrono>
#include <functional>

namespace qx {

/// The library's one thread for work that nobody waits for: tasks that are due later, and descriptors that
/// become readable. The thread starts with the first task and lives as long as the process; a process that
/// was forked begins with an empty loop and a thread of its own (the tasks of its parent are neither run nor
/// destroyed in it). Exceptions of a task end with the task. Any thread; a task may use the loop.
class BackgroundLoop {
 public:
  using Task = std::function<void()>;

  /// Never destroyed.
  static BackgroundLoop& shared();

  /// Runs `task` once on the loop's thread, not before `delay` has passed on the monotonic clock; tasks run
  /// in order of their time. False when no thread could be started: the task will not run.
  bool after(std::chrono::milliseconds delay, Task task);

  /// Runs `task` each time that `descriptor` is readable, at its end or failed, until unwatch(); in place of
  /// an earlier task for that descriptor. One that is found closed is forgotten after one more run. False as
  /// above.
  bool watchReadable(int descriptor, Task task);
  /// The task does not run any more when this has returned (unless called from a task). Call before closing
  /// the descriptor.
  void unwatch(int descriptor);

  /// For tests: from now on time stands still for after(), and passes by advance() only.
  void stopTime();
  /// Lets `duration` pass; what becomes due runs on the calling thread, in order of its time, tasks that it
  /// adds included. Only after stopTime().
  void advance(std::chrono::milliseconds duration);

 private:
  struct State;
  BackgroundLoop() = default;
  static State& state();
};

}  // namespace qx
