#include "EventBuilder.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "Text.h"

namespace qxevents {
namespace {

QXEventSourcePtr makeSource(EventRecord::Source& source) {
  auto result = std::make_shared<QXEventSource>();
  result->setIdentifier(std::move(source.id));
  result->setName(std::move(source.name));
  result->setAlternateName(source.alternateName);
  result->setMakeAndModel(std::move(source.makeAndModel));
  result->setProductNumber(std::move(source.productNumber));
  result->setServiceID(std::move(source.serviceID));
  return result;
}

}  // namespace

const EventBuilder::ClassDetails* EventBuilder::detailsOf(const std::string& classID) {
  if (const auto found = details_.find(classID); found != details_.end()) return &found->second;
  if (!known_) {
    const auto ids = QXEvent::knownEventClassIDs();
    if (!ids) return nullptr;  // no store yet: ask again with the next event
    known_.emplace(ids->begin(), ids->end());
  }
  if (!known_->contains(classID)) return nullptr;
  const auto pattern = QXEvent::eventWithEventClassID(classID);
  if (pattern == nullptr || !pattern->handler()) return nullptr;
  ClassDetails details{*pattern->handler(), pattern->severity(), pattern->status().length};
  return &details_.emplace(classID, std::move(details)).first->second;
}

QXEventPtr EventBuilder::build(EventRecord record, std::string& refusal) {
  const bool isComplete = !record.handler.empty() && record.severity && record.totalStates;
  const auto* details = isComplete ? nullptr : detailsOf(record.classID);
  if (record.handler.empty()) {
    if (details == nullptr) {
      refusal =
          fmt::format("handler: missing, and the class \"{}\" is not known", excerpt(record.classID, 100));
      return nullptr;
    }
    record.handler = details->handler;
  }

  auto event = record.id.empty() ? std::make_shared<QXEvent>() : std::make_shared<QXEvent>(record.id);
  event->setClassID(std::move(record.classID));
  event->setHandler(std::move(record.handler));
  event->setSeverity(record.severity.value_or(details == nullptr ? 0 : details->severity));
  const auto totalStates = record.totalStates.value_or(details == nullptr ? 1 : details->totalStates);
  event->setStatus({record.state.value_or(std::min<std::uint64_t>(1, totalStates)), totalStates});
  event->setTriggerTime(record.triggerTime);
  event->setReadStatus(record.read);
  event->setSource(makeSource(record.source));
  event->additionalInfo() = std::move(record.info);
  return event;
}

}  // namespace qxevents
