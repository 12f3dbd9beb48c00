#include "StoreAccess.h"

#include <limits>

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

std::optional<std::vector<QXEventPtr>> fetchNewestEvents(const qx::PredicatePtr& predicate,
                                                         std::int64_t most) {
  qx::ErrorPtr error;
  auto events = QXEventStore::sharedQXEventStore().newestEventsWithPredicate(
      predicate, static_cast<std::uint64_t>(most), &error);
  if (events && (error == nullptr || most == 0)) return events;
  complainOfStore(error);
  return std::nullopt;
}

std::optional<std::uint64_t> countEvents(const qx::PredicatePtr& predicate) {
  constexpr auto kFailedToCount = std::numeric_limits<std::uint64_t>::max();
  qx::ErrorPtr error;
  const auto count = QXEventStore::sharedQXEventStore().countOfEventsWithPredicate(predicate, &error);
  if (error == nullptr && count != kFailedToCount) return count;
  complainOfStore(error);
  return std::nullopt;
}

qx::PredicatePtr notWhollyBlocked() {
  auto& store = QXEventStore::sharedQXEventStore();
  qx::Array sources;
  for (const auto& source : store.blockedEventSources())
    sources.emplace_back(source->identifier());
  const auto classes = store.blockedEventClasses();
  return !(qx::key(QXESAttributeEventSourceID).in(std::move(sources)) ||
           qx::key(QXESAttributeEventClassID).in(qx::Array(classes.begin(), classes.end())));
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
