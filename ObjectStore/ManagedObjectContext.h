#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Predicate.h>

#include "ObjectStore/ManagedObject.h"
#include "ObjectStore/PersistentStoreCoordinator.h"

namespace qx {

/// Raised by save() for what is no ordinary failure: there is nothing to save to.
class ObjectStoreException : public std::runtime_error {
 public:
  ObjectStoreException(std::string name, const std::string& reason)
      : std::runtime_error(reason), name_(std::move(name)) {}
  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

/// A working set of managed objects on one persistent store coordinator.
///
/// Objects are unique per row: two fetches that find the same row return the same object. Clean objects
/// are held weakly and brought up to date by every fetch that finds them; changed ones are held until
/// save() or reset(), and what was set in memory wins over the file. A failed save keeps the changes.
///
/// Threads: any, one at a time; callers hold lock() around every call and around the use of the objects
/// it returned. The thread that holds the lock may take it again.
class ManagedObjectContext {
 public:
  /// What count() returns when counting failed.
  static constexpr std::uint64_t kNotFound = std::numeric_limits<std::uint64_t>::max();

  explicit ManagedObjectContext(std::shared_ptr<PersistentStoreCoordinator> coordinator);
  ~ManagedObjectContext();
  ManagedObjectContext(const ManagedObjectContext&) = delete;
  ManagedObjectContext& operator=(const ManagedObjectContext&) = delete;

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

  /// Objects of `entity` that `predicate` selects (all when it is null), unsaved changes included: rows in
  /// row order, then new objects in the order of their making. One SQL query, whatever the number of
  /// rows; objects at the other end of a to-one relationship come with it. On failure empty, and *error
  /// (when given) holds an error of NSCocoaErrorDomain or NSSQLiteErrorDomain; 134060 when there is no
  /// store, an unknown entity or key.
  std::optional<ManagedObjects> fetch(std::string_view entity, const PredicatePtr& predicate,
                                      ErrorPtr* error = nullptr);
  /// The first `most` of what fetch() would return when the largest of `attribute` (a date or a number) come
  /// first, those that have none last, and of equal ones the later row first.
  std::optional<ManagedObjects> fetchLargest(std::string_view entity, const PredicatePtr& predicate,
                                             std::string_view attribute, std::uint64_t most,
                                             ErrorPtr* error = nullptr);
  /// The values that a string attribute has in the objects that fetch() would return: each once, in the
  /// order of the first object that has it. Costs what the number of values does, not that of the objects,
  /// when `attribute` is indexed.
  std::optional<std::vector<std::string>> distinctStrings(std::string_view entity, std::string_view attribute,
                                                          const PredicatePtr& predicate,
                                                          ErrorPtr* error = nullptr);
  /// How many objects fetch() would return; kNotFound on failure.
  std::uint64_t count(std::string_view entity, const PredicatePtr& predicate, ErrorPtr* error = nullptr);

  /// A new object; null for an unknown entity. It gets its row at the next save.
  ManagedObjectPtr insert(std::string_view entity);
  /// Marks the object deleted; its row goes at the next save. A new object is just forgotten.
  void remove(const ManagedObjectPtr& object);
  /// Forgets what was set in the object, or its deletion, since the last save; a new object goes.
  void discardChanges(const ManagedObjectPtr& object);
  /// Reads the object's row again; what was set in memory since the last save stays. An object whose row
  /// is gone keeps its values.
  void refresh(const ManagedObjectPtr& object);

  /// Writes all changes in one transaction, or none. True when there was nothing to write. On failure
  /// false, the changes stay, and *error tells (NSCocoaErrorDomain: 134030 with 513 underneath when the
  /// file may not be written, 259 when it is damaged, 778, 19; else SQLite's own code).
  /// Throws ObjectStoreException when the coordinator has no store.
  bool save(ErrorPtr* error = nullptr);
  /// Forgets everything; objects that callers still hold become invalid.
  void reset();
  bool hasChanges() const;

  /// Begins the write transaction that save() will commit, so that what is looked up before the save is
  /// still true when it happens, whatever other processes do. Ends, without saving, with the scope. When
  /// it cannot begin, nothing happens: save() tries again and tells why. Under the lock, not across it.
  class WriteScope {
   public:
    explicit WriteScope(ManagedObjectContext& context);
    ~WriteScope();
    WriteScope(const WriteScope&) = delete;
    WriteScope& operator=(const WriteScope&) = delete;

   private:
    std::shared_ptr<SQLiteStore> store_;
  };

 private:
  class Fetch;
  class Save;

  std::shared_ptr<SQLiteStore> useStore();

  std::shared_ptr<PersistentStoreCoordinator> coordinator_;
  std::recursive_mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<ObjectRegistry> registry_;
  std::uint64_t fetches_ = 0;
  std::string storeIdentifier_;  // of the store that the objects belong to; empty before the first
};

}  // namespace qx
