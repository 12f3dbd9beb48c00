// Adding, saving and removing events: the mapping from records to rows.
//
// A class has one generic row, without a source. A source whose events carry other details than that has a
// row of its own for the class, which follows its latest event; an event points to the row it agrees with.
#include <mutex>
#include <utility>

#include <QXEventStoring/Platform/Bundle.h>
#include <QXEventStoring/QXEventStore.h>

#include "Logging/EventStoreLog.h"
#include "Platform/DistributedNotificationCenter.h"
#include "Platform/Host.h"
#include "Platform/PropertyList.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXESErrorProvider.h"
#include "Sources/QXStoreBatch.h"
#include "Sources/QXStoreChangeScope.h"
#include "Sources/QXStoreCoordinator.h"
#include "Sources/QXStoreCoordinatorSupport.h"
#include "Sources/QXStoreSchema.h"

using qx::coordinator::signed32;
using qx::coordinator::unsigned32;

namespace {

qx::Value textOrNull(const qx::String& text) {
  return text;
}

/// The dictionary as the store keeps it; null when a property list cannot hold it.
qx::Value storedInfo(const qx::Dictionary& additionalInfo) {
  std::optional<std::string> bytes = qx::writeBinaryPropertyList(additionalInfo);
  return bytes ? qx::Value(qx::Data(std::move(*bytes))) : qx::Value();
}

/// An unsigned number as the store's signed columns keep it: the same 64 bits.
std::int64_t asStored(std::uint64_t number) {
  return static_cast<std::int64_t>(number);
}

void setText(qx::ManagedObject& row, std::string_view attribute, const qx::String& text) {
  const std::string* const present = row.value(attribute).asString();
  if (text ? present != nullptr && *present == *text : row.value(attribute).isNull()) return;
  row.setValue(attribute, textOrNull(text));
}

/// Selects the row of a class that belongs to no source.
qx::PredicatePtr genericClass(const qx::Value& classID) {
  return qx::coordinator::both(qx::coordinator::equals(kEventClassID, classID),
                               qx::coordinator::equals(kSourceID, nullptr));
}

}  // namespace

bool QXStoreCoordinator::eventClassDetail(const QXEvent& event, const qx::ManagedObject& isEqualTo) {
  const std::string* const handler = isEqualTo.value(kEventHandler).asString();
  return handler != nullptr && event.handler() == *handler &&
         signed32(isEqualTo.value(kEventSeverity)) == event.severity() &&
         unsigned32(isEqualTo.value(kEventTotalStates)) == event.status().length;
}

qx::ManagedObjectPtr QXStoreCoordinator::eventClassManagedObjForEvent(const QXEvent& event, BatchMemo* memo) {
  const auto find = [&](const qx::String& sourceID) {
    const auto search = [&] { return managedObjectForEventClassWithID(event.classID(), sourceID, memo); };
    return memo != nullptr ? memo->classRow(event.classID(), sourceID, search) : search();
  };
  qx::ManagedObjectPtr row = find(std::nullopt);
  if (!row) {
    row = createObject(kEventClassEntity, memo);
  } else if (!eventClassDetail(event, *row)) {
    const qx::String sourceID = event.source()->identifier();
    row = find(sourceID);
    if (!row) {
      row = createObject(kEventClassEntity, memo);
      if (row) row->setValue(kSourceID, textOrNull(sourceID));
      if (memo != nullptr) memo->rememberClassRow(event.classID(), sourceID, row);
    }
  }
  if (!row) return nullptr;
  if (memo != nullptr) memo->willChange(row);
  setValuesForEventClass(*row, event);
  return row;
}

void QXStoreCoordinator::setValuesForEventClass(qx::ManagedObject& classRow, const QXEvent& fromEventObject) {
  setText(classRow, kEventClassID, fromEventObject.classID());
  setText(classRow, kEventHandler, fromEventObject.handler());
  classRow.setValue(kEventSeverity, fromEventObject.severity());
  classRow.setValue(kEventTotalStates, asStored(fromEventObject.status().length));
}

