// The facade: checks what callers hand in, lets the coordinator do the work, keeps the callers' records in
// step, and announces every change to all processes.
#include <QXEventStoring/QXEventStore.h>

#include <map>
#include <utility>

#include <QXEventStoring/Platform/Bundle.h>

#include "Logging/EventStoreLog.h"
#include "Platform/DistributedNotificationCenter.h"
#include "Platform/Host.h"
#include "Sources/QXESDistributedNotificationCenter.h"
#include "Sources/QXESErrorProvider.h"
#include "Sources/QXStoreCoordinator.h"
#include "Sources/QXStoreSchema.h"

namespace {

using Center = qx::DistributedNotificationCenter;

constexpr std::uint64_t kOptions = Center::kDeliverImmediately + Center::kPostToAllSessions;

constexpr const char* kInvalidEvent = "Operation failed due to invalid QXEvent object";
constexpr const char* kInvalidParameter = "Operation failed due to invalid parameter";
constexpr const char* kInvalidInputs = "Failed operation due to invalid input parameters";
constexpr const char* kStale = "The QXEvent not up to date. Please get the event from store";
constexpr const char* kNotPresent = "The QXEvent is not present in the store";
constexpr const char* kWriteFailed = "Operation failed while writing to the file";

// Codes that only the facade gives this meaning.
constexpr std::int64_t kBlockFailed = -997;
constexpr std::int64_t kUnblockFailed = -998;

/// Fills the slot, when there is one; false, for the caller to return.
bool refuse(qx::ErrorPtr* error, std::int64_t code, const char* description) {
  if (error != nullptr) *error = QXESErrorProvider::errorWithDescription(code, description);
  return false;
}

/// The same for a query that could not be run, over what the slot says of the reason.
void refuseQuery(qx::ErrorPtr* error) {
  if (error == nullptr) return;
  *error = QXESErrorProvider::errorWithDescription(QXEventStoreErrorInvalidQuery, kInvalidInputs, *error);
}

qx::Dictionary announcement(qx::Value eventIDs, std::int64_t mask) {
  return {{std::string(QXEventStoreChangedEventIDKey), std::move(eventIDs)},
          {std::string(QXEventStoreChangeKey), mask},
          {std::string(QXEventStoreModifierUserName), qx::Host::current().userName()}};
}

/// Announces at once.
void postDirectly(qx::Value eventIDs, std::int64_t mask) {
  Center::defaultCenter().post(std::string(kStoreUpdated), qx::Bundle::mainBundle().bundleIdentifier(),
                               announcement(std::move(eventIDs), mask), kOptions);
}

/// Announces together with what else changes in the next half second.
void postCoalesced(const qx::String& eventID, std::int64_t mask) {
  QXESDistributedNotificationCenter::defaultCenter().postNotificationName(
      std::string(kStoreUpdated), qx::Bundle::mainBundle().bundleIdentifier(), announcement(eventID, mask),
      kOptions);
}

std::string description(const QXEventPtr& event) {
  return event ? event->description() : "(null)";
}

bool isStoredAndValid(const QXEventPtr& event) {
  return event && event->isValidEvent() && event->isPersistentlyStored();
}

/// User info for the log, where no user is named.
qx::Dictionary withoutUserName(qx::Dictionary userInfo) {
  if (qx::Value* const name = userInfo.find(QXEventStoreModifierUserName)) {
    *name = *name == qx::Value(qx::Host::current().userName()) ? "<current>" : "<another>";
  }
  return userInfo;
}

/// Announcements of blocks carry one ID, the others a list. What is no ID is left out.
std::vector<std::string> eventIDs(const qx::Value& value) {
  if (const std::string* const single = value.asString()) return {*single};
  std::vector<std::string> result;
  if (const qx::Array* const list = value.asArray()) {
    result.reserve(list->size());
    for (const qx::Value& member : *list) {
      if (const std::string* const eventID = member.asString()) result.push_back(*eventID);
    }
  }
  return result;
}

void postLocally(std::string_view name, const QXEventStore* store, qx::Dictionary userInfo) {
  qx::NotificationCenter::defaultCenter().post({std::string(name), store, std::nullopt, std::move(userInfo)});
}

}  // namespace

QXEventStore& QXEventStore::sharedQXEventStore() {
  static QXEventStore* const shared = new QXEventStore;
  return *shared;
}

QXEventStore::QXEventStore() {
  Center::defaultCenter()
      .addObserver(std::string(kStoreUpdated), std::nullopt,
                   [this](const qx::Notification& notification) { notifyListener(notification); })
      .keepForever();
}

