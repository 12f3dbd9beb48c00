#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <QXEventStoring/Platform/NotificationCenter.h>

namespace qx {

/// Machine-wide notifications: who posts, and in which process, makes no difference to the observer.
///
/// Handlers run on one delivery thread per process, one at a time, in the order of each poster's posts;
/// a poster's own notification takes the same road. No lock of the centre is held around a handler.
/// Threads: any. Today delivery reaches the observers of this process only.
class DistributedNotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  /// Options of post(); the sum of both is what the store's notifications use.
  static constexpr std::uint64_t kDeliverImmediately = 1;
  static constexpr std::uint64_t kPostToAllSessions = 2;

  virtual ~DistributedNotificationCenter() = default;

  /// The process's centre; lives until the process ends.
  static DistributedNotificationCenter& defaultCenter();

  /// `name`: only that name; none means all. `object`: only from a poster of that name; none means any.
  [[nodiscard]] virtual Observation addObserver(String name, String object, Handler handler) = 0;
  /// Never blocks on a receiver. Delivery happens later, on the delivery thread.
  virtual void post(std::string name, String object, Dictionary userInfo, std::uint64_t options) = 0;
  /// Waits until everything posted so far by this process has been delivered to its own observers, at
  /// most `milliseconds`; false when time ran out. Not from a handler.
  virtual bool drain(std::uint64_t milliseconds) = 0;
  /// How many notifications this process's observers missed because they could not follow: what waits for
  /// them is bounded, and past the bound the oldest goes.
  virtual std::uint64_t dropped() const { return 0; }
};

}  // namespace qx
