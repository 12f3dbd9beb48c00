// Queries and the simple look-ups.
//
// Callers write predicates over placeholder attributes. A predicate is printed, the placeholders in its text
// are replaced by the model's key paths, and the result is parsed again; replacing is blind to what a text
// means, so that a value with a placeholder in it is rewritten too. Predicates for blocks are made from
// objects afterwards and never pass through a text.
#include <algorithm>
#include <array>
#include <mutex>
#include <utility>

#include <QXEventStoring/QXEventStore.h>

#include "Logging/EventStoreLog.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXESErrorProvider.h"
#include "Sources/QXEventRecordReader.h"
#include "Sources/QXStoreCoordinator.h"
#include "Sources/QXStoreCoordinatorSupport.h"
#include "Sources/QXStoreSchema.h"
#include "Sources/StringUUID.h"

using qx::coordinator::both;
using qx::coordinator::differs;
using qx::coordinator::equals;
using qx::coordinator::strings;

namespace {

/// The code of an error for what the store cannot evaluate: no store, an unknown entity or key.
constexpr std::int64_t kInvalidRequest = 134060;

// Replaced in this order. The solution status is no attribute: only these four comparisons mean something.
constexpr std::array<std::string_view, 9> kPatterns{
    QXESAttributeEventSourceID,         QXESAttributeEventClassID,
    QXESAttributeEventTriggerTime,      QXESAttributeEventReadStatus,
    QXESAttributeEventSeverity,         "__$<EventSolutionStatus>$__ == 1",
    "__$<EventSolutionStatus>$__ == 0", "1 == __$<EventSolutionStatus>$__",
    "0 == __$<EventSolutionStatus>$__",
};
constexpr std::array<std::string_view, 9> kReplacements{
    kEventSourceID, kEventClassIDRelation, kEventTriggerTime, kEventReadStatus, kEventSeverityRelationKey,
    kIsEventSolved, kIsEventUnsolved,      kIsEventSolved,    kIsEventUnsolved,
};

/// The text of the predicate over the model's key paths; nothing for no predicate.
qx::String rewrittenText(const qx::PredicatePtr& predicate) {
  if (!predicate) return std::nullopt;
  return NSStringUUID::replaceArray(predicate->predicateFormat(), kPatterns, kReplacements);
}

/// Null, without an error, for no text; null with one when it cannot be read.
qx::PredicatePtr readPredicate(const qx::String& text, qx::ErrorPtr* error) {
  return text ? qx::Predicate::withFormat(*text, {}, error) : nullptr;
}

qx::Value listOf(std::vector<std::string> texts) {
  return qx::Array(std::make_move_iterator(texts.begin()), std::make_move_iterator(texts.end()));
}

qx::PredicatePtr isIn(std::string_view keyPath, std::vector<std::string> values) {
  return qx::Predicate::comparison(qx::Expression::keyPath(keyPath), qx::Predicate::Operator::in,
                                   qx::Expression::constant(listOf(std::move(values))));
}

using Conditions = std::vector<qx::PredicatePtr>;

/// Null, for everything, when there are none.
qx::PredicatePtr allOf(Conditions conditions) {
  return conditions.empty() ? nullptr : qx::Predicate::conjunction(std::move(conditions));
}

/// Leaves out what is blocked for one source only.
void removePartiallyBlocked(qx::ManagedObjects& events, const QXEventBlocks& partialBlocks) {
  if (partialBlocks.empty()) return;
  std::erase_if(events, [&](const qx::ManagedObjectPtr& row) {
    const qx::ManagedObjectPtr classRow = row->related(kEventClass);
    return classRow && partialBlocks.blocksPair(classRow->value(kEventClassID), row->value(kEventSourceID));
  });
}

std::optional<std::vector<std::string>> nothingWhenEmpty(std::vector<std::string> texts) {
  if (texts.empty()) return std::nullopt;
  return texts;
}

}  // namespace

/// One for the blocked sources, one for the blocked classes, where there are any.
std::vector<qx::PredicatePtr> QXStoreCoordinator::wholeBlockPredicates() {
  std::vector<qx::PredicatePtr> result;
  if (std::vector<std::string> sources = blockedSourceIds(); !sources.empty()) {
    result.push_back(isIn(kEventSourceID, std::move(sources)));
  }
  if (std::vector<std::string> classes = blockedEventClasses(); !classes.empty()) {
    result.push_back(isIn(kEventClassIDRelation, std::move(classes)));
  }
  return result;
}

