#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Value.h>

#include "ObjectStore/ManagedObjectModel.h"

namespace qx {

/// Store type: rows in an SQLite file.
inline constexpr std::string_view kSQLiteStoreType = "SQLite";

// Options of a store: a dictionary of these.
/// true: nothing is ever written to the file, nor beside it.
inline constexpr std::string_view kReadOnlyPersistentStoreOption = "NSReadOnlyPersistentStoreOption";
/// Dictionary of SQLite pragmas: "journal_mode" ("DELETE", "TRUNCATE", "PERSIST", or "WAL", which keeps
/// others out while the file is open). Without it the file keeps its mode.
inline constexpr std::string_view kSQLitePragmasOption = "NSSQLitePragmasOption";
/// true: a file of an earlier model version may be brought up to the model when it is opened...
inline constexpr std::string_view kMigratePersistentStoresAutomaticallyOption =
    "NSMigratePersistentStoresAutomaticallyOption";
/// ...by a mapping inferred from the two models: see StoreMigration.h. Both must be true, and the store not
/// read-only.
inline constexpr std::string_view kInferMappingModelAutomaticallyOption =
    "NSInferMappingModelAutomaticallyOption";

class SQLiteStore;

/// An open store file. Immutable from outside; any thread.
class PersistentStore {
 public:
  virtual ~PersistentStore() = default;
  virtual const std::string& path() const = 0;
  virtual const std::string& identifier() const = 0;  // the store's UUID
  virtual bool isReadOnly() const = 0;
  virtual void setReadOnly(bool readOnly) = 0;
  /// For logs.
  virtual std::string description() const = 0;
};
using PersistentStorePtr = std::shared_ptr<PersistentStore>;

/// The open stores of one model. Contexts work on the store that was added last; others are there to be
/// migrated or removed.
///
/// Threads: any; each operation is atomic. Callers that replace a store hold the lock of the contexts that
/// work on it. Errors are of NSCocoaErrorDomain (260 missing, 257 no permission, 259 damaged or not a
/// store, 134100 made for another model, 516 there is one already) or NSSQLiteErrorDomain.
class PersistentStoreCoordinator {
 public:
  /// `versions`: the model's earlier versions, from which stores may be brought up to it.
  explicit PersistentStoreCoordinator(ManagedObjectModelPtr model, ModelVersions versions = nullptr);
  ~PersistentStoreCoordinator();
  PersistentStoreCoordinator(const PersistentStoreCoordinator&) = delete;
  PersistentStoreCoordinator& operator=(const PersistentStoreCoordinator&) = delete;

  const ManagedObjectModelPtr& model() const { return model_; }

  /// Opens the file at `path`, or makes an empty store there when there is none (not when read-only). A
  /// symbolic link, at the end of the path or on the way, is refused (259). A file of an earlier version of
  /// the model is brought up to it first, whole or not at all, when the options allow that. Null on failure.
  /// A file that is open here already gives the same store.
  PersistentStorePtr addPersistentStore(std::string_view type, const std::string& path,
                                        const Dictionary& options, ErrorPtr* error = nullptr);
  /// Closes the store; false when it is not one of this coordinator's.
  bool removePersistentStore(const PersistentStorePtr& store, ErrorPtr* error = nullptr);
  /// Copies every row of `store` into a new file at `path`, opens that with `options` and closes `store`,
  /// whose file stays as it is. The new file appears whole or not at all; a file that is there already is
  /// never replaced (516), a symbolic link there is. Row numbers stay. Null on failure: `store` is open
  /// as before.
  PersistentStorePtr migratePersistentStore(const PersistentStorePtr& store, const std::string& path,
                                            const Dictionary& options, std::string_view type,
                                            ErrorPtr* error = nullptr);
  std::vector<PersistentStorePtr> persistentStores() const;
  /// Whether a store with that metadata can be brought up to the model from one of its earlier versions, or
  /// may be: as long as those cannot be read.
  bool mayBeOfEarlierVersion(const StoreMetadata& metadata) const;

  /// The metadata of the store file at `path`, without opening it as a store. Cheap (two system calls and
  /// one small query) while this process has that very file open. Empty on failure.
  static std::optional<StoreMetadata> metadataForPersistentStore(const std::string& path,
                                                                 ErrorPtr* error = nullptr);

  /// The store that contexts work on, or null.
  std::shared_ptr<SQLiteStore> workingStore() const;

 private:
  struct State;
  const ManagedObjectModelPtr model_;
  const ModelVersions versions_;
  std::unique_ptr<State> state_;
};

}  // namespace qx
