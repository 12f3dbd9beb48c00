#pragma once

#include <signal.h>

#include <thread>
#include <utility>

namespace qx {

/// Starts a thread in which every signal is blocked, so that an application's signal handlers keep to the
/// threads that the application knows. Throws std::system_error as std::thread does.
template <typename Body>
std::thread startQuietThread(Body body) {
  class SignalsBlocked {
   public:
    SignalsBlocked() {
      sigset_t all;
      ::sigfillset(&all);
      ::pthread_sigmask(SIG_SETMASK, &all, &previous_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

   private:
    sigset_t previous_;
  };
  const SignalsBlocked blocked;  // a new thread begins with its maker's mask
  return std::thread(std::move(body));
}

}  // namespace qx