void QXStoreCoordinator::setValuesForFromSourceObject(qx::ManagedObject& row, const QXEventSource& source) {
  setText(row, kSourceID, source.identifier());
  setText(row, kSourceName, source.name());
  setText(row, kSourceAlternateName, source.alternateName());
  setText(row, kSourceMakeAndModel, source.makeAndModel());
  setText(row, kSourceServiceID, source.serviceID());
  setText(row, kSourceProducNumber, source.productNumber());
}

void QXStoreCoordinator::postSourceChange(const qx::String& sourceID, const qx::Dictionary& changedValues) {
  qx::Dictionary announced;
  for (const auto& [attribute, value] : changedValues) {
    announced.set(attribute, value.isNull() ? "" : value);  // a notification cannot carry the null marker
  }
  qx::Dictionary userInfo{{std::string(QXEventStoreModifierUserName), qx::Host::current().userName()},
                          {std::string(kModifiedSourceDict), std::move(announced)}};
  if (sourceID) userInfo.set(std::string(kModifiedSourceId), *sourceID);
  using Center = qx::DistributedNotificationCenter;
  Center::defaultCenter().post(std::string(kStoreUpdated), qx::Bundle::mainBundle().bundleIdentifier(),
                               std::move(userInfo), Center::kDeliverImmediately + Center::kPostToAllSessions);
}

/// Brings the row of the event's source up to the record, made when there is none: the caller's record then
/// becomes the process's record of that source.
void QXStoreCoordinator::writeSourceOfEvent(const QXEvent& event, BatchMemo* memo) {
  const QXEventSourcePtr& source = event.source();
  const qx::String identifier = source->identifier();
  if (memo != nullptr && memo->isWritten(*identifier, source)) return;
  const auto find = [&] { return managedObjectForSourceWithID(identifier); };
  qx::ManagedObjectPtr row = memo != nullptr ? memo->sourceRow(*identifier, find) : find();
  if (!row) {
    row = createObject(kSourceEntity, memo);
    if (!row) return;
    if (memo != nullptr) memo->willCache(*identifier, row, m_pSourceDictionary);
    m_pSourceDictionary[*identifier] = source;
  }
  if (memo != nullptr) memo->willChange(row);
  setValuesForFromSourceObject(*row, *source);
  if (memo != nullptr) {
    memo->didWrite(*identifier, source);
  } else if (const qx::Dictionary changed = row->changedValues(); !changed.empty()) {
    postSourceChange(identifier, changed);
  }
}

void QXStoreCoordinator::setValuesForFromEventObject(qx::ManagedObject& row, const QXEvent& event,
                                                     BatchMemo* memo) {
  row.setValue(kEventID, textOrNull(event.identifier()));
  row.setValue(kEventReadStatus, event.isRead());
  row.setValue(kEventTriggerTime, event.triggerTime() ? qx::Value(*event.triggerTime()) : qx::Value());
  row.setValue(kEventCurrentState, asStored(event.status().location));
  row.setValue(kEventVersionNo, event.versionNumber());
  row.setRelated(kEventClass, eventClassManagedObjForEvent(event, memo));
  writeSourceOfEvent(event, memo);
  row.setValue(kEventSourceID, textOrNull(event.source()->identifier()));
  row.setValue(kEventAdditionalInfo, storedInfo(event.additionalInfo()));
  QXLogInfo("setValueForEvent:[%{public}@]", event.description());
}

bool QXStoreCoordinator::addEvent(const QXEventPtr& event, qx::ErrorPtr* error, AddedEvent* added) {
  qx::ErrorPtr failure = noStackError();
  bool isSaved = false;
  {
    const std::lock_guard add(m_pLock);
    QXLogInfo("[QXStoreCordinator]lock acquired");
    isSaved = insertAndSave(event, &failure, added);
    QXLogInfo("[QXStoreCordinator]Release lock");
    QXLogInfo("[QXStoreCordinator]Added successfully[%d]", isSaved);
    QXLogInfo("[QXStoreCordinator] Error [%{public}@]",
              isSaved || !failure ? std::nullopt : qx::String(failure->localizedDescription()));
  }
  if (!isSaved && error != nullptr) *error = generateError(failure);
  return isSaved;
}