std::optional<std::vector<QXEventPtr>> QXStoreCoordinator::eventsWithPredicate(
    const qx::PredicatePtr& predicate, qx::ErrorPtr* error) {
  return recordsOfRows(
      predicate, error, [&](QXDatabaseAccessor& database, Conditions conditions, auto* failure) {
        return database.getManagedObjects(kEventEntity, allOf(std::move(conditions)), failure);
      });
}

std::optional<std::vector<QXEventPtr>> QXStoreCoordinator::newestEventsWithPredicate(
    const qx::PredicatePtr& predicate, std::uint64_t most, qx::ErrorPtr* error) {
  return recordsOfRows(predicate, error,
                       [&](QXDatabaseAccessor& database, Conditions conditions, auto* failure) {
                         // Those that are left out afterwards would take the place of others.
                         conditions.push_back(withoutPartialBlocks());
                         return database.context().fetchLargest(kEventEntity, allOf(std::move(conditions)),
                                                                kEventTriggerTime, most, failure);
                       });
}

/// Records of what `fetch` finds under the rewritten predicate and the blocks of whole sources and classes.
template <class Fetch>
std::optional<std::vector<QXEventPtr>> QXStoreCoordinator::recordsOfRows(const qx::PredicatePtr& predicate,
                                                                         qx::ErrorPtr* error, Fetch fetch) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) {
    qx::setError(error, generateError(noStackError()));
    return std::vector<QXEventPtr>();
  }
  qx::ErrorPtr failure;
  Conditions conditions;
  if (const qx::PredicatePtr rewritten = readPredicate(rewrittenText(predicate), &failure)) {
    conditions.push_back(rewritten);
  }
  if (failure) {
    qx::setError(error, failure);
    return std::nullopt;
  }
  if (Conditions blocks = wholeBlockPredicates(); !blocks.empty()) {
    conditions.push_back(qx::Predicate::negation(qx::Predicate::disjunction(std::move(blocks))));
  }

  std::vector<QXEventPtr> result;
  {
    const std::lock_guard lock(*database);
    std::optional<qx::ManagedObjects> rows = fetch(*database, std::move(conditions), &failure);
    const bool isInvalidRequest = !rows && failure && failure->code() == kInvalidRequest;
    if (!rows) rows.emplace();
    QXLogInfo("EventManaged Objects count = [%lu]", rows->size());
    if (isInvalidRequest && database->hasStore()) {  // which is well: the predicate asks for what it has not
      if (error != nullptr) {
        *error = failure;
        QXLogInfo("Error Occured is ---->>[%{public}@]", *error);
      }
      return std::nullopt;
    }
    removePartiallyBlocked(*rows, QXEventBlocks(partiallyBlockedManagedObjects()));
    result.reserve(rows->size());
    RecordReader reader(*this);
    for (const qx::ManagedObjectPtr& row : *rows) {
      result.push_back(reader.read(*row));
      result.back()->setAsPersistentlyStored(true);
    }
  }
  if (error != nullptr && (failure || result.empty())) {
    *error = failure ? generateError(failure) : storeError();
    QXLogInfo("Error Occured is ---->>[%{public}@]", *error);
  }
  return result;
}

/// True for every event that is not blocked for its source only.
qx::PredicatePtr QXStoreCoordinator::withoutPartialBlocks() {
  std::vector<qx::PredicatePtr> members;
  for (const qx::ManagedObjectPtr& row : partiallyBlockedManagedObjects()) {
    members.push_back(
        qx::Predicate::negation(both(equals(kEventSourceID, row->value(kBlockedSourceID)),
                                     equals(kEventClassIDRelation, row->value(kBlockedEventClassID)))));
  }
  return qx::Predicate::conjunction(std::move(members));
}

// Unlike the query, the count takes no account of what is blocked as a whole.
std::uint64_t QXStoreCoordinator::countOfEventsForPredicate(const qx::PredicatePtr& predicate,
                                                            qx::ErrorPtr* error) {
  constexpr std::uint64_t kFailed = qx::ManagedObjectContext::kNotFound;
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) {
    qx::setError(error, generateError(noStackError()));
    return kFailed;
  }
  const auto refuse = [&](qx::ErrorPtr reason) {
    qx::setError(error, QXESErrorProvider::errorWithDescription(
                            QXEventStoreErrorInvalidQuery, "Failed operation due to invalid input parameters",
                            std::move(reason)));
    return kFailed;
  };
  qx::ErrorPtr failure;
  const qx::String text = rewrittenText(predicate);
  QXLogInfo("countOfEventsForPredicate[Replaced predicte][%{public}@]", text);
  const qx::PredicatePtr rewritten = readPredicate(text, &failure);
  if (failure) return refuse(failure);

  std::uint64_t count = 0;
  bool isInvalidRequest = false;
  {
    const std::lock_guard lock(*database);
    const qx::PredicatePtr notBlocked = withoutPartialBlocks();
    count = database->countOfManagedObjects(kEventEntity,
                                            rewritten ? both(rewritten, notBlocked) : notBlocked, &failure);
    isInvalidRequest = failure && failure->code() == kInvalidRequest && database->hasStore();
  }
  if (isInvalidRequest) {
    refuse(failure);
    if (error != nullptr) QXLogInfo("Error Occured is ---->>[%{public}@]", *error);
    return kFailed;
  }
  if (error != nullptr && (failure || count == 0)) {
    *error = failure ? generateError(failure) : storeError();
    QXLogInfo("Error Occured is ---->>[%{public}@]", *error);
  }
  return count;
}

