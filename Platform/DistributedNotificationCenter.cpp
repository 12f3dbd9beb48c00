// Delivery to the observers of this process: a bounded queue and one thread that empties it.
//
// The centre and its thread live until the process ends. When the process exits normally, delivery stops
// before those static objects are destroyed that are older than the centre, since handlers may use them.
// What is younger protects itself by its Observation, which goes first.

#include "Platform/DistributedNotificationCenter.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "Platform/ObserverList.h"
#include "Platform/QuietThread.h"

namespace qx {

namespace {

class LocalDeliveryCenter : public DistributedNotificationCenter {
 public:
  Observation addObserver(String name, String object, Handler handler) override {
    Observation observation = observers_->add(
        std::make_shared<Observer>(std::move(name), nullptr, std::move(object), std::move(handler)));
    const std::lock_guard guard(mutex_);
    startThread();
    return observation;
  }

  // How to deliver makes no difference as long as delivery is within the process.
  void post(std::string name, String object, Dictionary userInfo, std::uint64_t /*options*/) override {
    if (!observers_->anyWants(name, nullptr, object)) return;
    Notification oldest;  // destroyed after the lock is let go
    std::unique_lock guard(mutex_);
    if (stopping_ || !startThread()) return;
    if (queue_.size() >= kMaximumPending) {
      oldest = std::move(queue_.front());
      queue_.pop_front();
      ++dropped_;
    }
    queue_.push_back({std::move(name), nullptr, std::move(object), std::move(userInfo)});
    ++posted_;
    const bool wake = std::exchange(idle_, false);
    guard.unlock();
    if (wake) arrived_.notify_one();
  }

  bool drain(std::uint64_t milliseconds) override {
    constexpr std::uint64_t kLongest = 24ULL * 3600 * 1000;
    std::unique_lock guard(mutex_);
    if (std::this_thread::get_id() == thread_) return false;
    const std::uint64_t target = posted_;
    return delivered_.wait_for(guard, std::chrono::milliseconds(std::min(milliseconds, kLongest)), [&] {
      return taken() >= target && (delivering_ == 0 || delivering_ > target);
    });
  }

  std::uint64_t dropped() const override {
    const std::lock_guard guard(mutex_);
    return dropped_;
  }

  /// Nothing is delivered from now on; waits, a second at most, for the handler that runs.
  void stop() {
    std::unique_lock guard(mutex_);
    stopping_ = true;
    if (std::this_thread::get_id() == thread_) return;  // exit() was called by a handler
    delivered_.wait_for(guard, std::chrono::seconds(1), [this] { return delivering_ == 0; });
  }

 private:
  static constexpr std::size_t kMaximumPending = 100'000;

  /// With mutex_ held: how many have left the queue, in their order.
  std::uint64_t taken() const { return posted_ - queue_.size(); }

  /// With mutex_ held; whether the thread runs.
  bool startThread() {
    if (thread_ != std::thread::id()) return true;
    try {
      std::thread thread = startQuietThread([this] { deliver(); });
      thread_ = thread.get_id();
      thread.detach();
    } catch (const std::system_error&) {
      return false;  // the next post tries again
    }
    return true;
  }

  [[noreturn]] void deliver() {
    std::unique_lock guard(mutex_);
    for (;;) {
      while (queue_.empty() || stopping_) {
        idle_ = true;
        arrived_.wait(guard);
      }
      idle_ = false;
      Notification notification = std::move(queue_.front());
      queue_.pop_front();
      delivering_ = taken();
      guard.unlock();
      deliver(std::move(notification));
      guard.lock();
      delivering_ = 0;
      delivered_.notify_all();
    }
  }

  void deliver(Notification&& taken) {
    const Notification notification = std::move(taken);  // destroyed here, with no lock held
    const auto observers = observers_->snapshot();
    for (const auto& observer : *observers) {
      if (observer->wants(notification.name, nullptr, notification.object)) observer->notify(notification);
    }
  }

  const std::shared_ptr<ObserverList> observers_ = std::make_shared<ObserverList>();
  mutable std::mutex mutex_;
  // All below is guarded by mutex_.
  std::condition_variable arrived_;
  std::condition_variable delivered_;
  std::deque<Notification> queue_;
  std::thread::id thread_;  // the delivery thread, once it runs
  bool idle_ = false;       // it waits, and nobody has woken it yet
  bool stopping_ = false;
  std::uint64_t posted_ = 0;      // they are numbered from 1
  std::uint64_t delivering_ = 0;  // the number of the one that is being delivered
  std::uint64_t dropped_ = 0;
};

LocalDeliveryCenter& theCenter() {
  static LocalDeliveryCenter& center = [&]() -> LocalDeliveryCenter& {
    auto& made = *new LocalDeliveryCenter;
    std::atexit([] { theCenter().stop(); });
    return made;
  }();
  return center;
}

}  // namespace

DistributedNotificationCenter& DistributedNotificationCenter::defaultCenter() {
  return theCenter();
}

}  // namespace qx
