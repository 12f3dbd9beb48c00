// Where the store file stands, who may write it, how it is opened or made, and whether it fits the model.
//
// Every user of the machine works on the same file, so its directories are open to everybody, and a file that
// somebody locked or narrowed is opened up again before it is used.
#include <string>

#include <QXEventStoring/Platform/Bundle.h>

#include "ObjectStore/SQLiteErrors.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXDatabaseAccessorLogging.h"

using qx::accessor::loggedCode;
using qx::accessor::loggedDescription;
using qx::accessor::loggedUserInfo;

namespace {

constexpr std::string_view kSharedDirectory = "/Users/Shared";
constexpr std::string_view kMakerDirectory = "/Users/Shared/QX";
constexpr std::string_view kStoreDirectory = "/Users/Shared/QX/QX Event Store";

constexpr mode_t kOpenToAll = 0777;
const qx::FileAttributes kStoreFileAttributes{.permissions = 0666, .immutable = false};

constexpr std::int64_t kCorruptFileError = 259;

qx::Dictionary readOnlyOptions() {
  return {{std::string(qx::kReadOnlyPersistentStoreOption), true}};
}

/// Whether the new store could not be moved into place because there was one by then.
bool isMadeByAnother(const qx::ErrorPtr& error) {
  return error && error->domain() == qx::kCocoaErrorDomain && error->code() == qx::kStoreFileExists;
}

void ensureOpenDirectory(std::string_view fixedPath, std::optional<mode_t> permissionsWhenMade) {
  auto& host = qx::Host::current();
  const std::string path = host.resolve(fixedPath);
  if (!host.fileExists(path)) host.createDirectory(path, true, permissionsWhenMade);
  host.setAttributes(path, {.permissions = kOpenToAll, .immutable = false});
}

}  // namespace

std::string QXDatabaseAccessor::storePath() {
  return qx::Host::current().resolve(kEventStorePath);
}

std::string QXDatabaseAccessor::createDirectory() {
  ensureOpenDirectory(kSharedDirectory, std::nullopt);
  ensureOpenDirectory(kMakerDirectory, kOpenToAll);
  ensureOpenDirectory(kStoreDirectory, kOpenToAll);

  auto& host = qx::Host::current();
  std::string path = storePath();
  if (host.fileExists(path)) host.setAttributes(path, {.permissions = kOpenToAll, .immutable = false});
  return path;
}

bool QXDatabaseAccessor::isStoreWritable() const {
  const auto& host = qx::Host::current();
  const std::string shared = host.resolve(kSharedDirectory);
  if (!host.fileExists(shared) || !host.isWritable(shared)) return false;
  const std::string maker = host.resolve(kMakerDirectory);
  if (!host.fileExists(maker)) return true;
  if (!host.isWritable(maker)) return false;
  const std::string store = host.resolve(kStoreDirectory);
  return !host.fileExists(store) || host.isWritable(store);
}

void QXDatabaseAccessor::updatedPersistantStoreFileAttributes(const qx::FileAttributes& attributes,
                                                              const std::string& atPath) {
  qx::Host::current().setAttributes(atPath, attributes);
}

qx::Dictionary QXDatabaseAccessor::eventStoreOptions() const {
  return {{std::string(qx::kSQLitePragmasOption), qx::Dictionary{{"journal_mode", "DELETE"}}},
          {std::string(qx::kMigratePersistentStoresAutomaticallyOption), true},
          {std::string(qx::kInferMappingModelAutomaticallyOption), true}};
}

void QXDatabaseAccessor::openCoordinated(const std::string& path, qx::ErrorPtr* coordinationError,
                                         qx::ErrorPtr* error) {
  auto& host = qx::Host::current();
  host.coordinateWriting(host.resolve(kStoreDirectory), coordinationError,
                         [&] { m_Store = createPersistentStoreAtPath(path, error); });
  openingError_ = m_Store ? nullptr : *error;
}

qx::PersistentStorePtr QXDatabaseAccessor::createPersistentStoreAtPath(const std::string& path,
                                                                       qx::ErrorPtr* error) {
  auto store =
      qx::Host::current().fileExists(path) ? openExistingStore(path, error) : createMissingStore(path, error);
  QXLogInfo("Error occurred is=============================== [%ld]", loggedCode(*error));
  return store;
}

