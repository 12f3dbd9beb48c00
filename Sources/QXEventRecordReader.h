#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "Sources/QXStoreCoordinator.h"

/// Fills event records from rows. Remembers what the rows of one query share - the severity of a class, the
/// record of a source - so that each is looked up once. Lives no longer than the rows it reads, under the
/// accessor's lock.
class QXStoreCoordinator::RecordReader {
 public:
  explicit RecordReader(QXStoreCoordinator& coordinator) : coordinator_(coordinator) {}

  /// A new record with the identifier of the row and all its values.
  QXEventPtr read(const qx::ManagedObject& row);
  void readEvent(QXEvent& event, const qx::ManagedObject& row);
  void readClass(QXEvent& event, const qx::ManagedObject& row);

 private:
  std::int64_t severity(const qx::ManagedObject& classRow);
  const QXEventSourcePtr& source(const std::string& identifier);

  QXStoreCoordinator& coordinator_;
  std::unordered_map<const qx::ManagedObject*, std::int64_t> severities_;
  std::unordered_map<std::string, QXEventSourcePtr> sources_;
};
