#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Predicate.h>
#include <QXEventStoring/Platform/Value.h>

#include "ObjectStore/ManagedObjectModel.h"

namespace qx {

class ManagedObject;
class ObjectRegistry;
using ManagedObjectPtr = std::shared_ptr<ManagedObject>;
using ManagedObjects = std::vector<ManagedObjectPtr>;

/// One row of an entity in a context. Changes stay in memory until the context is saved.
///
/// Unique per row and context. Invalid after its context was reset: it then answers null to everything
/// and changes are dropped. Threads: under the context's lock.
class ManagedObject : public PredicateSubject, public std::enable_shared_from_this<ManagedObject> {
 public:
  ~ManagedObject() override;

  const EntityDescription& entity() const { return *entity_; }
  /// The row's Z_PK; 0 until the first save.
  std::int64_t rowNumber() const { return rowNumber_; }

  /// An attribute's value; the null marker when it is not set or there is no such attribute.
  const Value& value(std::string_view attribute) const;
  /// The same, by the attribute's position in the entity's properties, for those who read many objects.
  const Value& valueAt(std::size_t property) const;
  /// Sets an attribute; null unsets it. A value of another kind than the attribute's is converted when
  /// that loses nothing, else taken as null; setting an equal value is no change.
  void setValue(std::string_view attribute, Value value);

  /// The object at the other end of a to-one relationship, or null.
  ManagedObjectPtr related(std::string_view relationship) const;
  void setRelated(std::string_view relationship, ManagedObjectPtr object);

  /// Attributes set since the last save, and their values; all set ones for a new object.
  Dictionary changedValues() const;
  bool hasChanges() const { return inserted_ || deleted_ || changed_ != 0; }
  bool isInserted() const { return inserted_; }
  bool isDeleted() const { return deleted_; }
  bool isValid() const;

  Value valueForKeyPath(const std::vector<std::string>& keyPath) const override;

 private:
  struct Key {};  // only friends make objects
  friend class ManagedObjectContext;
  friend class ObjectRegistry;

 public:
  ManagedObject(Key, const EntityDescription& entity, std::shared_ptr<ObjectRegistry> registry);

 private:
  void markChanged(std::size_t property);

  const EntityDescription* entity_;
  std::shared_ptr<ObjectRegistry> registry_;
  std::int64_t rowNumber_ = 0;
  std::uint64_t changed_ = 0;  // bit per property
  std::uint64_t fetched_ = 0;  // number of the fetch that last brought it up to date
  bool inserted_ = false;
  bool deleted_ = false;
  std::vector<Value> values_;              // per property; a to-one relationship holds the other's row number
  std::vector<ManagedObjectPtr> related_;  // per to-one relationship, empty while none is set
};

}  // namespace qx
