#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>

namespace qx {

/// Makes what the platform layer shares within the process, so that a process which is forked during another
/// thread's first use of it can use it too. Cheap: no file is read, no thread started, the volume root is not
/// asked for. Call when the library is loaded, before registering fork handlers for locks under which this
/// layer is used: fork() takes those registered last first. Any thread.
void prepareForFork();

// Parts of it.
void prepareHostForFork();
void prepareBundleForFork();
void prepareFileWatchForFork();

/// The one State of this process, which a forked process goes on with. State has a default constructor and
/// `std::mutex mutex`, which fork() waits for. Nothing else is locked while it is held. Never destroyed,
/// since threads may outlive main().
template <typename State>
class KeptThroughFork {
 public:
  static State& get() {
    static State& state = make();
    return state;
  }

 private:
  static State& make() {
    made_ = new State;
    ::pthread_atfork(&lock, &unlock, &unlock);
    return *made_;
  }
  static void lock() { made_->mutex.lock(); }
  static void unlock() { made_->mutex.unlock(); }

  static inline State* made_ = nullptr;
};

/// A value that is made at its first use and never destroyed. Threads that come first may each make one, and
/// one of these is kept: none waits for another, which a forked process would do for ever. With static
/// storage it needs no initialisation when the program starts.
template <typename Value>
class MadeOnce {
 public:
  /// `make` returns a std::unique_ptr<const Value>.
  template <typename Make>
  const Value& get(Make make) {
    if (const Value* const known = kept_.load(std::memory_order_acquire)) return *known;
    std::unique_ptr<const Value> made = make();
    const Value* kept = nullptr;
    return kept_.compare_exchange_strong(kept, made.get(), std::memory_order_acq_rel) ? *made.release()
                                                                                      : *kept;
  }

 private:
  std::atomic<const Value*> kept_ = nullptr;
};

}  // namespace qx
