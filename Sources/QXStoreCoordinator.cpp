// The coordinator itself, its look-ups, and the mapping from rows to records.
#include "Sources/QXStoreCoordinator.h"

#include <algorithm>
#include <array>
#include <utility>

#include <QXEventStoring/QXEventStore.h>

#include "Logging/EventStoreLog.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXEventRecordReader.h"
#include "Sources/QXStoreBatch.h"
#include "Sources/QXStoreCoordinatorSupport.h"
#include "Sources/QXStoreSchema.h"

using qx::coordinator::both;
using qx::coordinator::equals;

namespace {

/// Classes whose severity is that of their row, not that of the event-class database. Sorted.
constexpr std::array<std::string_view, 9> kSpecialClasses{
    "com.qx.printer.frontpanelevent.scan",
    "com.qx.printer.state.devicestatus.attentionneeded.inreservemode",
    "com.qx.printer.state.devicestatus.outputbinclosed",
    "com.qx.printer.state.devicestatus.phastartupblocked",
    "com.qx.printer.state.supply.installed.genuineqx",
    "com.qx.printer.state.supply.installed.previouslyused.acknowledge",
    "com.qx.printer.state.supply.status.defectivememory",
    "com.qx.printer.state.supply.status.memorymissing",
    "com.qx.printer.state.supply.status.unsupported",
};
static_assert(std::is_sorted(kSpecialClasses.begin(), kSpecialClasses.end()));

bool isSpecialClass(const qx::String& classID) {
  return classID && std::binary_search(kSpecialClasses.begin(), kSpecialClasses.end(), *classID);
}

}  // namespace

QXStoreCoordinator& QXStoreCoordinator::sharedInstance() {
  static QXStoreCoordinator* const instance = new QXStoreCoordinator;
  return *instance;
}

QXStoreCoordinator::QXStoreCoordinator() {
  QXEventStore::sharedQXEventStore();
  accessor();
}

QXDatabaseAccessor* QXStoreCoordinator::accessor() {
  QXDatabaseAccessor* const known = m_pDatabaseAccessor.load();
  if (known != nullptr) return known;
  QXDatabaseAccessor* const made = QXDatabaseAccessor::sharedDBAccessor();
  if (made != nullptr) m_pDatabaseAccessor.store(made);
  return made;
}

qx::ErrorPtr QXStoreCoordinator::noStackError() {
  return qx::Error::make(qx::kCocoaErrorDomain, 134060,
                         "The event store cannot be used: a resource of the library is missing or broken.");
}

qx::ManagedObjects QXStoreCoordinator::allObjects(std::string_view entity,
                                                  const qx::PredicatePtr& predicate) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return {};
  qx::ErrorPtr failure;
  auto objects = database->context().fetch(entity, predicate, &failure);
  if (!objects && !lookUpFailure_) lookUpFailure_ = failure;
  return std::move(objects).value_or(qx::ManagedObjects());
}

qx::ManagedObjectPtr QXStoreCoordinator::firstObject(std::string_view entity,
                                                     const qx::PredicatePtr& predicate) {
  const qx::ManagedObjects rows = allObjects(entity, predicate);
  return rows.empty() ? nullptr : rows.front();
}

qx::ManagedObjectPtr QXStoreCoordinator::managedObjectForSourceWithID(const qx::String& identifier) {
  qx::ManagedObjectPtr row = firstObject(kSourceEntity, equals(kSourceID, identifier));
  accessor()->refreshObject(row);
  return row;
}

qx::ManagedObjectPtr QXStoreCoordinator::managedObjectForEventWithID(const qx::String& identifier) {
  qx::ManagedObjectPtr row = firstObject(kEventEntity, equals(kEventID, identifier));
  accessor()->refreshObject(row);
  return row;
}

qx::ManagedObjectPtr QXStoreCoordinator::createObject(std::string_view entity, BatchMemo* memo) {
  qx::ManagedObjectPtr row = accessor()->createManagedObject(entity);
  if (row && memo != nullptr) memo->didInsert(row);
  return row;
}

qx::ManagedObjectPtr QXStoreCoordinator::managedObjectForEventClassWithID(const qx::String& classID,
                                                                          const qx::String& sourceID,
                                                                          BatchMemo* memo) {
  qx::ManagedObjectPtr row =
      firstObject(kEventClassEntity, both(equals(kEventClassID, classID), equals(kSourceID, sourceID)));
  if (row || sourceID) return row;
  return genericClassFromInternalDatabase(classID, memo);
}

