#pragma once

#include <pthread.h>

#include <mutex>

namespace qx {

/// The one State of this process: made at its first use, and never destroyed, since threads may outlive
/// main(). A forked process begins with a State of its own; the one that it inherits is left as it is, for
/// what still points into it.
///
/// State has a default constructor; `std::mutex mutex`, which fork() waits for, so that the child inherits
/// it free and what it guards whole; and `leaveToParent()`, called in the child with the mutex held, which
/// closes the child's copies of descriptors and must not wait for anything.
///
/// Who takes the mutex of one State and then that of another calls the other's current() before its own:
/// fork() takes those made last first.
template <typename State>
class PerProcess {
 public:
  static State& current() {
    [[maybe_unused]] static const bool made = make();
    return latest_->state;
  }

 private:
  struct Kept {
    State state;
    Kept* inherited;
  };

  static bool make() {
    latest_ = new Kept{{}, nullptr};
    return ::pthread_atfork(&lock, &unlock, &beginAnew) == 0;
  }
  static void lock() { latest_->state.mutex.lock(); }
  static void unlock() { latest_->state.mutex.unlock(); }
  static void beginAnew() {
    latest_->state.leaveToParent();
    latest_->state.mutex.unlock();
    latest_ = new Kept{{}, latest_};
  }

  static inline Kept* latest_ = nullptr;  // changed only while the process has one thread
};

}  // namespace qx
