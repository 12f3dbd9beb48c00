// The object-store stack of the process: how it is built, and the operations on its records.
//
// The stack comes up in a fixed order, and what can be missing decides how far it gets: without the model or
// the event-class database there is no accessor at all, while a store file that cannot be opened leaves one
// that answers from the event-class database and waits for a repair.
#include "Sources/QXDatabaseAccessor.h"

#include <atomic>
#include <mutex>

#include <QXEventStoring/Platform/Bundle.h>

#include "Platform/DistributedNotificationCenter.h"
#include "Sources/QXDatabaseAccessorLogging.h"

using qx::accessor::loggedCode;
using qx::accessor::loggedDescription;
using qx::accessor::loggedStore;

namespace {

constexpr std::int64_t kUnknownReadError = 256;
constexpr std::int64_t kPersistentStoreSaveError = 134030;

using ContextLock = std::lock_guard<qx::ManagedObjectContext>;

}  // namespace

QXDatabaseAccessor* QXDatabaseAccessor::sharedDBAccessor() {
  static std::atomic<QXDatabaseAccessor*> instance = nullptr;
  static std::mutex monitor;

  if (auto* const existing = instance.load()) return existing;
  const std::lock_guard guard(monitor);
  if (auto* const existing = instance.load()) return existing;

  const auto destroy = [](QXDatabaseAccessor* accessor) { delete accessor; };
  std::unique_ptr<QXDatabaseAccessor, decltype(destroy)> candidate(new QXDatabaseAccessor, destroy);
  if (!candidate->initPrivately()) return nullptr;
  instance = candidate.get();
  return candidate.release();
}

bool QXDatabaseAccessor::initPrivately() {
  QXLogInfo("Registered for notification [%{public}@]", qx::Bundle::mainBundle().bundleIdentifier());

  const auto modelPath = qx::Bundle::library().resourcePath("QXStoreModel 3", "mom", "QXStoreModel.momd");
  if (!modelPath) return false;
  m_pModel = qx::ManagedObjectModel::load(*modelPath);
  if (!m_pModel) return false;

  if (!openEventClassDatabase()) return false;

  m_pCoordinator =
      std::make_shared<qx::PersistentStoreCoordinator>(m_pModel, [path = *modelPath](qx::ErrorPtr* problem) {
        return qx::ManagedObjectModel::loadAll(path.substr(0, path.rfind('/')), problem);
      });
  m_pContext = std::make_shared<qx::ManagedObjectContext>(m_pCoordinator);
  openStoreAtStart();

  qx::DistributedNotificationCenter::defaultCenter()
      .addObserver(std::string(kFileUpdated), std::nullopt,
                   [this](const qx::Notification& notification) { recievedNotification(notification); })
      .keepForever();
  return true;
}

void QXDatabaseAccessor::openStoreAtStart() {
  createDirectory();
  const std::string path = storePath();
  qx::ErrorPtr error;
  openCoordinated(path, &error, &error);
  if (!m_Store) {
    QXLogInfo("error[persistent store is nil] %{public}@", loggedDescription(error));
    return;
  }
  QXLogInfo("Persistent store at path:== [%{public}@] is [%{public}@]", path, loggedStore(m_Store));
  updatedPersistantStoreFileAttributes({.permissions = 0666, .immutable = false}, path);
}

void QXDatabaseAccessor::lock() {
  m_pContext->lock();
}

void QXDatabaseAccessor::unlock() {
  m_pContext->unlock();
}

std::optional<qx::ManagedObjects> QXDatabaseAccessor::getManagedObjects(
    std::string_view fromEntity, const qx::PredicatePtr& withPredicate) {
  return m_pContext->fetch(fromEntity, withPredicate);
}

std::optional<qx::ManagedObjects> QXDatabaseAccessor::getManagedObjects(std::string_view fromEntity,
                                                                        const qx::PredicatePtr& withPredicate,
                                                                        qx::ErrorPtr* error) {
  auto objects = m_pContext->fetch(fromEntity, withPredicate, error);
  if (error != nullptr) QXLogInfo("Error in getManagedObjectsFromEntity:[%{public}@]", *error);
  return objects;
}

std::uint64_t QXDatabaseAccessor::countOfManagedObjects(std::string_view forEntity,
                                                        const qx::PredicatePtr& withPredicate,
                                                        qx::ErrorPtr* error) {
  std::uint64_t count = 0;
  {
    const ContextLock guard(*m_pContext);
    count = m_pContext->count(forEntity, withPredicate, error);
  }
  QXLogInfo("Count of managed objects [%lu]", count);
  return count;
}

qx::ManagedObjectPtr QXDatabaseAccessor::createManagedObject(std::string_view forEntity) {
  QXLogInfo("createManagedObjectForEntity[%{public}@]", forEntity);
  return m_pContext->insert(forEntity);
}

void QXDatabaseAccessor::removeObject(const qx::ManagedObjectPtr& object) {
  if (object) m_pContext->remove(object);
}

void QXDatabaseAccessor::refreshObject(const qx::ManagedObjectPtr& object) {
  if (object) m_pContext->refresh(object);
}

bool QXDatabaseAccessor::saveEventToStore(qx::ErrorPtr* error) {
  QXLogInfo("saveEventToStore called");
  qx::ErrorPtr unread;
  const bool saved = saveContext(error != nullptr ? error : &unread);
  QXLogInfo("[QXDatabaseAccessor savestatus[%d]]", saved);
  return saved;
}

bool QXDatabaseAccessor::saveContext(qx::ErrorPtr* error) {
  QXLogInfo("saveContext called");
  *error = nullptr;
  bool saved = false;
  // A file that was replaced, removed or damaged behind our back is not written through a stale context.
  if (isStoreMetaDataCompatible(error)) {
    saved = saveCatching(error);
    QXLogInfo("Error while saving the context : [Code = %ld] :[Description = %{public}@]", loggedCode(*error),
              loggedDescription(*error));
  }
  QXLogInfo("******Is successfully saved = [%d]******", saved);
  return saved;
}

bool QXDatabaseAccessor::saveCatching(qx::ErrorPtr* error) {
  try {
    return m_pContext->save(error);
  } catch (const qx::ObjectStoreException& exception) {
    QXLogInfo("Catch Exception [Name = %{public}@] [Reason = %{public}@]", exception.name(),
              exception.what());
  }
  if (m_pCoordinator) {
    QXLogInfo("Error:Required file is missing");
    *error = qx::Error::make(qx::kCocoaErrorDomain, kPersistentStoreSaveError);
  } else {
    QXLogInfo("Error:No proper permission is set");
    *error = qx::Error::make(qx::kCocoaErrorDomain, kUnknownReadError);
  }
  return false;
}

bool QXDatabaseAccessor::isPersistentStoreCreated() const {
  const ContextLock guard(*m_pContext);
  QXLogInfo("m_Store is present/not");
  QXLogInfo("m_Store = [%{public}@]", loggedStore(m_Store));
  return m_Store != nullptr;
}

void QXDatabaseAccessor::initializeContext() {
  QXLogInfo("Initialize called");
  updatedPersistantStoreFileAttributes({.permissions = 0666, .immutable = std::nullopt}, storePath());
  QXLogInfo("*!*!*");
  announceFileUpdate(std::nullopt);
  QXLogInfo("post notification!!");
}
