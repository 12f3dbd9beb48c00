// Adding many events in one transaction: all of them or none.
#include "Sources/QXStoreBatch.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include <QXEventStoring/QXEventStore.h>

#include "Logging/EventStoreLog.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXESErrorProvider.h"
#include "Sources/QXStoreChangeScope.h"
#include "Sources/QXStoreCoordinatorSupport.h"
#include "Sources/QXStoreSchema.h"

namespace {

/// How many IDs one query asks for.
constexpr std::size_t kIDsPerQuery = 500;

/// What is wrong with a record by itself; empty when nothing is.
std::string fault(const QXEventPtr& event) {
  if (!event) return "the event is null";
  if (event->isPersistentlyStored()) return "the event is stored already";
  if (!event->identifier()) return "the event has no identifier";
  if (!event->classID()) return "the event has no class ID";
  if (!event->handler()) return "the event has no handler";
  if (!event->triggerTime()) return "the event has no trigger time";
  if (!event->source()) return "the event has no source";
  if (!event->isValidEvent()) return "the event's source has no name";
  return {};
}

/// Gathers what is wrong with the events of a list.
class Refusals {
 public:
  void add(std::size_t index, const std::string& reason) {
    items_.push_back({index, QXESErrorProvider::errorWithDescription(QXEventStoreErrorInvalidEvent,
                                                                     "Event not added: " + reason)});
  }
  /// The error for the whole list; null when nothing is wrong.
  qx::ErrorPtr error() {
    if (items_.empty()) return nullptr;
    std::sort(items_.begin(), items_.end(),
              [](const auto& first, const auto& second) { return first.index < second.index; });
    qx::Error::Details details;
    details.description = "Operation failed due to invalid QXEvent object";
    details.items = std::move(items_);
    return qx::Error::make(QXEventStoreErrorDomain, QXEventStoreErrorInvalidEvent, std::move(details));
  }

 private:
  std::vector<qx::Error::Item> items_;
};

}  // namespace

std::string QXStoreCoordinator::BatchMemo::classKey(const qx::String& classID, const qx::String& sourceID) {
  // The length keeps the two apart whatever is in them; no source is no source with an empty ID.
  const std::string text = classID.value_or("");
  return std::to_string(text.size()) + (sourceID ? ":" + text + *sourceID : "/" + text);
}

bool QXStoreCoordinator::BatchMemo::isWritten(const std::string& sourceID,
                                              const QXEventSourcePtr& record) const {
  const auto found = sources_.find(sourceID);
  return found != sources_.end() && found->second.lastRecord == record;
}

void QXStoreCoordinator::BatchMemo::didWrite(const std::string& sourceID, const QXEventSourcePtr& record) {
  sources_[sourceID].lastRecord = record;
}

void QXStoreCoordinator::BatchMemo::willCache(
    const std::string& sourceID, qx::ManagedObjectPtr row,
    const std::unordered_map<std::string, QXEventSourcePtr>& cache) {
  const auto cached = cache.find(sourceID);
  formerRecords_.emplace_back(sourceID, cached != cache.end() ? cached->second : nullptr);
  sources_[sourceID].row = std::move(row);
}

void QXStoreCoordinator::BatchMemo::didInsert(const qx::ManagedObjectPtr& row) {
  inserted_.push_back(row);
  if (row->entity().name() != kEventEntity) formerValues_.try_emplace(row);
}

void QXStoreCoordinator::BatchMemo::willChange(const qx::ManagedObjectPtr& row) {
  const auto [position, isNew] = formerValues_.try_emplace(row);
  if (!isNew || !row->hasChanges()) return;  // what was clean is clean again once its changes are forgotten
  for (const qx::PropertyDescription& property : row->entity().properties()) {
    if (property.kind != qx::PropertyDescription::Kind::attribute) continue;
    position->second.emplace_back(property.name, row->value(property.name));
  }
}