bool QXEventStore::addEvent(const QXEventPtr& event, qx::ErrorPtr* error) {
  QXLogInfo("Add event to store:[%{public}@]", description(event));
  if (!event || !event->isValidEvent() || event->isPersistentlyStored()) {
    if (error != nullptr) QXLogInfo("Error occured invalid event");
    return refuse(error, QXEventStoreErrorInvalidEvent, kInvalidEvent);
  }
  QXLogInfo("Valid Event");
  QXStoreCoordinator& coordinator = QXStoreCoordinator::sharedInstance();
  QXStoreCoordinator::AddedEvent added;
  if (!coordinator.addEvent(event, error, &added)) return false;
  event->setAsPersistentlyStored(true);
  QXLogInfo("Event is added successfully");
  if (!added.isBlocked && added.hasApplications) {
    coordinator.launchApplicationsWithArgument(*event->identifier());
  }
  postDirectly(qx::Array{*event->identifier()}, added.isBlocked
                                                    ? QXEventStoreChangeAdded | QXEventStoreChangeBlocked
                                                    : QXEventStoreChangeAdded);
  return true;
}

bool QXEventStore::addEvents(const std::vector<QXEventPtr>& events, qx::ErrorPtr* error) {
  QXLogInfo("Add events to store: count [%lu]", events.size());
  if (events.empty()) return true;
  QXStoreCoordinator& coordinator = QXStoreCoordinator::sharedInstance();
  if (!coordinator.addEvents(events, error)) return false;

  const QXEventBlocks blocks = coordinator.currentBlocks();
  std::map<std::int64_t, qx::Array> eventIDsByMask;
  for (const QXEventPtr& event : events) {
    event->setAsPersistentlyStored(true);
    const bool isBlocked = !blocks.empty() && blocks.blocks(event->classID(), event->source()->identifier());
    const std::int64_t mask =
        isBlocked ? QXEventStoreChangeAdded | QXEventStoreChangeBlocked : QXEventStoreChangeAdded;
    eventIDsByMask[mask].emplace_back(*event->identifier());
  }
  const auto notBlocked = eventIDsByMask.find(QXEventStoreChangeAdded);
  if (notBlocked != eventIDsByMask.end()) {
    coordinator.launchApplicationsWithArgument(*notBlocked->second.front().asString());
  }
  for (auto& [mask, identifiers] : eventIDsByMask)
    postDirectly(std::move(identifiers), mask);
  return true;
}

bool QXEventStore::saveEvent(const QXEventPtr& event, qx::ErrorPtr* error) {
  if (!isStoredAndValid(event)) {
    QXLogInfo("Not valid event");
    return refuse(error, QXEventStoreErrorInvalidEvent, kInvalidParameter);
  }
  QXStoreCoordinator& coordinator = QXStoreCoordinator::sharedInstance();
  std::int64_t mask = 0;
  const bool isSaved = coordinator.saveChangesOfEvent(event, &mask, error);
  if (mask == QXStoreCoordinator::kEventIsStale) return refuse(error, QXEventStoreErrorNotUpToDate, kStale);
  if (mask == QXStoreCoordinator::kEventIsMissing) {
    return refuse(error, QXEventStoreErrorNotInStore, kNotPresent);
  }
  if (!isSaved || mask == 0) return isSaved;
  QXLogInfo("Post notification for save");
  event->setVersionNumber(coordinator.storedVersionNumberForEvent(event));
  postCoalesced(event->identifier(), mask);
  return true;
}

bool QXEventStore::removeEvent(const QXEventPtr& event, qx::ErrorPtr* error) {
  QXLogInfo("Remove Event = [%{public}@]", description(event));
  if (!isStoredAndValid(event)) return refuse(error, QXEventStoreErrorInvalidEvent, kInvalidParameter);
  if (!QXStoreCoordinator::sharedInstance().removeEvent(event, error)) return false;
  event->setAsPersistentlyStored(false);
  postCoalesced(event->identifier(), QXEventStoreChangeRemoved);
  return true;
}

bool QXEventStore::shouldBlock(bool block, const qx::String& eventWithClassID,
                               const QXEventSourcePtr& fromSource, qx::ErrorPtr* error) {
  QXStoreCoordinator& coordinator = QXStoreCoordinator::sharedInstance();
  const qx::String sourceID = fromSource ? fromSource->identifier() : std::nullopt;
  if (!eventWithClassID && !fromSource) return refuse(error, QXEventStoreErrorInvalidEvent, kInvalidInputs);
  if (block) {
    QXLogInfo("Call for block of event class[%{public}@] from source [%{public}@]", eventWithClassID,
              sourceID);
    if (!coordinator.blockEventClass(eventWithClassID, sourceID, error)) {
      return refuse(error, kBlockFailed, kWriteFailed);
    }
  } else {
    QXLogInfo("Call for unblock of event class[%{public}@] from source [%{public}@]", eventWithClassID,
              sourceID);
    if (!coordinator.unblockEventClass(eventWithClassID, sourceID, error)) {
      return refuse(error, kUnblockFailed, kWriteFailed);
    }
  }
  for (std::string& eventID : coordinator.eventsFromSource(sourceID, eventWithClassID)) {
    if (block) {
      QXLogInfo("Send notification for blocking event [%{public}@]", eventID);
    } else {
      QXLogInfo("Send notification for unblocking event [%{public}@]", eventID);
    }
    postDirectly(std::move(eventID), block ? QXEventStoreChangeBlocked : QXEventStoreChangeUnblocked);
  }
  return true;
}

bool QXEventStore::isEventBlocked(const QXEventPtr& event) {
  return QXStoreCoordinator::sharedInstance().isEventBlocked(event);
}