/// Makes the row of a class that the store does not have yet.
///
/// The accessor's lock stays held while the event-class database, with a lock of its own, is searched: the
/// search is short, nobody takes the locks the other way round, and no other thread can save the event that
/// is being filled meanwhile.
qx::ManagedObjectPtr QXStoreCoordinator::genericClassFromInternalDatabase(const qx::String& classID,
                                                                          BatchMemo* memo) {
  const std::optional<qx::Dictionary> known = accessor()->searchInInternalDatabase(classID);
  if (!known) {
    // One empty row at a time waits to be saved: asking again and again for unknown classes costs nothing.
    qx::ManagedObjectPtr waiting = unsavedEmptyClass_.lock();
    if (waiting && waiting->isValid() && waiting->isInserted() && !waiting->isDeleted()) return waiting;
  }
  qx::ManagedObjectPtr row = createObject(kEventClassEntity, memo);
  if (!row) return nullptr;
  if (known) {
    for (const auto& [attribute, value] : *known)
      row->setValue(attribute, value);
    if (memo == nullptr) unsavedClasses_.push_back(row);
  } else {
    unsavedEmptyClass_ = row;
  }
  row->setValue(kSourceID, nullptr);
  return row;
}

void QXStoreCoordinator::setValuesFor(QXEventSource& source, const qx::ManagedObject& row) {
  source.setIdentifier(row.value(kSourceID).stringValue());
  source.setName(row.value(kSourceName).stringValue());
  source.setAlternateName(row.value(kSourceAlternateName).stringValue());
  source.setMakeAndModel(row.value(kSourceMakeAndModel).stringValue());
  source.setProductNumber(row.value(kSourceProducNumber).stringValue());
  source.setServiceID(row.value(kSourceServiceID).stringValue());
}

std::int64_t QXStoreCoordinator::severityOfClass(const qx::ManagedObject& classRow) {
  const qx::String classID = classRow.value(kEventClassID).stringValue();
  if (isSpecialClass(classID)) return classRow.value(kEventSeverity).integerValue();
  return accessor()->eventSeverityFromInternalDatabase(classID);
}

void QXStoreCoordinator::setValuesForFromEventClassManagedObject(QXEvent& event,
                                                                 const qx::ManagedObject& row) {
  RecordReader(*this).readClass(event, row);
}

void QXStoreCoordinator::setValuesForFromEventManagedObject(QXEvent& event, const qx::ManagedObject& row) {
  RecordReader(*this).readEvent(event, row);
}

QXEventSourcePtr QXStoreCoordinator::sourceWithID(const qx::String& identifier) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr || !identifier) return nullptr;
  const std::lock_guard lock(*database);
  const auto cached = m_pSourceDictionary.find(*identifier);
  if (cached != m_pSourceDictionary.end()) return cached->second;
  const qx::ManagedObjectPtr row = managedObjectForSourceWithID(identifier);
  if (!row) return nullptr;
  auto source = std::make_shared<QXEventSource>();
  setValuesFor(*source, *row);
  m_pSourceDictionary.emplace(*identifier, source);
  return source;
}

void QXStoreCoordinator::setValuesForSourceWithId(const qx::String& identifier,
                                                  const qx::Dictionary& fromDictionary) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr || !identifier) return;
  QXEventSourcePtr source;
  {
    const std::lock_guard lock(*database);
    const auto cached = m_pSourceDictionary.find(*identifier);
    if (cached == m_pSourceDictionary.end()) return;
    source = cached->second;
  }
  const auto apply = [&](std::string_view attribute, const auto& setter) {
    if (const qx::Value* const value = fromDictionary.find(attribute)) setter(value->stringValue());
  };
  apply(kSourceID, [&](const qx::String& text) { source->setIdentifier(text); });
  apply(kSourceName, [&](const qx::String& text) { source->setName(text); });
  apply(kSourceAlternateName, [&](const qx::String& text) { source->setAlternateName(text); });
  apply(kSourceMakeAndModel, [&](const qx::String& text) { source->setMakeAndModel(text); });
  apply(kSourceProducNumber, [&](const qx::String& text) { source->setProductNumber(text); });
  apply(kSourceServiceID, [&](const qx::String& text) { source->setServiceID(text); });
}