qx::PersistentStorePtr QXDatabaseAccessor::openExistingStore(const std::string& path, qx::ErrorPtr* error) {
  QXLogInfo("Error occured is[file does not exist [%{public}@] userinfo = [%{public}@]",
            loggedDescription(*error), loggedUserInfo(*error));
  updatedPersistantStoreFileAttributes(kStoreFileAttributes, path);
  auto store =
      m_pCoordinator->addPersistentStore(qx::kSQLiteStoreType, storePath(), eventStoreOptions(), error);
  QXLogInfo("Error occured is[file exist] [%{public}@]", loggedDescription(*error));
  return store;
}

qx::PersistentStorePtr QXDatabaseAccessor::createMissingStore(const std::string& path, qx::ErrorPtr* error) {
  auto& host = qx::Host::current();
  QXLogInfo("File does not exist at path the required path[%{public}@]", path);
  const bool hasLegacy = host.fileExists(host.resolve(kLegacyEventStorePath));
  qx::ErrorPtr problem;
  qx::PersistentStorePtr store;
  if (hasLegacy) {
    store = storeByMigratingFromLegacyEventStore(&problem);
    *error = problem;
    // A full disk, or another failure that passes, must not cost the records: with the old store removed, or
    // a fresh one in the new place, no later start would take them over.
    if (!store && problem && qx::isPassingFailure(*problem)) return nullptr;
  }
  if (!store && !isMadeByAnother(problem)) {
    store = createFreshStore(path, &problem);
    if (problem) *error = problem;
  }
  if (!store && isMadeByAnother(problem)) {
    // Whether the records are in it is the other process's to know, and the old store its to remove.
    *error = nullptr;
    return m_pCoordinator->addPersistentStore(qx::kSQLiteStoreType, storePath(), eventStoreOptions(), error);
  }
  // What failed may have been the new place, and not the old store: only a store that stands there ends it.
  if (store && hasLegacy) removeLegacyEventStore();
  return store;
}

qx::PersistentStorePtr QXDatabaseAccessor::createFreshStore(const std::string& path, qx::ErrorPtr* error) {
  const auto seedPath = qx::Bundle::library().resourcePath("EventClassStore", "qxstore");
  const auto seed =
      seedPath ? m_pCoordinator->addPersistentStore(qx::kSQLiteStoreType, *seedPath, readOnlyOptions(), error)
               : nullptr;
  if (seed) {
    QXLogInfo("Not nil");
    seed->setReadOnly(true);
    auto store = storeByCopying(seed, path, error);
    updatedPersistantStoreFileAttributes(kStoreFileAttributes, path);
    return store;
  }
  updatedPersistantStoreFileAttributes(kStoreFileAttributes, path);
  QXLogInfo("Event class store is nil");
  return m_pCoordinator->addPersistentStore(qx::kSQLiteStoreType, path, eventStoreOptions(), error);
}

qx::PersistentStorePtr QXDatabaseAccessor::storeByCopying(const qx::PersistentStorePtr& original,
                                                          const std::string& path, qx::ErrorPtr* error) {
  auto store = m_pCoordinator->migratePersistentStore(original, path, eventStoreOptions(),
                                                      qx::kSQLiteStoreType, error);
  // Otherwise the contexts would go on to work on the original.
  if (!store) m_pCoordinator->removePersistentStore(original);
  return store;
}

bool QXDatabaseAccessor::isStoreMetaDataAtPath(const std::string& path, qx::ErrorPtr* compatibleError) {
  updatedPersistantStoreFileAttributes(kStoreFileAttributes, path);
  qx::ErrorPtr error;
  const auto metadata = qx::PersistentStoreCoordinator::metadataForPersistentStore(path, &error);
  const bool compatible = metadata && m_pModel->isCompatibleWith(*metadata);
  if (metadata && !compatible) error = qx::Error::make(qx::kCocoaErrorDomain, kCorruptFileError);
  if (compatibleError != nullptr && error) {
    *compatibleError = error;
    QXLogInfo("Error in creating source metadata [%{public}@] userinfo = [%{public}@]", error,
              loggedUserInfo(error));
  }
  QXLogInfo("IsMetaDataCompatible?? [%d] ", compatible);
  return compatible;
}

bool QXDatabaseAccessor::isStoreMetaDataCompatible(qx::ErrorPtr* error) {
  return isStoreMetaDataAtPath(storePath(), error);
}
