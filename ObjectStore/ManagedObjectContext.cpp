#include "ObjectStore/ManagedObjectContext.h"

#include <algorithm>
#include <limits>
#include <unordered_set>

#include "ObjectStore/ObjectRegistry.h"
#include "ObjectStore/SQLiteErrors.h"
#include "ObjectStore/SQLiteStore.h"

namespace qx {

namespace {

ErrorPtr noStore() {
  return Error::make(kCocoaErrorDomain, kStoreUnusable, "There is no open event store.");
}

ErrorPtr noEntity(std::string_view name) {
  return Error::make(kCocoaErrorDomain, kStoreUnusable,
                     "The model has no entity \"" + std::string(name) + "\".");
}

bool isOpen(const std::shared_ptr<SQLiteStore>& store, ErrorPtr* error) {
  if (!store) setError(error, noStore());
  return store != nullptr;
}

/// Nothing, with an error, when the model does not have it.
std::optional<std::size_t> attributeOf(const EntityDescription* entity, std::string_view entityName,
                                       std::string_view name, ErrorPtr* error) {
  if (entity == nullptr) {
    setError(error, noEntity(entityName));
    return std::nullopt;
  }
  const auto property = entity->indexOf(name);
  if (property && entity->properties()[*property].kind == PropertyDescription::Kind::attribute)
    return property;
  setError(error, Error::make(kCocoaErrorDomain, kStoreUnusable,
                              entity->name() + " has no attribute \"" + std::string(name) + "\"."));
  return std::nullopt;
}

/// The order of a date or a number; what is neither comes before both.
double rank(const Value& value) {
  if (const Date* date = value.asDate()) return date->secondsSinceReferenceDate;
  return value.isNumber() ? value.doubleValue() : -std::numeric_limits<double>::infinity();
}

/// `objects` come in the order of their rows, new ones last.
void keepLargest(ManagedObjects& objects, std::size_t property, std::uint64_t most) {
  std::reverse(objects.begin(), objects.end());
  std::stable_sort(objects.begin(), objects.end(), [&](const ManagedObjectPtr& a, const ManagedObjectPtr& b) {
    return rank(a->valueAt(property)) > rank(b->valueAt(property));
  });
  if (objects.size() > most) objects.resize(most);
}

bool byRowNumber(const ManagedObjectPtr& a, const ManagedObjectPtr& b) {
  return a->rowNumber() < b->rowNumber();
}

}  // namespace

/// One fetch: turns rows into the context's objects.
class ManagedObjectContext::Fetch {
 public:
  Fetch(ManagedObjectContext& context, const EntityDescription& entity)
      : model_(*context.coordinator_->model()),
        entity_(entity),
        registry_(context.registry_),
        number_(++context.fetches_) {}

  /// The row's object, brought up to date where nothing unsaved stands in it, with its related objects.
  ManagedObjectPtr object(const FetchedRow& row) {
    ManagedObjectPtr object = objectFor(entity_, row.rowNumber());
    if (object->changed_ == 0)
      row.read(object->values_);
    else
      readUnchanged(row, *object);
    object->fetched_ = number_;
    relate(row, *object);
    return object;
  }

 private:
  ManagedObjectPtr objectFor(const EntityDescription& entity, std::int64_t row) {
    if (ManagedObjectPtr known = registry_->find(entity, row)) return known;
    auto object = std::make_shared<ManagedObject>(ManagedObject::Key(), entity, registry_);
    object->rowNumber_ = row;
    registry_->add(*object);
    return object;
  }

  void readUnchanged(const FetchedRow& row, ManagedObject& object) {
    std::vector<Value> stored(object.values_.size());
    row.read(stored);
    for (std::size_t i = 0; i < stored.size(); ++i)
      if (((object.changed_ >> i) & 1U) == 0) object.values_[i] = std::move(stored[i]);
  }

