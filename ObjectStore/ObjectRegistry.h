#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "ObjectStore/ManagedObject.h"

namespace qx {

/// What a context knows: which object stands for which row, and which objects have unsaved changes.
///
/// Clean objects are not kept alive by it: they take themselves off when they die, on any thread; that is
/// what the mutex is for. Everything else is under the context's lock. A reset retires the registry as a
/// whole and with it every object that belongs to it.
class ObjectRegistry {
 public:
  /// Unsaved changes of one entity, in the order in which they came; kept alive until they are saved.
  struct Changes {
    ManagedObjects inserted;
    ManagedObjects updated;
    ManagedObjects deleted;
    bool empty() const { return inserted.empty() && updated.empty() && deleted.empty(); }
  };

  explicit ObjectRegistry(const ManagedObjectModel& model)
      : rows_(model.entities().size()), changes_(model.entities().size()) {}

  bool isRetired() const { return retired_.load(std::memory_order_relaxed); }
  void retire() {
    retired_.store(true, std::memory_order_relaxed);
    changes_.clear();
  }

  /// The living object of that row, or null.
  ManagedObjectPtr find(const EntityDescription& entity, std::int64_t row) {
    const std::lock_guard lock(mutex_);
    auto& rows = rows_[position(entity)];
    const auto found = rows.find(row);
    return found != rows.end() ? found->second->weak_from_this().lock() : nullptr;
  }

  void add(ManagedObject& object) {
    const std::lock_guard lock(mutex_);
    rows_[position(object.entity())][object.rowNumber()] = &object;
  }

  void remove(const ManagedObject& object) {
    const std::lock_guard lock(mutex_);
    auto& rows = rows_[position(object.entity())];
    const auto found = rows.find(object.rowNumber());
    if (found != rows.end() && found->second == &object) rows.erase(found);
  }

  /// Makes room for that many more rows of `entity`.
  void reserve(const EntityDescription& entity, std::size_t count) {
    const std::lock_guard lock(mutex_);
    auto& rows = rows_[position(entity)];
    rows.reserve(rows.size() + count);
  }

  std::vector<Changes>& changes() { return changes_; }
  Changes& changes(const EntityDescription& entity) { return changes_[position(entity)]; }

 private:
  static std::size_t position(const EntityDescription& entity) {
    return static_cast<std::size_t>(entity.number()) - 1;
  }

  std::mutex mutex_;
  std::vector<std::unordered_map<std::int64_t, ManagedObject*>> rows_;  // guarded by mutex_
  std::vector<Changes> changes_;
  std::atomic<bool> retired_{false};
};

}  // namespace qx