bool QXStoreCoordinator::insertAndSave(const QXEventPtr& event, qx::ErrorPtr* error, AddedEvent* added) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return false;
  const ChangeScope change(*this, *database);
  const qx::ManagedObjectPtr row = createObject(kEventEntity, nullptr);
  if (!row) return false;
  setValuesForFromEventObject(*row, *event, nullptr);
  if (lookUpFailure_) {
    // What was made for the event stands on look-ups that tell nothing.
    *error = lookUpFailure_;
    database->context().reset();
    return false;
  }
  if (added != nullptr) *added = aboutToBeAdded(event, *database);
  return database->saveEventToStore(error);
}

/// Read in the transaction of the add: afterwards each of the two questions costs a transaction of its own.
QXStoreCoordinator::AddedEvent QXStoreCoordinator::aboutToBeAdded(const QXEventPtr& event,
                                                                  QXDatabaseAccessor& accessor) {
  qx::ManagedObjectContext& context = accessor.context();
  return {.isBlocked = context.count(kBlockedEventEntity, nullptr) != 0 && isEventBlocked(event),
          .hasApplications = context.count(kDestinationAppEntity, nullptr) != 0};
}

bool QXStoreCoordinator::saveChangesOfEvent(const QXEventPtr& event, std::int64_t* changes,
                                            qx::ErrorPtr* error) {
  qx::ErrorPtr failure = noStackError();
  *changes = 0;
  if (QXDatabaseAccessor* const database = accessor()) {
    const ChangeScope change(*this, *database);
    *changes = modifiedEventValueKeys(event);
    if (*changes == kEventIsMissing && lookUpFailure_) {
      *changes = 0;
      failure = lookUpFailure_;
    } else if (*changes < 0) {
      return false;
    } else if (database->saveEventToStore(&failure)) {
      return true;
    }
  }
  if (error != nullptr) *error = generateError(failure);
  return false;
}

bool QXStoreCoordinator::saveEvent(const QXEventPtr&, qx::ErrorPtr* error) {
  qx::ErrorPtr failure = noStackError();
  if (QXDatabaseAccessor* const database = accessor()) {
    const ChangeScope change(*this, *database);
    if (database->saveEventToStore(&failure)) return true;
  }
  if (error != nullptr) *error = generateError(failure);
  return false;
}

bool QXStoreCoordinator::removeEvent(const QXEventPtr& event, qx::ErrorPtr* error) {
  qx::ErrorPtr failure = noStackError();
  bool isSaved = false;
  bool isFound = false;
  if (QXDatabaseAccessor* const database = accessor()) {
    const ChangeScope change(*this, *database);
    const qx::ManagedObjectPtr row = managedObjectForEventWithID(event->identifier());
    isFound = row != nullptr;
    if (lookUpFailure_) {
      failure = lookUpFailure_;  // not found is not gone
    } else {
      database->removeObject(row);
      isSaved = database->saveEventToStore(&failure);
    }
  }
  if (isSaved) QXLogInfo("Event is deleted");
  // Whoever gives no slot asks only that the event be gone.
  if (isSaved && (isFound || error == nullptr)) return true;
  if (error != nullptr) {
    *error = isSaved ? QXESErrorProvider::errorWithCode(QXEventStoreErrorNotInStore) : generateError(failure);
    QXLogInfo("Error while removing is [%{public}@]",
              *error ? qx::String((*error)->localizedDescription()) : std::nullopt);
  }
  return false;
}

