#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Predicate.h>
#include <QXEventStoring/QXEvent.h>
#include <QXEventStoring/QXEventSource.h>

#include "ObjectStore/ManagedObject.h"

class QXDatabaseAccessor;
struct QXEventStoreBlock;
struct QXEventStoreStatus;

/// What is blocked, as it was at one moment. A plain value.
class QXEventBlocks {
 public:
  explicit QXEventBlocks(const qx::ManagedObjects& blockRows);
  bool empty() const { return classes_.empty() && sources_.empty() && pairs_.empty(); }
  /// A missing class or source is blocked only by what stands for every one.
  bool blocks(const qx::Value& classID, const qx::Value& sourceID) const;
  /// Whether that class is blocked for that source and no other.
  bool blocksPair(const qx::Value& classID, const qx::Value& sourceID) const;

 private:
  std::unordered_set<std::string> classes_;                                 // blocked for every source
  std::unordered_set<std::string> sources_;                                 // blocked as a whole
  std::unordered_map<std::string, std::unordered_set<std::string>> pairs_;  // source -> classes
};

/// Stands between the records that callers hold and the rows of the store: maps one to the other, runs
/// queries, keeps blocks and registered applications, and turns the store's failures into the library's
/// errors.
///
/// One object per process, made at first use and never destroyed.
///
/// Threads: any. Lock order: m_pLock (adds only), then the accessor's lock, which stands around every use of
/// rows and of the source cache, then the lock of the event-class database; nobody takes an earlier one
/// while holding a later one. Operations marked "row" neither take the accessor's lock nor may be called
/// without it. Failures go to `error` when it is given. Without a store stack every operation fails, with
/// error 134060 of NSCocoaErrorDomain.
class QXStoreCoordinator {
 public:
  static QXStoreCoordinator& sharedInstance();
  QXStoreCoordinator(const QXStoreCoordinator&) = delete;
  QXStoreCoordinator& operator=(const QXStoreCoordinator&) = delete;

  // Row: look-ups. Null when there is none; a class without a source is made when it is missing, from the
  // event-class database, and is empty when that does not know it.
  qx::ManagedObjectPtr managedObjectForSourceWithID(const qx::String& identifier);
  qx::ManagedObjectPtr managedObjectForEventWithID(const qx::String& identifier);
  qx::ManagedObjectPtr managedObjectForEventClassWithID(const qx::String& classID,
                                                        const qx::String& sourceID) {
    return managedObjectForEventClassWithID(classID, sourceID, nullptr);
  }

  // Row: from rows to records.
  void setValuesFor(QXEventSource& source, const qx::ManagedObject& fromSourceManagedObject);
  void setValuesForFromEventClassManagedObject(QXEvent& event, const qx::ManagedObject& row);
  void setValuesForFromEventManagedObject(QXEvent& event, const qx::ManagedObject& row);

  // Sources.
  /// The process's one record of that stored source, or null.
  QXEventSourcePtr sourceWithID(const qx::String& identifier);
  /// Applies another process's change, keyed by attribute, to the process's record, when there is one.
  void setValuesForSourceWithId(const qx::String& identifier, const qx::Dictionary& fromDictionary);

  /// What the store said of an event in the transaction that added it.
  struct AddedEvent {
    bool isBlocked = false;
    bool hasApplications = false;  // whether any are registered to be launched
  };

  // Event writes; the event has been validated.
  bool addEvent(const QXEventPtr& event, qx::ErrorPtr* error = nullptr, AddedEvent* added = nullptr);
  /// All of them or none, in one transaction. -999, with an item per refused event, before anything is
  /// written.
  bool addEvents(const std::vector<QXEventPtr>& events, qx::ErrorPtr* error = nullptr);
  bool saveEvent(const QXEventPtr& event, qx::ErrorPtr* error = nullptr);
  bool removeEvent(const QXEventPtr& event, qx::ErrorPtr* error = nullptr);
  static constexpr std::int64_t kEventIsMissing = -1;
  static constexpr std::int64_t kEventIsStale = -2;
  /// Copies what was changed in the record into its row, for saveEvent() to write: the change mask, or one
  /// of the two above.
  std::int64_t modifiedEventValueKeys(const QXEventPtr& event);
  /// Both in one transaction, so that no other process saves or removes the event in between. The change
  /// mask, or one of the two above, goes to *changes.
  bool saveChangesOfEvent(const QXEventPtr& event, std::int64_t* changes, qx::ErrorPtr* error = nullptr);
  /// 0 for an event that is not stored.
  std::int64_t storedVersionNumberForEvent(const QXEventPtr& event);

