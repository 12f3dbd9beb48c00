#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

/// What an observer receives.
struct QX_EXPORT Notification {
  std::string name;
  const void* sender = nullptr;  // local centre: the object that posted it
  String object;                 // distributed centre: the poster's name, usually its bundle identifier
  Dictionary userInfo;
};

/// Keeps an observer registered; destroying it, or cancel(), ends that. Returns only after a running
/// call of the handler has ended (unless called from inside that handler), so what the handler uses may
/// go afterwards. Move only.
class QX_EXPORT Observation {
 public:
  Observation() = default;
  explicit Observation(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
  Observation(Observation&& other) noexcept : cancel_(std::exchange(other.cancel_, nullptr)) {}
  Observation& operator=(Observation&& other) noexcept;
  Observation(const Observation&) = delete;
  Observation& operator=(const Observation&) = delete;
  ~Observation() { cancel(); }

  void cancel();
  /// Lets the observer live as long as the process.
  void keepForever() { cancel_ = nullptr; }

 private:
  std::function<void()> cancel_;
};

/// Notifications inside one process, delivered on the poster's thread before post() returns.
///
/// Threads: any. Handlers are called with no lock of the centre held; they may post, add and cancel.
class QX_EXPORT NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  static NotificationCenter& defaultCenter();

  NotificationCenter();
  ~NotificationCenter();

  /// `name`: only notifications of that name; none means all. `sender`: only from that object; null
  /// means from any.
  [[nodiscard]] Observation addObserver(String name, const void* sender, Handler handler);
  void post(const Notification& notification);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace qx
