#include "Sources/QXESDistributedNotificationCenter.h"

#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <QXEventStoring/Platform/Bundle.h>
#include <QXEventStoring/QXEventStore.h>

#include "Logging/EventStoreLog.h"
#include "Platform/QuietThread.h"
#include "Sources/QXStoreSchema.h"

namespace {

constexpr std::uint64_t kOptions = qx::DistributedNotificationCenter::kDeliverImmediately +
                                   qx::DistributedNotificationCenter::kPostToAllSessions;

qx::DistributedNotificationCenter& machineWideCenter() {
  return qx::DistributedNotificationCenter::defaultCenter();
}

}  // namespace

QXESDistributedNotificationCenter& QXESDistributedNotificationCenter::defaultCenter() {
  static QXESDistributedNotificationCenter* const center = [] {
    machineWideCenter();  // made first, so that it is still whole when the process ends
    auto* const made = new QXESDistributedNotificationCenter;
    std::atexit([] { defaultCenter().flushAtExit(); });
    return made;
  }();
  return *center;
}

void QXESDistributedNotificationCenter::postNotificationName(const std::string& name,
                                                             const qx::String& object,
                                                             const qx::Dictionary& userInfo,
                                                             std::uint64_t options) {
  QXLogInfo(
      "Recieved notification:[%{public}@] in QXEventStoring Notification Center sender:[%{public}@] "
      "Option[%lu]",
      name, object, options);
  handleNotification(userInfo);
  startTimer();
}

qx::Observation QXESDistributedNotificationCenter::addObserver(qx::String name, qx::String object,
                                                               Handler handler) {
  return machineWideCenter().addObserver(std::move(name), std::move(object), std::move(handler));
}

void QXESDistributedNotificationCenter::post(std::string name, qx::String object, qx::Dictionary userInfo,
                                             std::uint64_t options) {
  postNotificationName(name, object, userInfo, options);
}

bool QXESDistributedNotificationCenter::drain(std::uint64_t milliseconds) {
  {
    const std::lock_guard lock(m_pLock);
    postPending();
  }
  return machineWideCenter().drain(milliseconds);
}

std::uint64_t QXESDistributedNotificationCenter::dropped() const {
  return machineWideCenter().dropped();
}

void QXESDistributedNotificationCenter::handleNotification(const qx::Dictionary& userInfo) {
  QXLogInfo("Handle notification called");
  const qx::Value* const mask = userInfo.find(QXEventStoreChangeKey);
  const qx::Value* const eventID = userInfo.find(QXEventStoreChangedEventIDKey);
  if (mask == nullptr || !mask->isNumber() || eventID == nullptr || eventID->asString() == nullptr) {
    QXLogInfo("Announcement without change mask or event ID dropped");
    return;
  }
  const std::lock_guard lock(m_pLock);
  const auto [position, isNew] = m_pNotifications.try_emplace(mask->integerValue());
  Batch& batch = position->second;
  if (isNew) {
    const qx::Value* const userName = userInfo.find(QXEventStoreModifierUserName);
    if (userName != nullptr) batch.userName = *userName;
  }
  batch.eventIDs.push_back(*eventID);
}

void QXESDistributedNotificationCenter::startTimer() {
  const std::lock_guard lock(m_pLock);
  if (m_pTimer != nullptr || m_pNotifications.empty()) return;
  if (!isEnding_) {
    try {
      m_pTimer = std::make_unique<Timer>(Timer{std::chrono::steady_clock::now() + kInterval});
      qx::startQuietThread([this] { startTimerThread(); }).detach();
      return;
    } catch (const std::system_error& failure) {
      QXLogInfo("Flush thread could not be started [%{public}@]", failure.what());
      m_pTimer.reset();
    }
  }
  postPending();
}

void QXESDistributedNotificationCenter::startTimerThread() {
  QXLogInfo("Start* timer is called");
  std::unique_lock lock(m_pLock);
  while (m_pTimer != nullptr) {
    if (ending_.wait_until(lock, m_pTimer->fireTime, [this] { return isEnding_; })) return;
    handleTimer();
  }
}

/// One tick, with the lock held; the last one when nothing is pending after it.
void QXESDistributedNotificationCenter::handleTimer() {
  QXLogInfo("QXEventStoreNotificationCenter==>>Timer fired:[%{public}@]",
            "repeats every " + std::to_string(kInterval.count()) + " ms");
  postPending();
  m_pTimer->fireTime += kInterval;
  if (m_pNotifications.empty()) m_pTimer.reset();
  QXLogInfo("m_pNotifications ====== [%{public}@]", pendingEventIDs());
}

/// Change mask to pending event IDs, for the log; the lock is held.
qx::Dictionary QXESDistributedNotificationCenter::pendingEventIDs() const {
  qx::Dictionary result;
  for (const auto& [mask, batch] : m_pNotifications)
    result.set(std::to_string(mask), batch.eventIDs);
  return result;
}

/// Posts and forgets every batch; the lock is held.
void QXESDistributedNotificationCenter::postPending() {
  for (auto& [mask, batch] : m_pNotifications) {
    qx::Dictionary userInfo{{std::string(QXEventStoreChangedEventIDKey), std::move(batch.eventIDs)},
                            {std::string(QXEventStoreChangeKey), mask}};
    if (!batch.userName.isNull()) {
      userInfo.set(std::string(QXEventStoreModifierUserName), std::move(batch.userName));
    }
    machineWideCenter().post(std::string(kStoreUpdated), qx::Bundle::mainBundle().bundleIdentifier(),
                             std::move(userInfo), kOptions);
  }
  m_pNotifications.clear();
}

void QXESDistributedNotificationCenter::flushAtExit() {
  const auto start = std::chrono::steady_clock::now();
  bool hasPosted = false;
  {
    // Whoever holds the lock may be a thread that will not run any more.
    std::unique_lock lock(m_pLock, std::try_to_lock);
    while (!lock.owns_lock() && std::chrono::steady_clock::now() < start + kPatienceAtExit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      lock = std::unique_lock(m_pLock, std::try_to_lock);
    }
    if (!lock.owns_lock()) return;
    isEnding_ = true;
    hasPosted = !m_pNotifications.empty();
    postPending();
  }
  ending_.notify_all();
  if (!hasPosted) return;
  const auto left = kPatienceAtExit - (std::chrono::steady_clock::now() - start);
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
  if (milliseconds > 0) machineWideCenter().drain(static_cast<std::uint64_t>(milliseconds));
}
