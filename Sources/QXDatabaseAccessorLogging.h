#pragma once

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Value.h>

#include "Logging/EventStoreLog.h"
#include "ObjectStore/PersistentStoreCoordinator.h"

// How the accessor's log lines show what may be missing.

namespace qx::accessor {

inline String loggedStore(const PersistentStorePtr& store) {
  return store ? String(store->description()) : std::nullopt;
}

inline String loggedDescription(const ErrorPtr& error) {
  return error ? String(error->localizedDescription()) : std::nullopt;
}

inline String loggedUserInfo(const ErrorPtr& error) {
  return error ? String(Value(error->userInfo()).description()) : std::nullopt;
}

inline std::int64_t loggedCode(const ErrorPtr& error) {
  return error ? error->code() : 0;
}

}  // namespace qx::accessor