void QXStoreCoordinator::dropClassesMadeElsewhere(QXDatabaseAccessor& accessor) {
  std::erase_if(unsavedClasses_, [&](const auto& unsaved) {
    const qx::ManagedObjectPtr row = unsaved.lock();
    if (!row || !row->isValid() || !row->isInserted() || row->isDeleted()) return true;
    // An event that waits too, after a failed add, may need it: then more than the context and we hold it.
    if (row.use_count() > 2) return false;
    const auto rows = accessor.context().fetch(kEventClassEntity, genericClass(row->value(kEventClassID)));
    if (!rows || rows->empty() || rows->front() == row) return false;  // rows of the file come first
    accessor.removeObject(row);
    return true;
  });
}

std::int64_t QXStoreCoordinator::modifiedEventValueKeys(const QXEventPtr& event) {
  std::int64_t result = kEventIsMissing;
  if (QXDatabaseAccessor* const database = accessor()) {
    const std::lock_guard lock(*database);
    const qx::ManagedObjectPtr row = managedObjectForEventWithID(event->identifier());
    if (row) result = copyChanges(*event, *row);
  }
  QXLogInfo("Modified key = [%ld]", result);
  return result;
}

std::int64_t QXStoreCoordinator::copyChanges(const QXEvent& event, qx::ManagedObject& row) {
  const std::int64_t version = row.value(kEventVersionNo).integerValue();
  if (event.versionNumber() < version) return kEventIsStale;
  // Whatever changes, one save raises the version by one; past the largest it wraps, as the file's may be
  // any.
  const auto next = static_cast<std::int64_t>(static_cast<std::uint64_t>(version) + 1);
  std::int64_t changes = 0;
  if (event.isRead() != row.value(kEventReadStatus).boolValue()) {
    if (event.isRead()) {
      QXLogInfo("Set as read");
    } else {
      QXLogInfo("Set as unread");
    }
    row.setValue(kEventReadStatus, event.isRead());
    QXLogInfo("Version number = [%ld]", event.isRead() ? next : version);
    changes = event.isRead() ? QXEventStoreChangeMarkedRead : QXEventStoreChangeMarkedUnread;
  }
  // A state past 32 bits reads back cut: neither the record that was added nor the one that was fetched has
  // changed it.
  const qx::Value& state = row.value(kEventCurrentState);
  const std::uint64_t current = event.status().location;
  if (current != static_cast<std::uint64_t>(state.integerValue()) &&
      current != static_cast<std::uint64_t>(signed32(state))) {
    QXLogInfo("Set the current state");
    row.setValue(kEventCurrentState, asStored(current));
    QXLogInfo("Version number = [%ld]", version);
    changes |= QXEventStoreChangeCurrentState;
  }
  if (!hasStoredInfo(event, row)) {
    QXLogInfo("Set additional info");
    row.setValue(kEventAdditionalInfo, storedInfo(event.additionalInfo()));
    changes |= QXEventStoreChangeAdditionalInfo;
  }
  if (changes != 0) row.setValue(kEventVersionNo, next);
  return changes;
}

/// Whether the row holds the record's additional info. A row without any never does.
bool QXStoreCoordinator::hasStoredInfo(const QXEvent& event, const qx::ManagedObject& row) {
  const qx::Data* const stored = row.value(kEventAdditionalInfo).asData();
  if (stored == nullptr) return false;
  if (event.hasUntouchedInfo(*stored)) return true;
  const std::optional<qx::Value> decoded = qx::readBinaryPropertyList(stored->bytes());
  const qx::Dictionary* const dictionary = decoded ? decoded->asDictionary() : nullptr;
  return dictionary != nullptr && *dictionary == event.additionalInfo();
}

std::int64_t QXStoreCoordinator::storedVersionNumberForEvent(const QXEventPtr& event) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return 0;
  const std::lock_guard lock(*database);
  const qx::ManagedObjectPtr row = managedObjectForEventWithID(event->identifier());
  return row ? row->value(kEventVersionNo).integerValue() : 0;
}