  // Queries. Keys of the predicates are the QXESAttribute... constants.
  /// Empty with *error for a store that cannot be read; nothing at all for a predicate that cannot be used.
  std::optional<std::vector<QXEventPtr>> eventsWithPredicate(const qx::PredicatePtr& predicate,
                                                             qx::ErrorPtr* error = nullptr);
  /// The newest `most` of them, the newest first.
  std::optional<std::vector<QXEventPtr>> newestEventsWithPredicate(const qx::PredicatePtr& predicate,
                                                                   std::uint64_t most,
                                                                   qx::ErrorPtr* error = nullptr);
  /// ManagedObjectContext::kNotFound when counting failed.
  std::uint64_t countOfEventsForPredicate(const qx::PredicatePtr& predicate, qx::ErrorPtr* error = nullptr);
  QXEventPtr eventWithEventID(const qx::String& eventID);
  QXEventPtr eventWithClassID(const qx::String& classID);
  /// IDs of the stored events of both, blocked ones too; see the source for missing arguments.
  std::vector<std::string> eventsFromSource(const qx::String& source, const qx::String& withClassID);
  std::optional<std::vector<std::string>> getAllSourceIds();
  std::optional<std::vector<std::string>> getAllEventClassIDs();
  std::vector<QXEventSourcePtr> eventSources();

  // Blocking. A missing class or source stands for every one.
  /// True, too, for a pair that is blocked already. *error is never written.
  bool blockEventClass(const qx::String& classID, const qx::String& fromSourceID,
                       qx::ErrorPtr* error = nullptr);
  /// Only for that exact pair; false when it was not blocked. *error is never written.
  bool unblockEventClass(const qx::String& classID, const qx::String& fromSourceID,
                         qx::ErrorPtr* error = nullptr);
  bool isEventBlocked(const QXEventPtr& event);
  QXEventBlocks currentBlocks();
  /// Every block; nothing, with *error, when they cannot be read.
  std::optional<std::vector<QXEventStoreBlock>> blocks(qx::ErrorPtr* error);
  /// Blocked as a whole.
  std::vector<std::string> blockedSourceIds();
  /// Their records; one that is not in the store is left out.
  std::vector<QXEventSourcePtr> blockedSources();
  /// Blocked for every source.
  std::vector<std::string> blockedEventClasses();
  /// The same as blockedEventClasses(), whatever the source.
  std::vector<std::string> blockedEventClassBySource(const qx::String& sourceID);
  // Row.
  qx::ManagedObjects partiallyBlockedManagedObjects();
  qx::ManagedObjects blockedEvents();
  qx::ManagedObjects blockedEventManagedObjects();

  // Applications that are started when an event arrives.
  bool storeApplicationPath(const qx::String& path, qx::ErrorPtr* error = nullptr);
  /// Success, too, writes *error (-995): look at the result first.
  bool removeApplicationPath(const qx::String& path, qx::ErrorPtr* error = nullptr);
  qx::ManagedObjects getAllDestinationApplications();  // row
  /// Whether the path occurs anywhere in the command lines of the user's processes.
  bool isApplicationAtPathLaunched(const std::string& path);
  /// False when one of them could not be started.
  bool launchApplicationsWithArgument(const std::string& argument);

  // Failures; called without the accessor's lock.
  /// The library's error for one of the store; null when there is nothing to report. May repair the store.
  qx::ErrorPtr generateError(const qx::ErrorPtr& storeFailure);
  /// What makes the store unusable, or null.
  qx::ErrorPtr storeError();
  /// Free megabytes (of 1,000,000 bytes) of the disk that holds `path`; nothing when they cannot be had,
  /// or when an error slot is given, which is never written.
  std::optional<double> availableSpaceInDisk(std::string_view path, qx::ErrorPtr* error = nullptr);

