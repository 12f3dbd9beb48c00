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
/// The newest `most` of them, the newest first.
std::optional<std::vector<QXEventPtr>> fetchNewestEvents(const qx::PredicatePtr& predicate,
                                                         std::int64_t most);
/// How many there are, those of sources and classes that are blocked as a whole too; nothing after a failure.
std::optional<std::uint64_t> countEvents(const qx::PredicatePtr& predicate);
/// True for what is not blocked with its whole source or class: what a count would have to leave out.
qx::PredicatePtr notWhollyBlocked();
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
