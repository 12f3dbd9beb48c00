#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Sources/QXStoreCoordinator.h"

/// What one addEvents() remembers: the class and source rows it looked up, each once, and how to take
/// everything back when the save fails. Lives under the accessor's lock.
struct QXStoreCoordinator::BatchMemo {
  /// A source whose row the batch changed.
  struct WrittenSource {
    qx::ManagedObjectPtr row;
    QXEventSourcePtr lastRecord;  // whose values the row has now
  };

  /// The remembered row, or what `find` gives.
  template <typename Find>
  qx::ManagedObjectPtr classRow(const qx::String& classID, const qx::String& sourceID, const Find& find) {
    qx::ManagedObjectPtr& row = classes_[classKey(classID, sourceID)];
    if (!row) row = find();
    return row;
  }
  void rememberClassRow(const qx::String& classID, const qx::String& sourceID, qx::ManagedObjectPtr row) {
    classes_[classKey(classID, sourceID)] = std::move(row);
  }
  template <typename Find>
  qx::ManagedObjectPtr sourceRow(const std::string& sourceID, const Find& find) {
    WrittenSource& source = sources_[sourceID];
    if (!source.row) source.row = find();
    return source.row;
  }

  bool isWritten(const std::string& sourceID, const QXEventSourcePtr& record) const;
  void didWrite(const std::string& sourceID, const QXEventSourcePtr& record);
  /// Before a new source's record becomes the process's one.
  void willCache(const std::string& sourceID, qx::ManagedObjectPtr row,
                 const std::unordered_map<std::string, QXEventSourcePtr>& cache);
  void didInsert(const qx::ManagedObjectPtr& row);
  /// Before a row's values are set: keeps those it had, unless the batch made it.
  void willChange(const qx::ManagedObjectPtr& row);

  /// Source ID and changed values of every source row that is about to be saved with changes.
  std::vector<std::pair<std::string, qx::Dictionary>> sourceChanges() const;
  /// Takes the batch out of the context and of the cache again.
  void undo(QXDatabaseAccessor& accessor, std::unordered_map<std::string, QXEventSourcePtr>& cache);

 private:
  static std::string classKey(const qx::String& classID, const qx::String& sourceID);

  std::unordered_map<std::string, qx::ManagedObjectPtr> classes_;
  std::unordered_map<std::string, WrittenSource> sources_;
  std::vector<qx::ManagedObjectPtr> inserted_;  // events, classes and sources
  // Class and source rows by attribute; nothing for those that the batch made and those that were clean.
  std::unordered_map<qx::ManagedObjectPtr, std::vector<std::pair<std::string, qx::Value>>> formerValues_;
  std::vector<std::pair<std::string, QXEventSourcePtr>> formerRecords_;  // of the source cache
};
