#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include <QXEventStoring/Platform/Value.h>

#include "Platform/DistributedNotificationCenter.h"

/// Gathers announcements of changed events for half a second and posts them as one "Store Updated" per
/// change mask, with all their event IDs in the order of arrival, through the process's machine-wide centre.
///
/// A thread of its own posts every 0.5 seconds while something is pending, and ends when nothing is. What is
/// pending when the process ends normally is posted then. One object per process, never destroyed.
/// Threads: any.
class QXESDistributedNotificationCenter : public qx::DistributedNotificationCenter {
 public:
  static constexpr std::chrono::milliseconds kInterval{500};
  /// How long the end of the process may be held up.
  static constexpr std::chrono::milliseconds kPatienceAtExit{1000};

  static QXESDistributedNotificationCenter& defaultCenter();

  /// Takes an announcement: `userInfo` holds one event ID (QXEventStoreChangedEventIDKey), the change mask
  /// (QXEventStoreChangeKey) and the user's name. One without ID or mask is logged and dropped. Name, object
  /// and options are only logged: every batch has its own.
  void postNotificationName(const std::string& name, const qx::String& object, const qx::Dictionary& userInfo,
                            std::uint64_t options);

  // As a centre: observers are those of the machine-wide one; post() gathers; drain() posts what is pending.
  [[nodiscard]] qx::Observation addObserver(qx::String name, qx::String object, Handler handler) override;
  void post(std::string name, qx::String object, qx::Dictionary userInfo, std::uint64_t options) override;
  bool drain(std::uint64_t milliseconds) override;
  std::uint64_t dropped() const override;

 private:
  struct Batch {
    qx::Array eventIDs;
    qx::Value userName;  // of the first announcement
  };
  struct Timer {
    std::chrono::steady_clock::time_point fireTime;
  };

  QXESDistributedNotificationCenter() = default;
  void handleNotification(const qx::Dictionary& userInfo);
  void startTimer();
  void startTimerThread();
  void handleTimer();
  qx::Dictionary pendingEventIDs() const;
  void postPending();
  void flushAtExit();

  std::mutex m_pLock;
  std::condition_variable ending_;
  // Guarded by m_pLock.
  std::map<std::int64_t, Batch> m_pNotifications;  // by change mask
  std::unique_ptr<Timer> m_pTimer;                 // while a flush thread runs
  bool isEnding_ = false;                          // the process ends: no thread may be started any more
};
