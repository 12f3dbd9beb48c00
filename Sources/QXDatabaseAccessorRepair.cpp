// Putting a failed store back into a usable state, here and in the other processes.
//
// Whoever replaces or repairs the file tells every process by the distributed notification "File Updated";
// each then opens the file again itself. Lock order: the working context's lock, then the store directory's.
#include <mutex>
#include <string>

#include <QXEventStoring/Platform/Bundle.h>

#include "ObjectStore/SQLiteErrors.h"
#include "Platform/DistributedNotificationCenter.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXDatabaseAccessorLogging.h"

using qx::accessor::loggedStore;

namespace {

// Codes of "File Updated".
constexpr std::int32_t kPermissionProblem = 256;
constexpr std::int32_t kMissingFile = 134030;
constexpr std::int32_t kCorruptFile = 100;

constexpr qx::FileAttributes kReadableAndWritable{.permissions = 0666, .immutable = std::nullopt};

using ContextLock = std::lock_guard<qx::ManagedObjectContext>;

bool isStoreFileMissing() {
  return !qx::Host::current().fileExists(QXDatabaseAccessor::storePath());
}

/// Whether it comes from this application, run by this user; one without a poster's name never does.
bool isOwn(const qx::Notification& notification) {
  if (!notification.object || notification.object != qx::Bundle::mainBundle().bundleIdentifier())
    return false;
  const auto* user = notification.userInfo.find(kFileUpdatedUserNameKey);
  return user != nullptr && *user == qx::Value(qx::Host::current().userName());
}

}  // namespace

bool QXDatabaseAccessor::updateStoreWithPath(const std::string& path) {
  const ContextLock guard(*m_pContext);
  if (m_Store) m_pCoordinator->removePersistentStore(m_Store);
  m_Store = nullptr;
  qx::ErrorPtr unreported;
  openCoordinated(path, nullptr, &unreported);
  m_pContext->reset();
  return m_Store != nullptr;
}

bool QXDatabaseAccessor::handleError(std::int32_t code) {
  const ContextLock guard(*m_pContext);
  if (code == kPermissionProblem) {
    QXLogInfo("Problem with permission");
    updateStoreWithPath(storePath());
    announceFileUpdate(kPermissionProblem);
    return true;
  }
  if (code == kMissingFile) {
    if (isStoreFileMissing()) {
      QXLogInfo("Create new file==========>>>In handle error");
      createDirectory();
    }
    updateStoreWithPath(storePath());
    announceFileUpdate(kMissingFile);
    return true;
  }
  return handleCorruption();
}

bool QXDatabaseAccessor::handleCorruption() {
  QXLogInfo("Problem with corrupted database");
  if (m_Store) {
    updateStoreWithPath(storePath());
    announceFileUpdate(kCorruptFile);
    return false;
  }
  QXLogInfo("The persistent store is nil@@@");
  if (addStoreDirectly()) {
    QXLogInfo("Persistent store created successfully@@@");
    updatedPersistantStoreFileAttributes(kReadableAndWritable, storePath());
  } else {
    updateStoreWithPath(storePath());
    announceFileUpdate(kPermissionProblem);
  }
  return true;
}

bool QXDatabaseAccessor::addStoreDirectly() {
  // An empty store in the new place would keep the records of the old one from being taken over.
  const auto& host = qx::Host::current();
  if (isStoreFileMissing() && host.fileExists(host.resolve(kLegacyEventStorePath))) return false;
  return m_pCoordinator->addPersistentStore(qx::kSQLiteStoreType, storePath(), eventStoreOptions()) !=
         nullptr;
}

bool QXDatabaseAccessor::createNewStore(qx::ErrorPtr*) {
  QXLogInfo("QXDatabaseAccessor::createNewStore::");
  bool created = false;
  {
    const ContextLock guard(*m_pContext);
    if (isStoreFileMissing()) {
      createDirectory();
      if (!m_Store) QXLogInfo("Need to set the coordinator");
    }
    created = updateStoreWithPath(storePath());
    if (!created) QXLogInfo("Store is nil");
    announceFileUpdate(kMissingFile);
  }
  QXLogInfo("New store is created successfully :: [%d]", created);
  return created;
}

bool QXDatabaseAccessor::isStoreToBeMigrated() const {
  if (openingError_ && !qx::isPassingFailure(*openingError_)) return false;
  qx::ErrorPtr problem;
  const auto metadata = qx::PersistentStoreCoordinator::metadataForPersistentStore(storePath(), &problem);
  if (!metadata) return openingError_ && problem && qx::isPassingFailure(*problem);
  return m_pCoordinator->mayBeOfEarlierVersion(*metadata);
}

bool QXDatabaseAccessor::removeCorruptedStore(qx::ErrorPtr*) {
  const ContextLock guard(*m_pContext);
  const bool removed = !isStoreToBeMigrated() && qx::Host::current().removeItem(storePath());
  QXLogInfo("Remove corrupted store");
  if (m_Store) {
    QXLogInfo("Corrupted store in [removeCorruptedStore]");
    m_pCoordinator->removePersistentStore(m_Store);
    m_Store = nullptr;
  }
  announceFileUpdate(kCorruptFile);
  return removed;
}

bool QXDatabaseAccessor::correctPermission(qx::ErrorPtr*) {
  QXLogInfo("QXDatabaseAccessor::Correct the permission");
  announceFileUpdate(kPermissionProblem);
  return false;
}

void QXDatabaseAccessor::announceFileUpdate(std::optional<std::int64_t> errorCode) {
  using Center = qx::DistributedNotificationCenter;
  qx::Dictionary userInfo{{std::string(kFileUpdatedUserNameKey), qx::Host::current().userName()}};
  if (errorCode) userInfo.set(std::string(kFileUpdatedErrorCodeKey), *errorCode);
  Center::defaultCenter().post(std::string(kFileUpdated), qx::Bundle::mainBundle().bundleIdentifier(),
                               std::move(userInfo), Center::kDeliverImmediately | Center::kPostToAllSessions);
}

void QXDatabaseAccessor::recievedNotification(const qx::Notification& notification) {
  if (isOwn(notification)) return;
  const ContextLock guard(*m_pContext);
  QXLogInfo("*******Notification Recieved*****[%{public}@]", qx::Bundle::mainBundle().bundleIdentifier());
  handleFileUpdate(notification.userInfo.find(kFileUpdatedErrorCodeKey));
}

void QXDatabaseAccessor::handleFileUpdate(const qx::Value* errorCode) {
  const auto identifier = qx::Bundle::mainBundle().bundleIdentifier();
  const std::int64_t code = errorCode != nullptr ? errorCode->integerValue() : 0;
  if (errorCode == nullptr) {
    QXLogInfo("Need to update the context");
  } else if (code == kMissingFile) {
    QXLogInfo("Recieved notification for handling file missing in application*** [%{public}@]", identifier);
    QXLogInfo("m_Store = [%{public}@]]", loggedStore(m_Store));
  } else if (code == kPermissionProblem) {
    QXLogInfo("Recieved notification for file update in application*** [%{public}@]", identifier);
  } else if (!m_Store) {
    QXLogInfo("The persistent store is nil+++++");
    if (!addStoreDirectly()) return;
    QXLogInfo("Persistent store created successfully +++ After recieving notification");
    updatedPersistantStoreFileAttributes(kReadableAndWritable, storePath());
    return;
  }
  updateStoreWithPath(storePath());
}
