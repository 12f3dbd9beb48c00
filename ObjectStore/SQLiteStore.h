#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <QXEventStoring/Platform/Predicate.h>

#include "ObjectStore/PersistentStoreCoordinator.h"
#include "ObjectStore/SQLiteConnection.h"
#include "ObjectStore/SQLiteRows.h"
#include "ObjectStore/StoreFile.h"
#include "Platform/DirectoryLock.h"

namespace qx {

struct PredicateSQL;

/// The rows of one store file. Layout: one table per entity, "Z" and its name in upper case, with Z_PK,
/// Z_ENT, Z_OPT and a column per attribute and to-one relationship; Z_PRIMARYKEY with the last row number
/// of each entity; Z_METADATA. See docs/file-format.md.
///
/// Threads: any; each call is atomic. A transaction belongs to the whole store: who begins it holds the
/// context's lock until it ends.
class SQLiteStore : public PersistentStore {
 public:
  /// Opens an existing file; one that was made for another of the model's `versions` is brought up to `model`
  /// when the options allow that. Null on failure (see PersistentStoreCoordinator).
  static std::shared_ptr<SQLiteStore> open(const ManagedObjectModelPtr& model, const ModelVersions& versions,
                                           const std::string& path, const Dictionary& options,
                                           ErrorPtr* error);
  /// Makes a new file at `path` with the rows of `rowsOf` (none when null), whole or not at all. 516 when
  /// there is a file; a symbolic link is replaced.
  static bool create(const ManagedObjectModelPtr& model, const std::string& path, SQLiteStore* rowsOf,
                     ErrorPtr* error);
  static std::optional<StoreMetadata> metadataAt(const std::string& path, ErrorPtr* error);

  ~SQLiteStore() override;

  const std::string& path() const override { return path_; }
  const std::string& identifier() const override { return identifier_; }
  bool isReadOnly() const override { return readOnly_; }
  void setReadOnly(bool readOnly) override { readOnly_ = readOnly; }
  std::string description() const override;
  /// Whether the file that is open is the one that stands at the path.
  bool isCurrent() const;

  // Reading.
  using RowHandler = std::function<void(const FetchedRow&)>;
  /// Calls `handler` for each row that `predicate` selects, with its related rows: in row order without a
  /// predicate, in any order with one. The handler must not call the store.
  bool fetch(const EntityDescription& entity, const Predicate* predicate, const RowHandler& handler,
             ErrorPtr* error);
  /// The same for one row number; true, with no call, when there is no such row.
  bool fetchRow(const EntityDescription& entity, std::int64_t row, const RowHandler& handler,
                ErrorPtr* error);
  /// The first `most` of them by the attribute `property`, the largest first, of equal ones the later row.
  bool fetchLargest(const EntityDescription& entity, const Predicate* predicate, std::size_t property,
                    std::uint64_t most, const RowHandler& handler, ErrorPtr* error);
  /// The texts in the column of `property` among the rows that `predicate` selects, each once, in the order
  /// of the first row that has it.
  std::optional<std::vector<std::string>> distinctStrings(const EntityDescription& entity,
                                                          std::size_t property, const Predicate* predicate,
                                                          ErrorPtr* error);
  std::optional<std::uint64_t> count(const EntityDescription& entity, const Predicate* predicate,
                                     ErrorPtr* error);
  std::optional<StoreMetadata> metadata(ErrorPtr* error);

  // Writing. All between beginWriting() and commit() or rollback().
  /// Takes this process's place in the queue of writers, then SQLite's write lock.
  bool beginWriting(ErrorPtr* error);
  bool isWriting();
  bool commit(ErrorPtr* error);
  void rollback();
  /// Hands out `count` row numbers; the last one.
  std::optional<std::int64_t> reserveRowNumbers(const EntityDescription& entity, std::int64_t count,
                                                ErrorPtr* error);
  bool insertRow(const EntityDescription& entity, std::int64_t row, const std::vector<Value>& values,
                 ErrorPtr* error);
  /// Writes the properties whose bit is set in `changed`; all of them, as a new row, when the row is gone.
  bool updateRow(const EntityDescription& entity, std::int64_t row, std::uint64_t changed,
                 const std::vector<Value>& values, ErrorPtr* error);
  bool deleteRow(const EntityDescription& entity, std::int64_t row, ErrorPtr* error);

 private:
  SQLiteStore(ManagedObjectModelPtr model, std::unique_ptr<SQLiteConnection> connection);
  bool keepIdentity(const FileIdentity& before, ErrorPtr* error);
  bool bringUpToDate(const StoreMetadata& found, const ModelVersions& versions, ErrorPtr* error);
  bool migrateFrom(const ManagedObjectModel& earlier, ErrorPtr* error);
  bool probeTables(ErrorPtr* error);
  bool isQueued();
  void reopenForWriting();
  using RowCheck = std::function<bool(std::int64_t row)>;
  bool runFetch(const EntityDescription& entity, std::string_view sql,
                const std::vector<SQLiteParameter>& parameters, const RowCheck& isNew,
                const RowHandler& handler, ErrorPtr* error);
  /// The tables behind the relationships that it speaks of.
  std::string joins(const EntityDescription& entity, const PredicateSQL& selection) const;
  bool fail(StoreOperation operation, ErrorPtr* error);
  bool copyRowsFrom(SQLiteStore& source, ErrorPtr* error);
  bool copyRows(const EntityDescription& entity, SQLiteStore& source, ErrorPtr* error);
  /// The last row number that was handed out.
  std::optional<std::int64_t> lastRowNumber(const EntityDescription& entity, ErrorPtr* error);
  bool setLastRowNumber(const EntityDescription& entity, std::int64_t last, ErrorPtr* error);
  const EntitySQL& sql(const EntityDescription& entity) const;

  const ManagedObjectModelPtr model_;
  const std::string path_;
  std::vector<EntitySQL> sql_;  // by entity number
  std::string identifier_;
  bool readOnly_ = false;
  std::string journalMode_;
  std::optional<FileIdentity> file_;  // the open file; none for a read-only store

  std::recursive_mutex mutex_;
  // Guarded by mutex_.
  std::unique_ptr<SQLiteConnection> connection_;
  std::shared_ptr<DirectoryLock> writersQueue_;  // null when the directory cannot be locked
  bool queued_ = false;
  std::string metadataBytes_;  // of metadata_
  std::optional<StoreMetadata> metadata_;
};

}  // namespace qx
