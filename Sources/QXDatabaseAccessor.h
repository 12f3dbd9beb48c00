#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/NotificationCenter.h>
#include <QXEventStoring/Platform/Predicate.h>

#include "ObjectStore/ManagedObjectContext.h"
#include "ObjectStore/PersistentStoreCoordinator.h"
#include "Platform/Host.h"

/// The store file's fixed place; Host::resolve() puts it under the volume root.
inline constexpr std::string_view kEventStorePath = "/Users/Shared/QX/QX Event Store/QXEventStore.qxstore";
/// Where earlier releases kept it.
inline constexpr std::string_view kLegacyEventStorePath =
    "/Users/Shared/Vantorix/QX Event Store/QXEventStore.qxstore";
/// The word that marks the directories of earlier releases.
inline constexpr std::string_view kLegacyDirectoryMarker = "Vantorix";

/// Distributed notification: the store file was replaced or repaired. User info: "User Name", and
/// "Error code" unless only its permissions were applied again.
inline constexpr std::string_view kFileUpdated = "File Updated";
inline constexpr std::string_view kFileUpdatedErrorCodeKey = "Error code";
inline constexpr std::string_view kFileUpdatedUserNameKey = "User Name";

/// Owner of the process's object-store stack: the model, the event store with its working context, and the
/// read-only event-class database with a context of its own.
///
/// One object per process, made at first use and never destroyed. It may exist without a store (the file
/// could not be opened); the operations then fail with an error, and a repair may open it later.
///
/// Threads: lock() guards the working context; the caller holds it around fetch, insert, remove, refresh
/// and save and around the use of the objects. It may be taken again by the thread that holds it.
class QX_EXPORT QXDatabaseAccessor {
 public:
  /// Null while the stack cannot be built (a resource is missing or broken); the next call tries again.
  static QXDatabaseAccessor* sharedDBAccessor();
  QXDatabaseAccessor(const QXDatabaseAccessor&) = delete;
  QXDatabaseAccessor& operator=(const QXDatabaseAccessor&) = delete;

  void lock();
  void unlock();

  // Record operations: lock() held.
  std::optional<qx::ManagedObjects> getManagedObjects(std::string_view fromEntity,
                                                      const qx::PredicatePtr& withPredicate);
  std::optional<qx::ManagedObjects> getManagedObjects(std::string_view fromEntity,
                                                      const qx::PredicatePtr& withPredicate,
                                                      qx::ErrorPtr* error);
  /// Takes the lock itself. ManagedObjectContext::kNotFound when counting failed.
  std::uint64_t countOfManagedObjects(std::string_view forEntity, const qx::PredicatePtr& withPredicate,
                                      qx::ErrorPtr* error);
  qx::ManagedObjectPtr createManagedObject(std::string_view forEntity);
  void removeObject(const qx::ManagedObjectPtr& object);
  void refreshObject(const qx::ManagedObjectPtr& object);
  /// Writes every change of the working context. On failure the changes stay in memory.
  bool saveEventToStore(qx::ErrorPtr* error);
  /// The working context, for a write scope around several operations.
  qx::ManagedObjectContext& context() { return *m_pContext; }

  bool isPersistentStoreCreated() const;
  /// Whether there is a store that the record operations work on. lock() held.
  bool hasStore() const { return m_pCoordinator->workingStore() != nullptr; }
  /// Why the store is not open; null when it is. lock() held.
  const qx::ErrorPtr& openingError() const { return openingError_; }
  /// Whether the store's directories can be written, or made.
  bool isStoreWritable() const;
  /// Applies the store file's permissions and announces the file to the other processes.
  void initializeContext();

  // Location, creation, metadata.
  /// The store file's path, under the volume root.
  static std::string storePath();
  /// Makes sure that the store's directories exist and are open to everybody; the store file's path.
  std::string createDirectory();
  void updatedPersistantStoreFileAttributes(const qx::FileAttributes& attributes, const std::string& atPath);
  qx::Dictionary eventStoreOptions() const;
  /// Whether the file can be read and fits the model; *error (when given) tells why not.
  bool isStoreMetaDataAtPath(const std::string& path, qx::ErrorPtr* compatibleError);
  bool isStoreMetaDataCompatible(qx::ErrorPtr* error);

