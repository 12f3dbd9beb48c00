// Reading a hundred thousand events spends its time here: values are read by reference, copied once, and
// straight into the fields, with the same rules as the record's setters.
#include "Sources/QXEventRecordReader.h"

#include "Sources/QXStoreCoordinatorSupport.h"
#include "Sources/QXStoreSchema.h"

using qx::coordinator::signed32;
using qx::coordinator::unsigned32;

namespace {

void setIfNotEmpty(qx::String& field, const qx::Value& value) {
  const std::string* const text = value.asString();
  if (text != nullptr && !text->empty()) field = *text;
}

}  // namespace

QXEventPtr QXStoreCoordinator::RecordReader::read(const qx::ManagedObject& row) {
  auto event = std::make_shared<QXEvent>(row.value(kEventID).stringValue());
  readEvent(*event, row);
  return event;
}

void QXStoreCoordinator::RecordReader::readEvent(QXEvent& event, const qx::ManagedObject& row) {
  event.setReadStatus(row.value(kEventReadStatus).boolValue());
  if (const qx::Date* const time = row.value(kEventTriggerTime).asDate()) event.m_pTriggerTime = *time;
  event.setVersionNumber(row.value(kEventVersionNo).integerValue());
  const qx::ManagedObjectPtr classRow = row.related(kEventClass);
  if (classRow) readClass(event, *classRow);
  event.setStatus({static_cast<std::uint64_t>(signed32(row.value(kEventCurrentState))),
                   classRow ? unsigned32(classRow->value(kEventTotalStates)) : 0});
  if (const std::string* const sourceID = row.value(kEventSourceID).asString()) {
    if (const QXEventSourcePtr& known = source(*sourceID)) event.m_pSource = known;
  }
  if (const qx::Data* const info = row.value(kEventAdditionalInfo).asData()) event.mergeAdditionalInfo(*info);
}

void QXStoreCoordinator::RecordReader::readClass(QXEvent& event, const qx::ManagedObject& row) {
  setIfNotEmpty(event.m_pClassID, row.value(kEventClassID));
  setIfNotEmpty(event.m_pHandler, row.value(kEventHandler));
  event.setSeverity(severity(row));
  event.setStatus({0, unsigned32(row.value(kEventTotalStates))});
}

std::int64_t QXStoreCoordinator::RecordReader::severity(const qx::ManagedObject& classRow) {
  const auto [position, isNew] = severities_.try_emplace(&classRow);
  if (isNew) position->second = coordinator_.severityOfClass(classRow);
  return position->second;
}

/// The source's record; null when the store has none, or it has no identifier.
const QXEventSourcePtr& QXStoreCoordinator::RecordReader::source(const std::string& identifier) {
  const auto [position, isNew] = sources_.try_emplace(identifier);
  if (isNew) {
    position->second = coordinator_.sourceWithID(identifier);
    const bool isNamed = position->second && !position->second->identifier().value_or("").empty();
    if (!isNamed) position->second = nullptr;
  }
  return position->second;
}
