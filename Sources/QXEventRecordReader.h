#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "Sources/QXStoreCoordinator.h"

/// Fills event records from rows. Remembers what the rows of one query share - where their attributes stand,
/// the details of a class, the record of a source - so that each is looked up once. Lives no longer than the
/// rows it reads, under the accessor's lock.
class QXStoreCoordinator::RecordReader {
 public:
  explicit RecordReader(QXStoreCoordinator& coordinator) : coordinator_(coordinator) {}

  /// A new record with the identifier of the row and all its values.
  QXEventPtr read(const qx::ManagedObject& row);
  void readEvent(QXEvent& event, const qx::ManagedObject& row);
  void readClass(QXEvent& event, const qx::ManagedObject& row);

 private:
  /// Positions of an event row's attributes among its entity's properties.
  struct EventAttributes {
    const qx::EntityDescription* entity = nullptr;
    std::size_t eventID, readStatus, triggerTime, currentState, version, sourceID, additionalInfo;
  };
  /// A class row as its events' records take it.
  struct ClassDetails {
    const std::string* classID;  // null when there is none, or an empty one
    const std::string* handler;
    std::int64_t severity;
    std::uint64_t totalStates;
  };

  const EventAttributes& attributesOf(const qx::ManagedObject& row);
  const ClassDetails& detailsOf(const qx::ManagedObject& classRow);
  static void take(QXEvent& event, const ClassDetails& details);
  const QXEventSourcePtr& source(const std::string& identifier);

  QXStoreCoordinator& coordinator_;
  EventAttributes attributes_{};
  std::unordered_map<const qx::ManagedObject*, ClassDetails> classes_;
  std::unordered_map<std::string, QXEventSourcePtr> sources_;
};