  void relate(const FetchedRow& row, ManagedObject& object) {
    const auto& properties = entity_.properties();
    if (entity_.toOneCount() == 0) return;
    for (std::size_t i = 0; i < properties.size(); ++i) {
      if (properties[i].kind != PropertyDescription::Kind::toOne) continue;
      if (((object.changed_ >> i) & 1U) != 0) continue;
      const std::int64_t other = row.relatedRowNumber(i);
      if (other <= 0) {
        if (!object.related_.empty()) object.related_[properties[i].ordinal] = nullptr;
        continue;
      }
      if (object.related_.empty()) object.related_.resize(entity_.toOneCount());
      object.related_[properties[i].ordinal] = relatedObject(row, i, other);
    }
  }

  /// Neighbouring rows often lead to the same object: read it once a fetch.
  ManagedObjectPtr relatedObject(const FetchedRow& row, std::size_t property, std::int64_t number) {
    auto& last = lastRelated_[property];
    if (last && last->rowNumber_ == number) return last;
    const EntityDescription& entity = *model_.entity(entity_.properties()[property].destination);
    ManagedObjectPtr object = objectFor(entity, number);
    if (object->fetched_ != number_ && !object->hasChanges()) {
      row.readRelated(property, object->values_);
      object->fetched_ = number_;
    }
    last = object;
    return object;
  }

  const ManagedObjectModel& model_;
  const EntityDescription& entity_;
  const std::shared_ptr<ObjectRegistry>& registry_;
  const std::uint64_t number_;
  std::vector<ManagedObjectPtr> lastRelated_ = std::vector<ManagedObjectPtr>(entity_.properties().size());
};

/// One save: writes the changes of every entity, and afterwards tells the objects.
class ManagedObjectContext::Save {
 public:
  Save(ManagedObjectContext& context, SQLiteStore& store)
      : model_(*context.coordinator_->model()), registry_(*context.registry_), store_(store) {}

  bool write(ErrorPtr* error) {
    return giveRowNumbers(error) && insertRows(error) && updateRows(error) && deleteRows(error);
  }

  /// The file has it all: what was changed is clean from now on.
  void finish() {
    for (auto& changes : registry_.changes()) {
      for (const auto& object : changes.inserted) {
        clean(*object);
        registry_.add(*object);
      }
      for (const auto& object : changes.updated)
        clean(*object);
      for (const auto& object : changes.deleted)
        registry_.remove(*object);
      changes = {};
    }
  }

  /// Nothing was written: row numbers that were given out are void.
  void undo() {
    for (auto& changes : registry_.changes())
      for (const auto& object : changes.inserted)
        object->rowNumber_ = 0;
  }

 private:
  static void clean(ManagedObject& object) {
    object.inserted_ = false;
    object.changed_ = 0;
  }

  bool giveRowNumbers(ErrorPtr* error) {
    for (const EntityDescription& entity : model_.entities()) {
      const auto& inserted = registry_.changes(entity).inserted;
      if (inserted.empty()) continue;
      const auto count = static_cast<std::int64_t>(inserted.size());
      const auto last = store_.reserveRowNumbers(entity, count, error);
      if (!last) return false;
      std::int64_t next = *last - count;
      for (const auto& object : inserted)
        object->rowNumber_ = ++next;
    }
    return true;
  }

  bool insertRows(ErrorPtr* error) {
    for (const EntityDescription& entity : model_.entities())
      for (const auto& object : registry_.changes(entity).inserted) {
        takeRelatedRowNumbers(*object);
        if (!store_.insertRow(entity, object->rowNumber_, object->values_, error)) return false;
      }
    return true;
  }

  bool updateRows(ErrorPtr* error) {
    for (const EntityDescription& entity : model_.entities())
      for (const auto& object : registry_.changes(entity).updated) {
        if (object->deleted_) continue;
        takeRelatedRowNumbers(*object);
        if (!store_.updateRow(entity, object->rowNumber_, object->changed_, object->values_, error))
          return false;
      }
    return true;
  }

  bool deleteRows(ErrorPtr* error) {
    for (const EntityDescription& entity : model_.entities())
      for (const auto& object : registry_.changes(entity).deleted)
        if (!store_.deleteRow(entity, object->rowNumber_, error)) return false;
    return true;
  }