  /// How the store stands.
  QXEventStoreStatus status();

 private:
  struct BatchMemo;
  class ChangeScope;
  class RecordReader;

  QXStoreCoordinator();
  /// The accessor, tried again while there is none; null when its stack cannot be built.
  QXDatabaseAccessor* accessor();
  static qx::ErrorPtr noStackError();
  bool diskIsFull();
  qx::ErrorPtr errorForUnavailableFile(std::int64_t underlyingCode, const QXDatabaseAccessor& accessor);
  qx::ErrorPtr errorForUnknownFailure(std::int64_t code, QXDatabaseAccessor& accessor);

  // Row, all of them.
  qx::ManagedObjectPtr firstObject(std::string_view entity, const qx::PredicatePtr& predicate);
  qx::ManagedObjects allObjects(std::string_view entity, const qx::PredicatePtr& predicate);
  // A batch that is given hears of every object that is made and of every row that is changed.
  qx::ManagedObjectPtr createObject(std::string_view entity, BatchMemo* memo);
  qx::ManagedObjectPtr managedObjectForEventClassWithID(const qx::String& classID, const qx::String& sourceID,
                                                        BatchMemo* memo);
  qx::ManagedObjectPtr genericClassFromInternalDatabase(const qx::String& classID, BatchMemo* memo);
  std::int64_t severityOfClass(const qx::ManagedObject& classRow);
  static bool eventClassDetail(const QXEvent& event, const qx::ManagedObject& isEqualTo);
  qx::ManagedObjectPtr eventClassManagedObjForEvent(const QXEvent& event, BatchMemo* memo);
  static void setValuesForEventClass(qx::ManagedObject& classRow, const QXEvent& fromEventObject);
  static void setValuesForFromSourceObject(qx::ManagedObject& row, const QXEventSource& source);
  static void postSourceChange(const qx::String& sourceID, const qx::Dictionary& changedValues);
  void setValuesForFromEventObject(qx::ManagedObject& row, const QXEvent& event, BatchMemo* memo);
  void writeSourceOfEvent(const QXEvent& event, BatchMemo* memo);
  bool insertAndSave(const QXEventPtr& event, qx::ErrorPtr* error, AddedEvent* added);
  AddedEvent aboutToBeAdded(const QXEventPtr& event, QXDatabaseAccessor& accessor);
  qx::ErrorPtr refuseEvents(const std::vector<QXEventPtr>& events);
  bool saveBatch(const std::vector<QXEventPtr>& events, QXDatabaseAccessor& accessor, qx::ErrorPtr* error);
  static std::int64_t copyChanges(const QXEvent& event, qx::ManagedObject& row);
  static bool hasStoredInfo(const QXEvent& event, const qx::ManagedObject& row);
  /// Takes back the generic rows that waited to be saved and that another process has saved meanwhile. With
  /// other writers held off.
  void dropClassesMadeElsewhere(QXDatabaseAccessor& accessor);
  template <class Fetch>
  std::optional<std::vector<QXEventPtr>> recordsOfRows(const qx::PredicatePtr& predicate, qx::ErrorPtr* error,
                                                       Fetch fetch);
  std::vector<qx::PredicatePtr> wholeBlockPredicates();
  qx::PredicatePtr withoutPartialBlocks();
  bool launchApplication(const std::string& path, const std::string& argument);

  std::mutex m_pLock;  // around a whole add, so that two adds never interleave
  std::atomic<QXDatabaseAccessor*> m_pDatabaseAccessor{nullptr};
  // Guarded by the accessor's lock.
  std::unordered_map<std::string, QXEventSourcePtr> m_pSourceDictionary;  // grows only
  std::vector<std::weak_ptr<qx::ManagedObject>> unsavedClasses_;          // generic rows that look-ups made
  qx::ErrorPtr lookUpFailure_;                          // the first since the present change began
  std::weak_ptr<qx::ManagedObject> unsavedEmptyClass_;  // the row made last for an unknown class
};
