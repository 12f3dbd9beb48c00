#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/NotificationCenter.h>
#include <QXEventStoring/Platform/Predicate.h>
#include <QXEventStoring/Platform/PredicateBuilder.h>
#include <QXEventStoring/QXEvent.h>
#include <QXEventStoring/QXEventSource.h>

/// The domain of the library's errors.
inline constexpr std::string_view QXEventStoreErrorDomain = "com.qx.eventstoring";

/// Local notification, from the shared store: a change made by this application under this user.
inline constexpr std::string_view QXEventStoreChangedNotification = "QXEventStoreChangedNotification";
/// Local notification: a change made by another application or another user.
inline constexpr std::string_view QXEventStoreChangedExternallyNotification =
    "QXEventStoreChangedExternallyNotification";
// Keys of their user info: the changed event's ID, the change mask (a number), the bundle identifier of
// the application that made an external change, the login name of the user who made the change.
inline constexpr std::string_view QXEventStoreChangedEventIDKey = "Event ID";
inline constexpr std::string_view QXEventStoreChangeKey = "QXEventStoreChangeKey";
inline constexpr std::string_view QXEventStoreModifierApplicationIDKey =
    "QXEventStoreModifierApplicationIDKey";
inline constexpr std::string_view QXEventStoreModifierUserName = "Current User Name";

/// Bits of a change mask.
enum QXEventStoreChange : std::int64_t {
  QXEventStoreChangeAdded = 1,
  QXEventStoreChangeAdditionalInfo = 2,
  QXEventStoreChangeCurrentState = 4,
  QXEventStoreChangeRemoved = 8,
  QXEventStoreChangeMarkedRead = 16,
  QXEventStoreChangeMarkedUnread = 32,
  QXEventStoreChangeBlocked = 64,
  QXEventStoreChangeUnblocked = 128,
  QXEventStoreChangeRepaired = 4096,
};

// Attributes to query by: keys of predicates, given with %K.
inline constexpr std::string_view QXESAttributeEventSourceID = "__$<SourceID>$__";
inline constexpr std::string_view QXESAttributeEventClassID = "__$<EventClassID>$__";
inline constexpr std::string_view QXESAttributeEventTriggerTime = "__$<EventTriggerTime>$__";
inline constexpr std::string_view QXESAttributeEventReadStatus = "__$<EventReadStatus>$__";
inline constexpr std::string_view QXESAttributeEventSeverity = "__$<EventSeverity>$__";
/// Only as == 1 (solved) and == 0 (unsolved).
inline constexpr std::string_view QXESAttributeEventSolutionStatus = "__$<EventSolutionStatus>$__";

/// How the store stands: for administrators and their tools.
struct QXEventStoreStatus {
  std::string path;  // of the store file, under the volume root
  bool exists = false;
  bool open = false;                    // by this process
  bool writable = false;                // the directories, and the file when there is one
  bool compatible = false;              // the file was made for this library's model
  std::uint64_t size = 0;               // bytes
  std::optional<double> freeMegabytes;  // of 1,000,000 bytes, on the store's disk
  qx::ErrorPtr problem;                 // what explains a store that cannot be used
  struct Rows {
    std::string entity;
    std::optional<std::uint64_t> count;  // nothing when counting failed
  };
  std::vector<Rows> rows;
  std::uint64_t blocks = 0;
};

/// A block: of a class, of a source, or of a class for one source.
struct QXEventStoreBlock {
  qx::String classID;   // nothing: every class
  qx::String sourceID;  // nothing: every source
};

/// The machine-wide store of device events.
///
/// One object per process, made at first use and never destroyed; all processes and users of the machine
/// share the same stored events. Records handed in are kept in step: marked as stored after an add, given
/// their new version after a save.
///
/// Threads: any. Errors are of QXEventStoreErrorDomain; a code is read together with the operation.
class QX_EXPORT QXEventStore {
 public:
  static QXEventStore& sharedQXEventStore();
  QXEventStore(const QXEventStore&) = delete;
  QXEventStore& operator=(const QXEventStore&) = delete;

