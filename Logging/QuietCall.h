#pragma once

#include <pthread.h>

#include <cerrno>

namespace qx::log {

/// What a log call does leaves no trace in its thread while this lives: errno has its value again afterwards,
/// and the thread is not cancelled in the middle, where it may hold locks.
class QuietCall {
 public:
  QuietCall() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState_); }
  QuietCall(const QuietCall&) = delete;
  QuietCall& operator=(const QuietCall&) = delete;
  ~QuietCall() {
    ::pthread_setcancelstate(cancelState_, nullptr);
    errno = number_;
  }

 private:
  int number_ = errno;
  int cancelState_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace qx::log