std::vector<std::pair<std::string, qx::Dictionary>> QXStoreCoordinator::BatchMemo::sourceChanges() const {
  std::vector<std::pair<std::string, qx::Dictionary>> result;
  for (const auto& [sourceID, source] : sources_) {
    if (!source.row) continue;
    qx::Dictionary changed = source.row->changedValues();
    if (!changed.empty()) result.emplace_back(sourceID, std::move(changed));
  }
  return result;
}

void QXStoreCoordinator::BatchMemo::undo(QXDatabaseAccessor& accessor,
                                         std::unordered_map<std::string, QXEventSourcePtr>& cache) {
  std::for_each(inserted_.rbegin(), inserted_.rend(),
                [&](const qx::ManagedObjectPtr& row) { accessor.removeObject(row); });
  for (const auto& [row, values] : formerValues_) {
    if (values.empty()) accessor.context().discardChanges(row);
    for (const auto& [attribute, value] : values)
      row->setValue(attribute, value);
  }
  for (const auto& [sourceID, record] : formerRecords_) {
    if (record) {
      cache[sourceID] = record;
    } else {
      cache.erase(sourceID);
    }
  }
}

/// What is wrong with the list; null when all of it may be added.
qx::ErrorPtr QXStoreCoordinator::refuseEvents(const std::vector<QXEventPtr>& events) {
  Refusals refusals;
  std::unordered_map<std::string_view, std::size_t> positions;
  qx::Array pending;
  const auto refuseStored = [&] {
    if (pending.empty()) return;
    const auto predicate =
        qx::Predicate::comparison(qx::Expression::keyPath(kEventID), qx::Predicate::Operator::in,
                                  qx::Expression::constant(std::move(pending)));
    pending = {};
    for (const std::string& stored :
         qx::coordinator::strings(allObjects(kEventEntity, predicate), kEventID)) {
      const auto found = positions.find(stored);
      if (found == positions.end()) continue;
      refusals.add(found->second, "an event with the ID \"" + stored + "\" is stored already");
      positions.erase(found);  // rows of other programs may share an ID
    }
  };
  positions.reserve(events.size());
  for (std::size_t index = 0; index < events.size(); ++index) {
    if (const std::string reason = fault(events[index]); !reason.empty()) {
      refusals.add(index, reason);
      continue;
    }
    const std::string& eventID = *events[index]->identifier();
    if (!positions.try_emplace(eventID, index).second) {
      refusals.add(index, "the ID \"" + eventID + "\" occurs twice in the list");
      continue;
    }
    pending.emplace_back(eventID);
    if (pending.size() == kIDsPerQuery) refuseStored();
  }
  refuseStored();
  return refusals.error();
}

bool QXStoreCoordinator::addEvents(const std::vector<QXEventPtr>& events, qx::ErrorPtr* error) {
  qx::ErrorPtr failure = noStackError();
  if (QXDatabaseAccessor* const database = accessor()) {
    const std::lock_guard add(m_pLock);
    const ChangeScope change(*this, *database);
    if (const qx::ErrorPtr refused = refuseEvents(events)) {
      qx::setError(error, refused);
      return false;
    }
    if (saveBatch(events, *database, &failure)) return true;
  }
  if (error != nullptr) *error = generateError(failure);
  return false;
}

bool QXStoreCoordinator::saveBatch(const std::vector<QXEventPtr>& events, QXDatabaseAccessor& accessor,
                                   qx::ErrorPtr* error) {
  BatchMemo memo;
  bool isComplete = true;
  for (const QXEventPtr& event : events) {
    const qx::ManagedObjectPtr row = createObject(kEventEntity, &memo);
    isComplete = row != nullptr;
    if (!isComplete) break;
    setValuesForFromEventObject(*row, *event, &memo);
  }
  const auto sourceChanges = memo.sourceChanges();
  if (!isComplete || !accessor.saveEventToStore(error)) {
    memo.undo(accessor, m_pSourceDictionary);
    return false;
  }
  for (const auto& [sourceID, changes] : sourceChanges)
    postSourceChange(sourceID, changes);
  return true;
}
