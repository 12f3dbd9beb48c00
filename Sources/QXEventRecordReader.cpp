// Reading a hundred thousand events spends its time here: values are read by reference, copied once, and
// straight into the fields, with the same rules as the record's setters.
#include "Sources/QXEventRecordReader.h"

#include "Sources/QXStoreCoordinatorSupport.h"
#include "Sources/QXStoreSchema.h"

using qx::coordinator::signed32;
using qx::coordinator::unsigned32;

namespace {

const std::string* textUnlessEmpty(const qx::Value& value) {
  const std::string* const text = value.asString();
  return text != nullptr && !text->empty() ? text : nullptr;
}

/// Past the end, where every value is null, for an attribute that the entity does not have.
std::size_t position(const qx::EntityDescription& entity, std::string_view attribute) {
  return entity.indexOf(attribute).value_or(entity.properties().size());
}

}  // namespace

QXEventPtr QXStoreCoordinator::RecordReader::read(const qx::ManagedObject& row) {
  auto event = std::make_shared<QXEvent>(row.valueAt(attributesOf(row).eventID).stringValue());
  readEvent(*event, row);
  return event;
}

void QXStoreCoordinator::RecordReader::readEvent(QXEvent& event, const qx::ManagedObject& row) {
  const EventAttributes& at = attributesOf(row);
  event.setReadStatus(row.valueAt(at.readStatus).boolValue());
  if (const qx::Date* const time = row.valueAt(at.triggerTime).asDate()) event.m_pTriggerTime = *time;
  event.setVersionNumber(row.valueAt(at.version).integerValue());
  std::uint64_t totalStates = 0;
  if (const qx::ManagedObjectPtr classRow = row.related(kEventClass)) {
    const ClassDetails& details = detailsOf(*classRow);
    take(event, details);
    totalStates = details.totalStates;
  }
  event.setStatus({static_cast<std::uint64_t>(signed32(row.valueAt(at.currentState))), totalStates});
  if (const std::string* const sourceID = row.valueAt(at.sourceID).asString()) {
    if (const QXEventSourcePtr& known = source(*sourceID)) event.m_pSource = known;
  }
  if (const qx::Data* const info = row.valueAt(at.additionalInfo).asData()) event.mergeAdditionalInfo(*info);
}

void QXStoreCoordinator::RecordReader::readClass(QXEvent& event, const qx::ManagedObject& row) {
  const ClassDetails& details = detailsOf(row);
  take(event, details);
  event.setStatus({0, details.totalStates});
}

void QXStoreCoordinator::RecordReader::take(QXEvent& event, const ClassDetails& details) {
  if (details.classID != nullptr) event.m_pClassID = *details.classID;
  if (details.handler != nullptr) event.m_pHandler = *details.handler;
  event.setSeverity(details.severity);
}

auto QXStoreCoordinator::RecordReader::attributesOf(const qx::ManagedObject& row) -> const EventAttributes& {
  const qx::EntityDescription& entity = row.entity();
  if (attributes_.entity == &entity) return attributes_;
  attributes_ = {.entity = &entity,
                 .eventID = position(entity, kEventID),
                 .readStatus = position(entity, kEventReadStatus),
                 .triggerTime = position(entity, kEventTriggerTime),
                 .currentState = position(entity, kEventCurrentState),
                 .version = position(entity, kEventVersionNo),
                 .sourceID = position(entity, kEventSourceID),
                 .additionalInfo = position(entity, kEventAdditionalInfo)};
  return attributes_;
}

auto QXStoreCoordinator::RecordReader::detailsOf(const qx::ManagedObject& classRow) -> const ClassDetails& {
  const auto [known, isNew] = classes_.try_emplace(&classRow);
  if (isNew) {
    known->second = {.classID = textUnlessEmpty(classRow.value(kEventClassID)),
                     .handler = textUnlessEmpty(classRow.value(kEventHandler)),
                     .severity = coordinator_.severityOfClass(classRow),
                     .totalStates = unsigned32(classRow.value(kEventTotalStates))};
  }
  return known->second;
}

/// The source's record; null when the store has none, or it has no identifier.
const QXEventSourcePtr& QXStoreCoordinator::RecordReader::source(const std::string& identifier) {
  const auto [known, isNew] = sources_.try_emplace(identifier);
  if (isNew) {
    known->second = coordinator_.sourceWithID(identifier);
    const bool isNamed = known->second && !known->second->identifier().value_or("").empty();
    if (!isNamed) known->second = nullptr;
  }
  return known->second;
}
