#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Predicate.h>
#include <QXEventStoring/QXEvent.h>

// What several commands do with the store, failures named on standard error.

namespace qxevents {

/// Events that are not blocked; nothing after a failure. `predicate` may be null: all of them.
std::optional<std::vector<QXEventPtr>> fetchEvents(const qx::PredicatePtr& predicate);
/// Null after a failure, and when there is no event of that ID.
QXEventPtr fetchEvent(const std::string& id);

/// Names a failure: `error`, or else what the store itself has to say. `subject`, when there is one, tells
/// what could not be done.
void complainOfStore(const qx::ErrorPtr& error, const std::string& subject = {});

/// "info", "warning", "error", or the number.
std::string severityName(std::int64_t severity);
/// The SGR parameter that shows it; empty for an information.
std::string severityColor(std::int64_t severity);

}  // namespace qxevents
