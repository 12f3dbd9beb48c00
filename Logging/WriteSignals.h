#pragma once

#include <signal.h>

#include <cerrno>
#include <ctime>

namespace qx::log {

/// Keeps the signals that a write may raise (no reader, a file that is too large, a terminal of the
/// foreground's) from the program's handlers while it lives. One thread.
class WriteSignals {
 public:
  WriteSignals() {
    sigset_t pending;
    ::sigpending(&pending);
    ::sigemptyset(&held_);
    for (const int number : {SIGPIPE, SIGXFSZ, SIGTTOU}) {
      if (::sigismember(&pending, number) == 0) ::sigaddset(&held_, number);
    }
    ::pthread_sigmask(SIG_BLOCK, &held_, &previous_);
  }
  WriteSignals(const WriteSignals&) = delete;
  WriteSignals& operator=(const WriteSignals&) = delete;
  ~WriteSignals() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

  /// After a failed write: takes away what it has raised in this thread and was not pending before.
  void takeAway() const {
    const timespec noTime{};
    while (::sigtimedwait(&held_, nullptr, &noTime) < 0 && errno == EINTR) {
    }
  }

 private:
  sigset_t held_;
  sigset_t previous_;
};

}  // namespace qx::log
