#pragma once

#include <mutex>

#include "ObjectStore/ManagedObjectContext.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXStoreCoordinator.h"

/// Around every change of the store, from the first look-up to the save: the accessor's lock and the file's
/// write lock, so that no other thread or process changes in between what the change builds on.
///
/// Objects that are looked up inside must be released inside: declare them after it.
class QXStoreCoordinator::ChangeScope {
 public:
  ChangeScope(QXStoreCoordinator& coordinator, QXDatabaseAccessor& accessor)
      : lock_(accessor), writing_(accessor.context()) {
    coordinator.lookUpFailure_ = nullptr;
    coordinator.dropClassesMadeElsewhere(accessor);
  }

 private:
  std::lock_guard<QXDatabaseAccessor> lock_;
  qx::ManagedObjectContext::WriteScope writing_;
};