  static void takeRelatedRowNumbers(ManagedObject& object) {
    if (object.related_.empty()) return;
    const auto& properties = object.entity().properties();
    for (std::size_t i = 0; i < properties.size(); ++i) {
      if (properties[i].kind != PropertyDescription::Kind::toOne) continue;
      if (const auto& other = object.related_[properties[i].ordinal]) object.values_[i] = other->rowNumber_;
    }
  }

  const ManagedObjectModel& model_;
  ObjectRegistry& registry_;
  SQLiteStore& store_;
};

ManagedObjectContext::ManagedObjectContext(std::shared_ptr<PersistentStoreCoordinator> coordinator)
    : coordinator_(std::move(coordinator)),
      registry_(std::make_shared<ObjectRegistry>(*coordinator_->model())) {}

ManagedObjectContext::~ManagedObjectContext() {
  registry_->retire();
}

std::optional<ManagedObjects> ManagedObjectContext::fetch(std::string_view name,
                                                          const PredicatePtr& predicate, ErrorPtr* error) {
  const EntityDescription* entity = coordinator_->model()->entity(name);
  const auto store = useStore();
  if (entity == nullptr || !store) {
    setError(error, entity == nullptr ? noEntity(name) : noStore());
    return std::nullopt;
  }
  ManagedObjects result;
  Fetch fetch(*this, *entity);
  // What is selected by values that are not in the file yet must be looked at in memory.
  const auto isSelected = [&](const ManagedObject& object) {
    return !object.isDeleted() && (!predicate || predicate->evaluate(object));
  };
  const auto collect = [&](const FetchedRow& row) {
    ManagedObjectPtr object = fetch.object(row);
    if (!object->hasChanges() || isSelected(*object)) result.push_back(std::move(object));
  };
  if (!store->fetch(*entity, predicate.get(), collect, error)) return std::nullopt;
  const auto& changes = registry_->changes(*entity);
  for (const auto& object : changes.updated)
    if (object->fetched_ != fetches_ && isSelected(*object)) result.push_back(object);
  if (!std::is_sorted(result.begin(), result.end(), byRowNumber))
    std::sort(result.begin(), result.end(), byRowNumber);
  for (const auto& object : changes.inserted)
    if (isSelected(*object)) result.push_back(object);
  return result;
}

std::optional<ManagedObjects> ManagedObjectContext::fetchLargest(std::string_view name,
                                                                 const PredicatePtr& predicate,
                                                                 std::string_view attribute,
                                                                 std::uint64_t most, ErrorPtr* error) {
  const EntityDescription* entity = coordinator_->model()->entity(name);
  const auto store = useStore();
  const auto property = attributeOf(entity, name, attribute, error);
  if (!property || !isOpen(store, error)) return std::nullopt;
  if (!registry_->changes(*entity).empty()) {
    auto objects = fetch(name, predicate, error);
    if (objects) keepLargest(*objects, *property, most);
    return objects;
  }
  ManagedObjects result;
  Fetch fetch(*this, *entity);
  const auto collect = [&](const FetchedRow& row) { result.push_back(fetch.object(row)); };
  if (!store->fetchLargest(*entity, predicate.get(), *property, most, collect, error)) return std::nullopt;
  return result;
}

std::optional<std::vector<std::string>> ManagedObjectContext::distinctStrings(std::string_view name,
                                                                              std::string_view attribute,
                                                                              const PredicatePtr& predicate,
                                                                              ErrorPtr* error) {
  const EntityDescription* entity = coordinator_->model()->entity(name);
  const auto store = useStore();
  const auto property = attributeOf(entity, name, attribute, error);
  if (!property || !isOpen(store, error)) return std::nullopt;
  if (registry_->changes(*entity).empty())
    return store->distinctStrings(*entity, *property, predicate.get(), error);
  const auto objects = fetch(name, predicate, error);
  if (!objects) return std::nullopt;
  std::vector<std::string> result;
  std::unordered_set<std::string_view> seen;
  for (const ManagedObjectPtr& object : *objects)
    if (const std::string* text = object->valueAt(*property).asString(); text && seen.insert(*text).second)
      result.push_back(*text);
  return result;
}

std::uint64_t ManagedObjectContext::count(std::string_view name, const PredicatePtr& predicate,
                                          ErrorPtr* error) {
  const EntityDescription* entity = coordinator_->model()->entity(name);
  const auto store = useStore();
  if (entity == nullptr || !store) {
    setError(error, entity == nullptr ? noEntity(name) : noStore());
    return kNotFound;
  }
  if (registry_->changes(*entity).empty())
    return store->count(*entity, predicate.get(), error).value_or(kNotFound);
  const auto objects = fetch(name, predicate, error);
  return objects ? objects->size() : kNotFound;
}

ManagedObjectPtr ManagedObjectContext::insert(std::string_view name) {
  const EntityDescription* entity = coordinator_->model()->entity(name);
  if (entity == nullptr) return nullptr;
  useStore();
  auto object = std::make_shared<ManagedObject>(ManagedObject::Key(), *entity, registry_);
  object->inserted_ = true;
  registry_->changes(*entity).inserted.push_back(object);
  return object;
}

void ManagedObjectContext::remove(const ManagedObjectPtr& object) {
  if (!object || object->registry_ != registry_ || object->deleted_) return;
  auto& changes = registry_->changes(object->entity());
  object->deleted_ = true;
  if (object->inserted_)
    std::erase(changes.inserted, object);
  else
    changes.deleted.push_back(object);
}

void ManagedObjectContext::discardChanges(const ManagedObjectPtr& object) {
  if (!object || object->registry_ != registry_) return;
  if (object->inserted_) return remove(object);
  auto& changes = registry_->changes(object->entity());
  std::erase(changes.updated, object);
  std::erase(changes.deleted, object);
  object->changed_ = 0;
  object->deleted_ = false;
  object->fetched_ = 0;
  refresh(object);
}

void ManagedObjectContext::refresh(const ManagedObjectPtr& object) {
  if (!object || object->registry_ != registry_ || object->rowNumber_ == 0) return;
  const auto store = useStore();
  if (!store) return;
  // Nothing can have changed since the last fetch while we hold the file's write lock.
  if (object->fetched_ == fetches_ && store->isWriting()) return;
  Fetch fetch(*this, object->entity());
  store->fetchRow(
      object->entity(), object->rowNumber_, [&](const FetchedRow& row) { fetch.object(row); }, nullptr);
}

/// The working store. Objects of another one mean nothing in it: their row numbers are other rows'.
std::shared_ptr<SQLiteStore> ManagedObjectContext::useStore() {
  auto store = coordinator_->workingStore();
  if (!store || storeIdentifier_ == store->identifier()) return store;
  if (!storeIdentifier_.empty()) reset();
  storeIdentifier_ = store->identifier();
  return store;
}

bool ManagedObjectContext::hasChanges() const {
  return std::any_of(registry_->changes().begin(), registry_->changes().end(),
                     [](const auto& changes) { return !changes.empty(); });
}

bool ManagedObjectContext::save(ErrorPtr* error) {
  const auto store = useStore();
  if (!store)
    throw ObjectStoreException("NSInternalInconsistencyException",
                               "There is no open event store to save the changes to.");
  if (!hasChanges()) return true;
  if (!store->beginWriting(error)) return false;
  Save save(*this, *store);
  if (save.write(error) && store->commit(error)) {
    save.finish();
    return true;
  }
  store->rollback();
  save.undo();
  return false;
}

void ManagedObjectContext::reset() {
  registry_->retire();
  storeIdentifier_.clear();
  registry_ = std::make_shared<ObjectRegistry>(*coordinator_->model());
}

ManagedObjectContext::WriteScope::WriteScope(ManagedObjectContext& context)
    : store_(context.coordinator_->workingStore()) {
  // Inside another scope that one ends it.
  if (store_ && (store_->isWriting() || !store_->beginWriting(nullptr))) store_ = nullptr;
}

ManagedObjectContext::WriteScope::~WriteScope() {
  if (store_) store_->rollback();
}

}  // namespace qx
