#pragma once

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>

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

/// Whether the loop's thread comes to rest, as the kernel tells it.
inline bool comesToRest() {
  const auto thread = std::make_shared<std::promise<pid_t>>();
  auto told = thread->get_future();
  if (!BackgroundLoop::shared().after({}, [thread] { thread->set_value(::gettid()); })) return false;
  if (told.wait_for(std::chrono::seconds(20)) != std::future_status::ready) return false;
  const std::string file = "/proc/self/task/" + std::to_string(told.get()) + "/stat";
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < end) {
    std::string line;
    std::getline(std::ifstream(file), line);
    if (line.find(") S ") != std::string::npos) return true;
    std::this_thread::yield();
  }
  return false;
}

}  // namespace qx::test
