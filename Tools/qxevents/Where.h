#pragma once

#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Predicate.h>

namespace qxevents {

/// The predicate that a user wrote for --where, over the library's keys. Keys are SourceID, EventClassID,
/// EventTriggerTime, EventReadStatus, EventSeverity and EventSolutionStatus. EventTriggerTime compares with
/// RFC 3339 times in quotes; EventSolutionStatus is 1 (solved) or 0, and only == and != know it. Null, with
/// what is wrong in `refusal`, for anything else.
qx::PredicatePtr readWhere(std::string_view text, std::string& refusal);

}  // namespace qxevents