QXEventPtr QXStoreCoordinator::eventWithEventID(const qx::String& eventID) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr || !eventID) return nullptr;
  const std::lock_guard lock(*database);
  const qx::ManagedObjectPtr row = managedObjectForEventWithID(eventID);
  if (!row) return nullptr;
  auto event = std::make_shared<QXEvent>(eventID);
  setValuesForFromEventManagedObject(*event, *row);
  return event;
}

QXEventPtr QXStoreCoordinator::eventWithClassID(const qx::String& classID) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return nullptr;
  const std::lock_guard lock(*database);
  const qx::ManagedObjectPtr row = managedObjectForEventClassWithID(classID, std::nullopt);
  auto event = std::make_shared<QXEvent>();
  if (row) setValuesForFromEventClassManagedObject(*event, *row);
  return event;
}

// Without a class, all events of the source; without a source, all of the class; without both, those whose
// class row has no class ID.
std::vector<std::string> QXStoreCoordinator::eventsFromSource(const qx::String& source,
                                                              const qx::String& withClassID) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return {};
  const qx::PredicatePtr ofClass = equals(kEventClassIDRelation, withClassID);
  const qx::PredicatePtr ofSource = equals(kEventSourceID, source);
  qx::PredicatePtr predicate = ofClass;
  if (source) predicate = withClassID ? both(ofClass, ofSource) : ofSource;
  const std::lock_guard lock(*database);
  return strings(allObjects(kEventEntity, predicate), kEventID);
}

std::optional<std::vector<std::string>> QXStoreCoordinator::getAllSourceIds() {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return std::nullopt;
  const std::lock_guard lock(*database);
  return nothingWhenEmpty(strings(allObjects(kSourceEntity, nullptr), kSourceID));
}

std::optional<std::vector<std::string>> QXStoreCoordinator::getAllEventClassIDs() {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return std::nullopt;
  const std::lock_guard lock(*database);
  return nothingWhenEmpty(strings(allObjects(kEventClassEntity, equals(kSourceID, nullptr)), kEventClassID));
}

// The sources of the events that isEventBlocked() would not say yes for, without a look at every event.
std::vector<QXEventSourcePtr> QXStoreCoordinator::eventSources() {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return {};
  std::vector<QXEventSourcePtr> result;
  const std::lock_guard lock(*database);
  Conditions conditions;
  if (std::vector<std::string> classes = blockedEventClasses(); !classes.empty()) {
    conditions.push_back(qx::Predicate::negation(isIn(kEventClassIDRelation, std::move(classes))));
  }
  if (qx::PredicatePtr partly = withoutPartialBlocks(); !partly->members().empty()) {
    conditions.push_back(std::move(partly));
  }
  // A block of nothing in particular is one of the events that have no class.
  if (firstObject(kBlockedEventEntity,
                  both(equals(kBlockedEventClassID, nullptr), equals(kBlockedSourceID, nullptr)))) {
    conditions.push_back(differs(kEventClassIDRelation, nullptr));
  }
  const auto identifiers =
      database->context().distinctStrings(kEventEntity, kEventSourceID, allOf(std::move(conditions)));
  if (!identifiers) return {};
  // Whole sources go here and not in the query, which would look at all of their events to find none.
  const std::vector<std::string> blocked = blockedSourceIds();
  const std::unordered_set<std::string_view> isBlocked(blocked.begin(), blocked.end());
  std::unordered_set<const QXEventSource*> listed;
  for (const std::string& identifier : *identifiers) {
    if (isBlocked.contains(identifier)) continue;
    QXEventSourcePtr source = sourceWithID(identifier);
    if (source && listed.insert(source.get()).second) result.push_back(std::move(source));
  }
  return result;
}
