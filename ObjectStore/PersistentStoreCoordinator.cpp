#include "ObjectStore/PersistentStoreCoordinator.h"

#include <algorithm>
#include <mutex>

#include "ObjectStore/SQLiteErrors.h"
#include "ObjectStore/SQLiteStore.h"
#include "ObjectStore/StoreFile.h"
#include "ObjectStore/StoreMigration.h"

namespace qx {

struct PersistentStoreCoordinator::State {
  mutable std::recursive_mutex mutex;
  std::vector<std::shared_ptr<SQLiteStore>> stores;  // guarded by mutex
};

PersistentStoreCoordinator::PersistentStoreCoordinator(ManagedObjectModelPtr model, ModelVersions versions)
    : model_(std::move(model)), versions_(std::move(versions)), state_(std::make_unique<State>()) {}

PersistentStoreCoordinator::~PersistentStoreCoordinator() = default;

PersistentStorePtr PersistentStoreCoordinator::addPersistentStore(std::string_view type,
                                                                  const std::string& path,
                                                                  const Dictionary& options,
                                                                  ErrorPtr* error) {
  const std::lock_guard lock(state_->mutex);
  if (type != kSQLiteStoreType) {
    setError(error, storeError(kStoreUnusable, path, "unknown store type " + std::string(type)));
    return nullptr;
  }
  for (const auto& store : state_->stores)
    if (store->path() == path && store->isCurrent()) return store;
  const Value* readOnly = options.find(kReadOnlyPersistentStoreOption);
  const bool mayCreate = readOnly == nullptr || !readOnly->boolValue();
  ErrorPtr problem;
  auto store = SQLiteStore::open(model_, versions_, path, options, &problem);
  if (!store && mayCreate && problem && problem->code() == kStoreMissing) {
    problem = nullptr;
    const bool made = SQLiteStore::create(model_, path, nullptr, &problem);
    if (made || (problem && problem->code() == kStoreFileExists))
      store = SQLiteStore::open(model_, versions_, path, options, &problem);
  }
  if (!store) {
    setError(error, problem);
    return nullptr;
  }
  state_->stores.push_back(store);
  return store;
}

bool PersistentStoreCoordinator::removePersistentStore(const PersistentStorePtr& store, ErrorPtr* error) {
  const std::lock_guard lock(state_->mutex);
  if (std::erase_if(state_->stores, [&](const auto& mine) { return mine == store; }) != 0) return true;
  setError(error,
           Error::make(kCocoaErrorDomain, kStoreUnusable, "The store is not one of this coordinator's."));
  return false;
}

PersistentStorePtr PersistentStoreCoordinator::migratePersistentStore(const PersistentStorePtr& store,
                                                                      const std::string& path,
                                                                      const Dictionary& options,
                                                                      std::string_view type,
                                                                      ErrorPtr* error) {
  const std::lock_guard lock(state_->mutex);
  auto& stores = state_->stores;
  const auto source = std::find(stores.begin(), stores.end(), store);
  if (source == stores.end() || type != kSQLiteStoreType) {
    setError(error, Error::make(kCocoaErrorDomain, kStoreUnusable, "There is no such store to migrate."));
    return nullptr;
  }
  if (!SQLiteStore::create(model_, path, source->get(), error)) return nullptr;
  auto migrated = SQLiteStore::open(model_, versions_, path, options, error);
  if (!migrated) return nullptr;
  stores.erase(source);
  stores.push_back(migrated);
  return migrated;
}

bool PersistentStoreCoordinator::mayBeOfEarlierVersion(const StoreMetadata& metadata) const {
  if (model_->isCompatibleWith(metadata)) return false;
  ErrorPtr problem;
  return earlierVersion(*model_, versions_, metadata, "", &problem) != nullptr ||
         (problem && isPassingFailure(*problem));
}

std::vector<PersistentStorePtr> PersistentStoreCoordinator::persistentStores() const {
  const std::lock_guard lock(state_->mutex);
  return {state_->stores.begin(), state_->stores.end()};
}

std::shared_ptr<SQLiteStore> PersistentStoreCoordinator::workingStore() const {
  const std::lock_guard lock(state_->mutex);
  return state_->stores.empty() ? nullptr : state_->stores.back();
}

std::optional<StoreMetadata> PersistentStoreCoordinator::metadataForPersistentStore(const std::string& path,
                                                                                    ErrorPtr* error) {
  return SQLiteStore::metadataAt(path, error);
}

}  // namespace qx
