#include "ObjectStore/SQLiteStore.h"

#include <sqlite3.h>

#include <chrono>
#include <limits>
#include <map>
#include <utility>

#include "ObjectStore/SQLiteSchema.h"
#include "ObjectStore/StoreFile.h"
#include "ObjectStore/StoreMigration.h"
#include "Platform/Host.h"
#include "Platform/PropertyList.h"

namespace qx {

namespace {

/// This process's open store files. Metadata of one of them is read through its own connection: opening
/// the file a second time by other means and closing it would drop the locks that SQLite holds on it.
class OpenStores {
 public:
  static OpenStores& shared() {
    static auto* stores = new OpenStores;
    return *stores;
  }

  void add(const FileIdentity& file, const std::shared_ptr<SQLiteStore>& store) {
    const std::lock_guard lock(mutex_);
    stores_[file] = store;
  }

  void dropDead() {
    const std::lock_guard lock(mutex_);
    std::erase_if(stores_, [](const auto& entry) { return entry.second.expired(); });
  }

  std::shared_ptr<SQLiteStore> find(const FileIdentity& file) {
    const std::lock_guard lock(mutex_);
    const auto found = stores_.find(file);
    return found != stores_.end() ? found->second.lock() : nullptr;
  }

 private:
  std::mutex mutex_;
  std::map<FileIdentity, std::weak_ptr<SQLiteStore>> stores_;  // guarded by mutex_
};

bool option(const Dictionary& options, std::string_view key) {
  const Value* value = options.find(key);
  return value != nullptr && value->boolValue();
}

/// The journal mode that the options ask for; empty when they ask for none, and the file is to keep its own.
/// Nothing for one we do not know: it becomes part of a statement.
String journalMode(const Dictionary& options) {
  const Value* pragmas = options.find(kSQLitePragmasOption);
  const Dictionary* values = pragmas != nullptr ? pragmas->asDictionary() : nullptr;
  const Value* mode = values != nullptr ? values->find("journal_mode") : nullptr;
  if (mode == nullptr) return "";
  for (const char* known : {"DELETE", "TRUNCATE", "PERSIST", "WAL"})
    if (*mode == Value(known)) return known;
  return std::nullopt;
}

std::optional<StoreMetadata> readMetadata(std::string uuid, std::string_view bytes, const std::string& path,
                                          ErrorPtr* error) {
  constexpr PropertyListLimits kLimits{
      .depth = 16, .bytes = 1U << 20, .expandedValues = 10000, .expandedBytes = 1U << 20};
  auto values = readBinaryPropertyList(bytes, nullptr, kLimits);
  if (values && values->asDictionary() != nullptr)
    return StoreMetadata{std::move(uuid), std::move(*values->asDictionary())};
  setError(error, storeError(kStoreCorrupt, path, "its metadata cannot be read"));
  return std::nullopt;
}

constexpr std::string_view kMetadataSQL = "SELECT Z_UUID, Z_PLIST FROM Z_METADATA ORDER BY Z_VERSION LIMIT 1";
constexpr std::chrono::milliseconds kQueuePatience{Host::kPatienceMilliseconds};

}  // namespace

// --- opening

SQLiteStore::SQLiteStore(ManagedObjectModelPtr model, std::unique_ptr<SQLiteConnection> connection)
    : model_(std::move(model)), path_(connection->path()), connection_(std::move(connection)) {
  sql_.reserve(model_->entities().size());
  for (const EntityDescription& entity : model_->entities())
    sql_.emplace_back(entity, *model_);
}

SQLiteStore::~SQLiteStore() {
  rollback();
  if (file_) OpenStores::shared().dropDead();
}

std::shared_ptr<SQLiteStore> SQLiteStore::open(const ManagedObjectModelPtr& model,
                                               const ModelVersions& versions, const std::string& path,
                                               const Dictionary& options, ErrorPtr* error) {
  const bool readOnly = option(options, kReadOnlyPersistentStoreOption);
  const String mode = journalMode(options);
  if (!mode) {
    setError(error, storeError(kStoreUnusable, path, "the options name an unknown journal mode"));
    return nullptr;
  }
  // A read-only store is a resource of the program's own: nobody else's to plant links in.
  const auto before = readOnly ? std::optional(FileIdentity{}) : storeFileIdentity(path, error);
  if (!before) return nullptr;
  auto connection = SQLiteConnection::open(
      path, readOnly ? SQLiteConnection::Mode::immutable : SQLiteConnection::Mode::shared, *mode, error);
  if (!connection) return nullptr;
  std::shared_ptr<SQLiteStore> store(new SQLiteStore(model, std::move(connection)));
  store->readOnly_ = readOnly;
  store->journalMode_ = *mode;
  if (!checkSchema(*store->connection_, error)) return nullptr;
  const auto found = store->metadata(error);
  if (!found) return nullptr;
  store->identifier_ = found->uuid;
  if (!readOnly && !store->keepIdentity(*before, error)) return nullptr;
  if (!model->isCompatibleWith(*found)) {
    const bool mayMigrate = !readOnly && option(options, kMigratePersistentStoresAutomaticallyOption) &&
                            option(options, kInferMappingModelAutomaticallyOption);
    if (!store->bringUpToDate(*found, mayMigrate ? versions : nullptr, error)) return nullptr;
  }
  if (!store->probeTables(error)) return nullptr;
  if (!readOnly) OpenStores::shared().add(*store->file_, store);
  return store;
}

/// Only after the first look at it is it known that the connection has the file that stands at the path.
bool SQLiteStore::keepIdentity(const FileIdentity& before, ErrorPtr* error) {
  const auto after = storeFileIdentity(path_, error);
  if (!after) return false;
  if (*after != before) {
    setError(error, storeError(kStoreUnusable, path_, "it was replaced while it was opened"));
    return false;
  }
  writersQueue_ = DirectoryLock::forDirectory(path_.substr(0, path_.rfind('/')), nullptr);
  file_ = *after;
  return true;
}

bool SQLiteStore::bringUpToDate(const StoreMetadata& found, const ModelVersions& versions, ErrorPtr* error) {
  const auto earlier = earlierVersion(*model_, versions, found, path_, error);
  if (!earlier) return false;
  const bool migrated = beginWriting(error) && migrateFrom(*earlier, error);
  rollback();  // what was not committed, and this process's place in the queue
  return migrated;
}

bool SQLiteStore::migrateFrom(const ManagedObjectModel& earlier, ErrorPtr* error) {
  // Another process may have done it since the file was opened, or somebody have changed it.
  const auto found = metadata(error);
  if (!found) return false;
  if (model_->isCompatibleWith(*found)) return true;
  if (!earlier.isCompatibleWith(*found)) {
    setError(error, anotherModel(path_, ""));
    return false;
  }
  if (!checkSchema(*connection_, error)) return false;
  if (!migrateStore(*connection_, earlier, *model_, *found, error)) return false;
  const auto written = metadata(error);
  if (written && model_->isCompatibleWith(*written)) return commit(error);
  if (written) setError(error, storeError(kStoreCorrupt, path_, "its metadata cannot be replaced"));
  return false;
}

/// Looks at the first row of each table: finds missing columns and a torn head before a user does.
bool SQLiteStore::probeTables(ErrorPtr* error) {
  for (const EntityDescription& entity : model_->entities()) {
    SQLiteStatement first = connection_->prepare(sql(entity).select + " LIMIT 1");
    const int result = first ? first.step() : SQLITE_ERROR;
    if (result != SQLITE_ROW && result != SQLITE_DONE) return fail(StoreOperation::read, error);
  }
  SQLiteStatement counters = connection_->prepare("SELECT COUNT(*) FROM Z_PRIMARYKEY");
  if (!counters || counters.step() != SQLITE_ROW) return fail(StoreOperation::read, error);
  if (counters.integer(0) == static_cast<std::int64_t>(model_->entities().size())) return true;
  setError(error, storeError(kStoreCorrupt, path_, "its row numbers are not those of the model"));
  return false;
}

bool SQLiteStore::isCurrent() const {
  const auto now = storeFileIdentity(path_, nullptr);
  return file_ && now && *now == *file_;
}

std::string SQLiteStore::description() const {
  return "<SQLiteStore \"" + path_ + "\" " + identifier_ + (readOnly_ ? " read-only>" : ">");
}

bool SQLiteStore::create(const ManagedObjectModelPtr& model, const std::string& path, SQLiteStore* rowsOf,
                         ErrorPtr* error) {
  NewStoreFile file(path);
  auto connection =
      SQLiteConnection::open(file.temporaryPath(), SQLiteConnection::Mode::create, "MEMORY", error);
  if (!connection) return false;
  {
    SQLiteStore store(model, std::move(connection));
    const std::lock_guard lock(store.mutex_);
    SQLiteConnection& made = *store.connection_;
    if (!made.execute("BEGIN IMMEDIATE")) return store.fail(StoreOperation::save, error);
    if (!createSchema(made, *model, error)) return false;
    if (rowsOf != nullptr && !store.copyRowsFrom(*rowsOf, error)) return false;
    for (const EntityDescription& entity : model->entities())
      if (!createIndexes(made, entity)) return store.fail(StoreOperation::save, error);
    if (!made.execute("COMMIT")) return store.fail(StoreOperation::save, error);
  }
  return file.moveIntoPlace(error);
}

/// All of them as they are at one moment: others may write to the source meanwhile.
bool SQLiteStore::copyRowsFrom(SQLiteStore& source, ErrorPtr* error) {
  const std::lock_guard lock(source.mutex_);
  if (!source.connection_->execute("BEGIN")) return source.fail(StoreOperation::read, error);
  bool copied = true;
  for (const EntityDescription& entity : model_->entities())
    copied = copied && copyRows(entity, source, error);
  source.connection_->execute("ROLLBACK");
  return copied;
}

bool SQLiteStore::copyRows(const EntityDescription& entity, SQLiteStore& source, ErrorPtr* error) {
  ErrorPtr writeError;
  bool written = true;
  std::vector<Value> values(entity.properties().size());
  const auto copy = [&](const FetchedRow& row) {
    if (!written) return;
    row.read(values);
    written = insertRow(entity, row.rowNumber(), values, &writeError);
  };
  if (!source.fetch(entity, nullptr, copy, error)) return false;
  if (!written) {
    setError(error, writeError);
    return false;
  }
  const auto last = source.lastRowNumber(entity, error);
  return last && setLastRowNumber(entity, *last, error);
}

// --- metadata

std::optional<StoreMetadata> SQLiteStore::metadata(ErrorPtr* error) {
  const std::lock_guard lock(mutex_);
  SQLiteStatement row = connection_->prepare(kMetadataSQL);
  const int result = row ? row.step() : SQLITE_ERROR;
  if (result == SQLITE_DONE) {
    setError(error, storeError(kStoreCorrupt, path_, "it has no metadata"));
    return std::nullopt;
  }
  if (result != SQLITE_ROW) {
    fail(StoreOperation::read, error);
    return std::nullopt;
  }
  const Value uuid = row.value(0, AttributeType::string);
  const Value list = row.value(1, AttributeType::binary);
  const std::string_view bytes = list.asData() != nullptr ? list.asData()->bytes() : std::string_view();
  if (metadata_ && metadataBytes_ == bytes) return metadata_;
  auto read = readMetadata(uuid.stringValue().value_or(""), bytes, path_, error);
  if (read) {
    metadata_ = read;
    metadataBytes_ = bytes;
  }
  return read;
}

std::optional<StoreMetadata> SQLiteStore::metadataAt(const std::string& path, ErrorPtr* error) {
  const auto file = storeFileIdentity(path, error);
  if (!file) return std::nullopt;
  if (const auto store = OpenStores::shared().find(*file)) return store->metadata(error);
  auto connection = SQLiteConnection::open(path, SQLiteConnection::Mode::shared, "", error);
  if (!connection) return std::nullopt;
  SQLiteStore reader(std::make_shared<const ManagedObjectModel>(), std::move(connection));
  return reader.metadata(error);
}

// --- writing

const EntitySQL& SQLiteStore::sql(const EntityDescription& entity) const {
  return sql_[static_cast<std::size_t>(entity.number()) - 1];
}

bool SQLiteStore::fail(StoreOperation operation, ErrorPtr* error) {
  setError(error, connection_->lastError(operation));
  return false;
}

bool SQLiteStore::isWriting() {
  const std::lock_guard lock(mutex_);
  return connection_->inTransaction();
}

/// A file that could only be read when it was opened may have been opened up since.
void SQLiteStore::reopenForWriting() {
  if (!Host::current().isWritable(path_) || !isCurrent()) return;
  auto connection = SQLiteConnection::open(path_, SQLiteConnection::Mode::shared, journalMode_, nullptr);
  if (connection && !connection->isReadOnly()) connection_ = std::move(connection);
}

bool SQLiteStore::isQueued() {
  const std::lock_guard lock(mutex_);
  return queued_;
}

bool SQLiteStore::beginWriting(ErrorPtr* error) {
  if (isWriting()) return true;
  if (readOnly_) {
    setError(error, storeError(SQLITE_READONLY, 0, StoreOperation::save, path_, "it was opened read-only"));
    return false;
  }
  // The queue comes before the mutex: who waits there must not keep others from reading. Its place may still
  // be ours, when SQLite took the last transaction back by itself.
  if (writersQueue_ && !isQueued()) writersQueue_->lock(kQueuePatience);
  const std::lock_guard lock(mutex_);
  queued_ = writersQueue_ != nullptr;
  if (connection_->isReadOnly()) reopenForWriting();
  SQLiteStatement begin = connection_->prepare("BEGIN IMMEDIATE");
  if (begin && begin.step() == SQLITE_DONE) return true;
  fail(StoreOperation::save, error);
  if (std::exchange(queued_, false)) writersQueue_->unlock();
  return false;
}

bool SQLiteStore::commit(ErrorPtr* error) {
  const std::lock_guard lock(mutex_);
  {
    SQLiteStatement commit = connection_->prepare("COMMIT");
    if (!commit || commit.step() != SQLITE_DONE) return fail(StoreOperation::save, error);
  }
  if (std::exchange(queued_, false)) writersQueue_->unlock();
  return true;
}

void SQLiteStore::rollback() {
  const std::lock_guard lock(mutex_);
  if (connection_->inTransaction()) connection_->execute("ROLLBACK");
  if (std::exchange(queued_, false)) writersQueue_->unlock();
}

std::optional<std::int64_t> SQLiteStore::lastRowNumber(const EntityDescription& entity, ErrorPtr* error) {
  const std::lock_guard lock(mutex_);
  SQLiteStatement counter = connection_->prepare(sql(entity).lastRow);
  if (counter) counter.bind(1, std::int64_t{entity.number()});
  const int result = counter ? counter.step() : SQLITE_ERROR;
  if (result == SQLITE_ROW) return counter.integer(0);
  if (result == SQLITE_DONE)
    setError(error, storeError(kStoreCorrupt, path_, "it has no row numbers for " + entity.name()));
  else
    fail(StoreOperation::save, error);
  return std::nullopt;
}

bool SQLiteStore::setLastRowNumber(const EntityDescription& entity, std::int64_t last, ErrorPtr* error) {
  const std::lock_guard lock(mutex_);
  SQLiteStatement update = connection_->prepare("UPDATE Z_PRIMARYKEY SET Z_MAX = ? WHERE Z_ENT = ?");
  if (update) {
    update.bind(1, last);
    update.bind(2, std::int64_t{entity.number()});
    if (update.step() == SQLITE_DONE) return true;
  }
  return fail(StoreOperation::save, error);
}

std::optional<std::int64_t> SQLiteStore::reserveRowNumbers(const EntityDescription& entity,
                                                           std::int64_t count, ErrorPtr* error) {
  const std::lock_guard lock(mutex_);
  const auto last = lastRowNumber(entity, error);
  if (!last) return std::nullopt;
  if (*last > std::numeric_limits<std::int64_t>::max() - count) {
    setError(error, storeError(kStoreCorrupt, path_, "it has no row numbers left for " + entity.name()));
    return std::nullopt;
  }
  if (!setLastRowNumber(entity, *last + count, error)) return std::nullopt;
  return *last + count;
}

bool SQLiteStore::insertRow(const EntityDescription& entity, std::int64_t row,
                            const std::vector<Value>& values, ErrorPtr* error) {
  const std::lock_guard lock(mutex_);
  SQLiteStatement statement = connection_->prepare(sql(entity).insert);
  if (!statement) return fail(StoreOperation::save, error);
  statement.bind(1, row);
  int parameter = 2;
  for (std::size_t i = 0; i < values.size(); ++i)
    if (!entity.properties()[i].column.empty()) statement.bind(parameter++, values[i]);
  return statement.step() == SQLITE_DONE || fail(StoreOperation::save, error);
}

bool SQLiteStore::updateRow(const EntityDescription& entity, std::int64_t row, std::uint64_t changed,
                            const std::vector<Value>& values, ErrorPtr* error) {
  std::string text = "UPDATE " + entity.table() + " SET Z_OPT = Z_OPT + 1";
  const auto isWritten = [&](std::size_t i) {
    return ((changed >> i) & 1U) != 0 && !entity.properties()[i].column.empty();
  };
  for (std::size_t i = 0; i < values.size(); ++i)
    if (isWritten(i)) text += ", " + entity.properties()[i].column + " = ?";
  text += " WHERE Z_PK = ?";
  const std::lock_guard lock(mutex_);
  {
    SQLiteStatement statement = connection_->prepare(text);
    if (!statement) return fail(StoreOperation::save, error);
    int parameter = 1;
    for (std::size_t i = 0; i < values.size(); ++i)
      if (isWritten(i)) statement.bind(parameter++, values[i]);
    statement.bind(parameter, row);
    if (statement.step() != SQLITE_DONE) return fail(StoreOperation::save, error);
  }
  return connection_->changes() != 0 || insertRow(entity, row, values, error);
}

bool SQLiteStore::deleteRow(const EntityDescription& entity, std::int64_t row, ErrorPtr* error) {
  const std::lock_guard lock(mutex_);
  SQLiteStatement statement = connection_->prepare(sql(entity).remove);
  if (!statement) return fail(StoreOperation::save, error);
  statement.bind(1, row);
  return statement.step() == SQLITE_DONE || fail(StoreOperation::save, error);
}

}  // namespace qx
