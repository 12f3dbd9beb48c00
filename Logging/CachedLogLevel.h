#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include <QXEventStoring/Platform/NotificationCenter.h>

#include "Logging/PLVLogLevel.h"

namespace qx::log {

/// A level that is read from preferences when it is first asked for, and again after they changed. With
/// unified logging a change is told by an observation, which clears the level. Otherwise the level is read
/// again every minute for as long as it is used, and cleared when a minute passes in which nobody asks.
/// Any thread.
class CachedLogLevel {
 public:
  using Load = std::function<PLVLogLevel()>;
  using Observe = std::function<Observation(const std::function<void()>& changed)>;

  /// `load` reads the level; `observe` begins to watch what it is read from.
  CachedLogLevel(Load load, Observe observe);
  ~CachedLogLevel();
  CachedLogLevel(const CachedLogLevel&) = delete;
  CachedLogLevel& operator=(const CachedLogLevel&) = delete;

  /// Never NotLoaded; Inherit when it could not be read for want of memory. Keeps errno.
  PLVLogLevel get() const noexcept {
    // Written only when it changes anything: every message of every thread comes through here.
    if (synchronizationStopped_.load(std::memory_order_relaxed)) synchronizationStopped_ = false;
    const auto level = level_.load(std::memory_order_acquire);
    return level != PLVLogLevel::NotLoaded ? level : load();
  }

  void set(PLVLogLevel level);

  /// Reads the level again in a minute, when it has been asked for by then.
  void scheduleSynchronization();

  /// For the child of a fork, where neither the observation nor the minute's task goes on: begins anew.
  void abandon();

 private:
  /// What the observation and the tasks of the background loop hold on to.
  struct State {
    std::mutex monitor;
    CachedLogLevel* owner;    // guarded by monitor; null once it has gone
    bool observing = false;   // guarded by monitor
    Observation observation;  // guarded by monitor
  };

  void begin();
  PLVLogLevel load() const noexcept;
  PLVLogLevel readNow() const;
  static void clear(const std::weak_ptr<State>& weak);
  bool followChanges(State& state) const;
  static bool schedule(const std::shared_ptr<State>& state);
  static void synchronize(const std::weak_ptr<State>& weak);

  const Load read_;
  const Observe observe_;
  mutable std::atomic<PLVLogLevel> level_ = PLVLogLevel::NotLoaded;  // written with the monitor held
  mutable std::atomic<bool> synchronizationStopped_ = false;
  std::shared_ptr<State> state_;
};

}  // namespace qx::log
