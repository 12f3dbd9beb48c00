#pragma once

#include <chrono>
#include <future>
#include <memory>

#include "Platform/BackgroundLoop.h"

namespace qx::test {

#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kMayLackDescriptors = false;  // this sanitizer opens pipes to see what is memory
inline constexpr bool kMayForkAnyTime = false;      // its allocator may be locked by another thread, for good
#else
inline constexpr bool kMayLackDescriptors = true;
inline constexpr bool kMayForkAnyTime = true;
#endif

/// Something that one thread waits for and another brings about.
class Signal {
 public:
  void send() { promise_.set_value(); }
  bool wait() { return future_.wait_for(std::chrono::seconds(20)) == std::future_status::ready; }

 private:
  std::promise<void> promise_;
  std::future<void> future_ = promise_.get_future();
};

/// Whether a task runs on the loop's thread.
inline bool runsTasks() {
  const auto ran = std::make_shared<Signal>();
  return BackgroundLoop::shared().after({}, [ran] { ran->send(); }) && ran->wait();
}

}  // namespace qx::test
