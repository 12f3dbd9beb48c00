// Blocks: rows of a class ID and a source ID, either of which may be missing and then stands for every one.
#include <mutex>
#include <utility>

#include <QXEventStoring/QXEventStore.h>

#include "Logging/EventStoreLog.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXStoreChangeScope.h"
#include "Sources/QXStoreCoordinator.h"
#include "Sources/QXStoreCoordinatorSupport.h"
#include "Sources/QXStoreSchema.h"

using qx::coordinator::both;
using qx::coordinator::differs;
using qx::coordinator::equals;
using qx::coordinator::strings;

namespace {

qx::PredicatePtr pair(const qx::String& classID, const qx::String& sourceID) {
  return both(equals(kBlockedEventClassID, classID), equals(kBlockedSourceID, sourceID));
}

/// Rows that have `present` and lack `missing`.
qx::PredicatePtr onlyHaving(std::string_view present, std::string_view missing) {
  return both(differs(present, nullptr), equals(missing, nullptr));
}

}  // namespace

QXEventBlocks::QXEventBlocks(const qx::ManagedObjects& blockRows) {
  for (const qx::ManagedObjectPtr& row : blockRows) {
    const std::string* const classID = row->value(kBlockedEventClassID).asString();
    const std::string* const sourceID = row->value(kBlockedSourceID).asString();
    if (classID != nullptr && sourceID != nullptr) {
      pairs_[*sourceID].insert(*classID);
    } else if (classID != nullptr) {
      classes_.insert(*classID);
    } else if (sourceID != nullptr) {
      sources_.insert(*sourceID);
    }
  }
}

bool QXEventBlocks::blocks(const qx::Value& classID, const qx::Value& sourceID) const {
  if (empty()) return false;
  if (classID.asString() != nullptr && classes_.contains(*classID.asString())) return true;
  if (sourceID.asString() != nullptr && sources_.contains(*sourceID.asString())) return true;
  return blocksPair(classID, sourceID);
}

bool QXEventBlocks::blocksPair(const qx::Value& classID, const qx::Value& sourceID) const {
  if (classID.asString() == nullptr || sourceID.asString() == nullptr) return false;
  const auto classes = pairs_.find(*sourceID.asString());
  return classes != pairs_.end() && classes->second.contains(*classID.asString());
}

bool QXStoreCoordinator::blockEventClass(const qx::String& classID, const qx::String& fromSourceID,
                                         qx::ErrorPtr*) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return false;
  {
    // What is blocked already needs no place among those who write.
    const std::lock_guard lock(*database);
    if (firstObject(kBlockedEventEntity, pair(classID, fromSourceID))) return true;
  }
  const ChangeScope change(*this, *database);
  if (firstObject(kBlockedEventEntity, pair(classID, fromSourceID))) return true;
  const qx::ManagedObjectPtr row = database->createManagedObject(kBlockedEventEntity);
  if (!row) return false;
  row->setValue(kBlockedSourceID, fromSourceID);
  row->setValue(kBlockedEventClassID, classID);
  qx::ErrorPtr ignored;
  return database->saveEventToStore(&ignored);
}

bool QXStoreCoordinator::unblockEventClass(const qx::String& classID, const qx::String& fromSourceID,
                                           qx::ErrorPtr*) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return false;
  const ChangeScope change(*this, *database);
  const qx::ManagedObjectPtr row = firstObject(kBlockedEventEntity, pair(classID, fromSourceID));
  if (!row) return false;
  database->removeObject(row);
  qx::ErrorPtr ignored;
  return database->saveEventToStore(&ignored);
}

bool QXStoreCoordinator::isEventBlocked(const QXEventPtr& event) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr || !event) return false;
  const qx::String& classID = event->classID();
  const qx::String sourceID = event->source() ? event->source()->identifier() : std::nullopt;
  const qx::PredicatePtr predicate = qx::Predicate::disjunction(
      {pair(classID, sourceID), pair(classID, std::nullopt), pair(std::nullopt, sourceID)});
  const std::lock_guard lock(*database);
  return firstObject(kBlockedEventEntity, predicate) != nullptr;
}

QXEventBlocks QXStoreCoordinator::currentBlocks() {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return QXEventBlocks({});
  const std::lock_guard lock(*database);
  return QXEventBlocks(blockedEvents());
}

std::optional<std::vector<QXEventStoreBlock>> QXStoreCoordinator::blocks(qx::ErrorPtr* error) {
  QXDatabaseAccessor* const database = accessor();
  qx::ErrorPtr failure;
  std::vector<QXEventStoreBlock> result;
  if (database == nullptr) {
    failure = noStackError();
  } else {
    const std::lock_guard lock(*database);
    const auto rows = database->getManagedObjects(kBlockedEventEntity, nullptr, &failure);
    for (const qx::ManagedObjectPtr& row : rows.value_or(qx::ManagedObjects())) {
      result.push_back({.classID = row->value(kBlockedEventClassID).stringValue(),
                        .sourceID = row->value(kBlockedSourceID).stringValue()});
    }
  }
  if (!failure) return result;
  qx::setError(error, generateError(failure));
  return std::nullopt;
}

std::vector<std::string> QXStoreCoordinator::blockedSourceIds() {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return {};
  const std::lock_guard lock(*database);
  return strings(allObjects(kBlockedEventEntity, onlyHaving(kBlockedSourceID, kBlockedEventClassID)),
                 kBlockedSourceID);
}

std::vector<QXEventSourcePtr> QXStoreCoordinator::blockedSources() {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return {};
  std::vector<QXEventSourcePtr> result;
  const std::lock_guard lock(*database);
  for (const std::string& identifier : blockedSourceIds()) {
    if (QXEventSourcePtr source = sourceWithID(identifier)) result.push_back(std::move(source));
  }
  return result;
}

std::vector<std::string> QXStoreCoordinator::blockedEventClasses() {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return {};
  const std::lock_guard lock(*database);
  return strings(allObjects(kBlockedEventEntity, onlyHaving(kBlockedEventClassID, kBlockedSourceID)),
                 kBlockedEventClassID);
}

std::vector<std::string> QXStoreCoordinator::blockedEventClassBySource(const qx::String&) {
  return blockedEventClasses();
}

qx::ManagedObjects QXStoreCoordinator::partiallyBlockedManagedObjects() {
  return allObjects(kBlockedEventEntity,
                    both(differs(kBlockedSourceID, nullptr), differs(kBlockedEventClassID, nullptr)));
}

qx::ManagedObjects QXStoreCoordinator::blockedEvents() {
  return allObjects(kBlockedEventEntity, nullptr);
}

qx::ManagedObjects QXStoreCoordinator::blockedEventManagedObjects() {
  return blockedEvents();
}
