// Stores of earlier releases, which stood under a directory of another name: taken over once, then removed.
//
// The tree is world-writable, so a directory on the way may be somebody's symbolic link: nothing is removed
// through one.
#include <string>
#include <string_view>

#include "Sources/QXDatabaseAccessor.h"

namespace {

constexpr std::string_view parentOf(std::string_view path) {
  return path.substr(0, path.find_last_of('/'));
}

constexpr std::string_view kLegacyDirectory = parentOf(kLegacyEventStorePath);

bool isLegacyDirectory(std::string_view fixedPath) {
  return fixedPath.find(kLegacyDirectoryMarker) != std::string_view::npos;
}

bool leadsThroughLink() {
  const auto& host = qx::Host::current();
  for (auto directory = kLegacyDirectory; isLegacyDirectory(directory); directory = parentOf(directory)) {
    const auto status = host.status(host.resolve(directory));
    if (status && status->isSymbolicLink) return true;
  }
  return false;
}

void removeEmptyLegacyDirectories() {
  auto& host = qx::Host::current();
  for (auto directory = kLegacyDirectory; isLegacyDirectory(directory); directory = parentOf(directory)) {
    const std::string path = host.resolve(directory);
    const auto visible = host.contentsOfDirectory(path, true);
    if (!visible || !visible->empty()) return;
    host.removeItem(path);
  }
}

}  // namespace

qx::PersistentStorePtr QXDatabaseAccessor::storeByMigratingFromLegacyEventStore(qx::ErrorPtr* error) {
  const qx::Dictionary options{{std::string(qx::kMigratePersistentStoresAutomaticallyOption), true},
                               {std::string(qx::kInferMappingModelAutomaticallyOption), true}};
  qx::ErrorPtr migrationError;
  const auto legacy = m_pCoordinator->addPersistentStore(
      qx::kSQLiteStoreType, qx::Host::current().resolve(kLegacyEventStorePath), options, &migrationError);
  qx::PersistentStorePtr store;
  if (legacy) store = storeByCopying(legacy, storePath(), &migrationError);
  qx::setError(error, migrationError);
  return store;
}

void QXDatabaseAccessor::removeLegacyEventStore() {
  if (leadsThroughLink()) return;
  auto& host = qx::Host::current();
  const std::string store = host.resolve(kLegacyEventStorePath);
  const std::string backup = host.resolve(kLegacyDirectory) + "/~QXEventStore.qxstore";
  for (const auto& path : {store, store + "-shm", store + "-wal", backup + "-shm", backup + "-wal", backup}) {
    host.removeItem(path);
  }
  removeEmptyLegacyDirectories();
}