  /// Stores a detached, valid event (else -999), announces it (mask 1; 65 when its class is blocked for
  /// its source) and starts the registered applications.
  bool addEvent(const QXEventPtr& event, qx::ErrorPtr* error = nullptr);
  /// Stores many events in one transaction: all of them or none. Refused when one of them is null,
  /// invalid, stored already, or has the ID of a stored event or of another one of the list: *error (-999)
  /// then has an item for each of those. One announcement for each mask, with all its identifiers.
  bool addEvents(const std::vector<QXEventPtr>& events, qx::ErrorPtr* error = nullptr);
  /// Stores what was changed in a fetched event: read status, current state, additional info. -994 when
  /// the store has a newer version of it (fetch it again), -995 when it is not there, -999 when the record
  /// is invalid or detached. An unchanged event is no failure and is not announced. After a save that failed
  /// otherwise the change waits in memory and goes with the next save of this process; saving the same record
  /// again gives -994 until then.
  bool saveEvent(const QXEventPtr& event, qx::ErrorPtr* error = nullptr);
  /// Removes a stored event and announces it. -999 as for saveEvent(). An event that is gone already gives
  /// -995 when `error` is given, and counts as removed when it is not.
  bool removeEvent(const QXEventPtr& event, qx::ErrorPtr* error = nullptr);

  /// Blocks (or unblocks) a class for a source; no class means all of the source's, no source means every
  /// source. -999 when both are missing, -997 (block) or -998 (unblock) when it could not be written.
  bool shouldBlock(bool block, const qx::String& eventWithClassID, const QXEventSourcePtr& fromSource,
                   qx::ErrorPtr* error = nullptr);
  bool isEventBlocked(const QXEventPtr& event);
  /// Classes blocked for every source.
  std::vector<std::string> blockedEventClasses();
  /// Sources blocked as a whole.
  std::vector<QXEventSourcePtr> blockedEventSources();
  /// Every block, those of a class for one source too, in the order of their making. Nothing, with *error,
  /// when they cannot be read.
  std::optional<std::vector<QXEventStoreBlock>> blocks(qx::ErrorPtr* error = nullptr);

  /// Events that `predicate` selects (all when it is null) and that are not blocked, in the order of their
  /// adding; keys are the QXESAttribute... constants. An empty result of a store that cannot be read comes
  /// with an error.
  std::optional<std::vector<QXEventPtr>> eventsWithPredicate(const qx::PredicatePtr& predicate,
                                                             qx::ErrorPtr* error = nullptr);
  /// The newest `most` of them by trigger time, the newest first; of those of the same moment the one that
  /// was added last. Costs no more memory than what it returns.
  std::optional<std::vector<QXEventPtr>> newestEventsWithPredicate(const qx::PredicatePtr& predicate,
                                                                   std::uint64_t most,
                                                                   qx::ErrorPtr* error = nullptr);
  /// How many events `predicate` selects. Unlike eventsWithPredicate() it counts those of wholly blocked
  /// sources and classes too. The largest value when counting failed.
  std::uint64_t countOfEventsWithPredicate(const qx::PredicatePtr& predicate, qx::ErrorPtr* error = nullptr);
  /// Sources that have at least one event that is not blocked.
  std::vector<QXEventSourcePtr> eventSources();

  /// Registers an application (true, or 1 exactly), or removes it (any other number): it is started with
  /// "-eventID" and the ID when an event is added that is not blocked, unless it is running.
  /// `applicationAtPath`: absolute path, or null (-999).
  bool shouldApplicationAtPath(const qx::String& applicationAtPath, int beLaunchedOnEventCreation,
                               qx::ErrorPtr* error = nullptr);

  /// Examines the store; writes nothing but the file's permissions.
  QXEventStoreStatus status();

 private:
  QXEventStore();
  void notifyListener(const qx::Notification& notification);
};