std::vector<std::string> QXEventStore::blockedEventClasses() {
  return QXStoreCoordinator::sharedInstance().blockedEventClasses();
}

std::vector<QXEventSourcePtr> QXEventStore::blockedEventSources() {
  return QXStoreCoordinator::sharedInstance().blockedSources();
}

std::optional<std::vector<QXEventStoreBlock>> QXEventStore::blocks(qx::ErrorPtr* error) {
  return QXStoreCoordinator::sharedInstance().blocks(error);
}

std::optional<std::vector<QXEventPtr>> QXEventStore::eventsWithPredicate(const qx::PredicatePtr& predicate,
                                                                         qx::ErrorPtr* error) {
  auto result = QXStoreCoordinator::sharedInstance().eventsWithPredicate(predicate, error);
  if (!result) refuseQuery(error);
  return result;
}

std::optional<std::vector<QXEventPtr>> QXEventStore::newestEventsWithPredicate(
    const qx::PredicatePtr& predicate, std::uint64_t most, qx::ErrorPtr* error) {
  auto result = QXStoreCoordinator::sharedInstance().newestEventsWithPredicate(predicate, most, error);
  if (!result) refuseQuery(error);
  return result;
}

std::uint64_t QXEventStore::countOfEventsWithPredicate(const qx::PredicatePtr& predicate,
                                                       qx::ErrorPtr* error) {
  return QXStoreCoordinator::sharedInstance().countOfEventsForPredicate(predicate, error);
}

std::vector<QXEventSourcePtr> QXEventStore::eventSources() {
  return QXStoreCoordinator::sharedInstance().eventSources();
}

bool QXEventStore::shouldApplicationAtPath(const qx::String& applicationAtPath, int beLaunchedOnEventCreation,
                                           qx::ErrorPtr* error) {
  if (!applicationAtPath) return refuse(error, QXEventStoreErrorInvalidEvent, kInvalidParameter);
  QXStoreCoordinator& coordinator = QXStoreCoordinator::sharedInstance();
  return beLaunchedOnEventCreation == 1 ? coordinator.storeApplicationPath(applicationAtPath, error)
                                        : coordinator.removeApplicationPath(applicationAtPath, error);
}

QXEventStoreStatus QXEventStore::status() {
  return QXStoreCoordinator::sharedInstance().status();
}

/// Passes a change on to the observers in this process, one notification for each event.
void QXEventStore::notifyListener(const qx::Notification& notification) {
  const qx::Dictionary& userInfo = notification.userInfo;
  QXLogInfo(
      "QXEventStore notifyListener notification: {name = %{public}@; object = %{public}@; "
      "userInfo = %{public}@}",
      notification.name, notification.object, withoutUserName(userInfo));

  const qx::Value* const sourceID = userInfo.find(kModifiedSourceId);
  const qx::Value* const sourceValues = userInfo.find(kModifiedSourceDict);
  if (sourceID != nullptr && sourceValues != nullptr && sourceValues->asDictionary() != nullptr) {
    QXStoreCoordinator::sharedInstance().setValuesForSourceWithId(sourceID->stringValue(),
                                                                  *sourceValues->asDictionary());
  }

  const std::string me = qx::Host::current().userName();
  const qx::Value* const user = userInfo.find(QXEventStoreModifierUserName);
  const qx::Value modifier = user != nullptr ? *user : qx::Value(me);
  const bool isSameUser = modifier == qx::Value(me);
  const qx::Value* const changed = userInfo.find(QXEventStoreChangedEventIDKey);
  if (changed == nullptr) {
    postLocally(isSameUser ? QXEventStoreChangedNotification : QXEventStoreChangedExternallyNotification,
                this, userInfo);
    return;
  }

  const qx::Value* const change = userInfo.find(QXEventStoreChangeKey);
  const std::int64_t mask = change != nullptr ? change->integerValue() : 0;
  const std::vector<std::string> identifiers = eventIDs(*changed);
  QXLogInfo("Operation performed =====================[%lx]", mask);
  QXLogInfo("Post internal notification count = [%lu]", identifiers.size());
  // A poster without an identifier may be anyone, so that its changes are external, to itself too.
  const qx::String application = qx::Bundle::mainBundle().bundleIdentifier();
  const bool isInternal = isSameUser && application && notification.object == application;
  for (const std::string& eventID : identifiers) {
    qx::Dictionary local{{std::string(QXEventStoreChangedEventIDKey), eventID},
                         {std::string(QXEventStoreChangeKey), mask},
                         {std::string(QXEventStoreModifierUserName), modifier}};
    if (isInternal) {
      postLocally(QXEventStoreChangedNotification, this, std::move(local));
    } else {
      QXLogInfo("External notification by the app:[%{public}@] user[%@]", notification.object, me);
      if (notification.object) {
        local.set(std::string(QXEventStoreModifierApplicationIDKey), *notification.object);
      }
      postLocally(QXEventStoreChangedExternallyNotification, this, std::move(local));
    }
    QXLogInfo("Posted event store change notification with event ID '%{public}@'.", eventID);
  }
}