  // Stores of earlier releases.
  /// The new store with the records of the legacy one; null on failure.
  qx::PersistentStorePtr storeByMigratingFromLegacyEventStore(qx::ErrorPtr* error);
  void removeLegacyEventStore();

  /// Whether the store file is sound and only waits to be brought up to date: a full disk, say, or another
  /// failure that passes prevented that, or the file was put there since. True, too, as long as nobody can
  /// tell: it cannot be read, or the model's versions cannot. lock() held.
  bool isStoreToBeMigrated() const;

  // Repair.
  bool handleError(std::int32_t code);
  bool createNewStore(qx::ErrorPtr* error);
  /// False, too, for a store that is not corrupt but of an earlier version, and could not be brought up to
  /// date for a reason that passes.
  bool removeCorruptedStore(qx::ErrorPtr* error);
  bool correctPermission(qx::ErrorPtr* error);
  bool updateStoreWithPath(const std::string& path);

  // The event-class database; these take its lock.
  std::int64_t eventSeverityFromInternalDatabase(const qx::String& forEventClassID);
  /// The four values of a known class, by attribute name; nothing for an unknown one.
  std::optional<qx::Dictionary> searchInInternalDatabase(const qx::String& eventClassID);

 private:
  struct EventClass;
  struct EventClassCache;

  QXDatabaseAccessor();
  ~QXDatabaseAccessor();
  bool initPrivately();
  bool openEventClassDatabase();
  void openStoreAtStart();
  /// Opens or makes the store while other processes that do the same are held off, and keeps it in m_Store.
  void openCoordinated(const std::string& path, qx::ErrorPtr* coordinationError, qx::ErrorPtr* error);

  bool saveContext(qx::ErrorPtr* error);
  bool saveCatching(qx::ErrorPtr* error);

  qx::PersistentStorePtr createPersistentStoreAtPath(const std::string& path, qx::ErrorPtr* error);
  qx::PersistentStorePtr openExistingStore(const std::string& path, qx::ErrorPtr* error);
  qx::PersistentStorePtr createMissingStore(const std::string& path, qx::ErrorPtr* error);
  /// A copy of the seed database; an empty store without one.
  qx::PersistentStorePtr createFreshStore(const std::string& path, qx::ErrorPtr* error);
  /// Null, with 516, when another process made the store in the meantime.
  qx::PersistentStorePtr storeByCopying(const qx::PersistentStorePtr& original, const std::string& path,
                                        qx::ErrorPtr* error);
  /// Opens the store file for the contexts without keeping it in m_Store.
  bool addStoreDirectly();

  bool handleCorruption();
  void recievedNotification(const qx::Notification& notification);
  void handleFileUpdate(const qx::Value* errorCode);
  void announceFileUpdate(std::optional<std::int64_t> errorCode);

  qx::ManagedObjectPtr eventClassFromInternalDatabase(const qx::String& eventClassID, qx::ErrorPtr* error);
  EventClass lookUpEventClass(const qx::String& eventClassID);

  std::shared_ptr<qx::ManagedObjectContext> m_pContext;
  qx::ManagedObjectModelPtr m_pModel;
  std::shared_ptr<qx::PersistentStoreCoordinator> m_pCoordinator;
  qx::PersistentStorePtr m_Store;  // guarded by lock(); absent when opening failed
  qx::ErrorPtr openingError_;      // guarded by lock()
  std::shared_ptr<qx::PersistentStoreCoordinator> eventClassStoreCoordinator;
  std::shared_ptr<qx::ManagedObjectContext> eventClassStoreContext;
  std::unique_ptr<EventClassCache>
      eventClasses_;  // what was looked up; guarded by eventClassStoreContext's lock
};
