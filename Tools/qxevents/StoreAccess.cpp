#include "StoreAccess.h"

#include <fmt/format.h>

#include <QXEventStoring/QXEventStore.h>

#include "Output.h"
#include "Text.h"

namespace qxevents {

void complainOfStore(const qx::ErrorPtr& error, const std::string& subject) {
  const auto known = error != nullptr ? error : QXEventStore::sharedQXEventStore().status().problem;
  if (known != nullptr) return complain(*known, subject);
  complain(subject.empty() ? "the store could not be read"
                           : subject + ": the store refused without a reason");
}

std::optional<std::vector<QXEventPtr>> fetchEvents(const qx::PredicatePtr& predicate) {
  qx::ErrorPtr error;
  auto events = QXEventStore::sharedQXEventStore().eventsWithPredicate(predicate, &error);
  if (events && error == nullptr) return events;
  complainOfStore(error);
  return std::nullopt;
}

QXEventPtr fetchEvent(const std::string& id) {
  auto event = QXEvent::eventWithEventID(id);
  if (event != nullptr) return event;
  auto reason = QXEventStore::sharedQXEventStore().status().problem;
  if (reason == nullptr) {
    reason = qx::Error::make(QXEventStoreErrorDomain, -995, "The QXEvent is not present in the store");
  }
  complain(*reason, excerpt(id));
  return nullptr;
}

std::string severityName(std::int64_t severity) {
  switch (severity) {
    case 0:
      return "info";
    case 1:
      return "warning";
    case 3:
      return "error";
    default:
      return fmt::format("{}", severity);
  }
}

std::string severityColor(std::int64_t severity) {
  if (severity >= 3) return "31";
  return severity >= 1 ? "33" : "";
}

}  // namespace qxevents
