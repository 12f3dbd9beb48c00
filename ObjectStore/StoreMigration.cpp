// How a store is brought up to date, all in one transaction:
//
// 1. The last row number of each entity is noted.
// 2. Tables of entities that are gone are dropped.
// 3. The bookkeeping tables are dropped and made anew, Z_METADATA with the present model.
// 4. Each entity's table is put aside under another name, made anew, filled from the old one by SQL, and the
//    old one dropped; then come its indexes and its row of Z_PRIMARYKEY.
//
// Tables are made anew, not altered: the old file is anyone's work, and what its columns were declared to be
// or check does not get into the new one; nor is anything written to a table of the old file, which would
// compute the indexes that somebody put over it. What would make the copy much larger than the file, or the
// work endless, is refused: computed columns, tables that are not in the order of their row numbers, and what
// goes past the bounds below.
#include "ObjectStore/StoreMigration.h"

#include <sqlite3.h>

#include <algorithm>
#include <map>

#include "ObjectStore/GuardedVFS.h"
#include "ObjectStore/SQLiteRows.h"
#include "ObjectStore/SQLiteSchema.h"

namespace qx {

namespace {

using Kind = PropertyDescription::Kind;

// Small rows grow by their new columns and indexes; a sound file never gets near these.
constexpr std::int64_t kMostGrowth = 8;
constexpr std::int64_t kSparePages = 1000;
constexpr std::int64_t kNoPageLimit = 4294967294;  // SQLite's own
// Steps of SQLite's virtual machine: 58 for an event, so 1,400 for a page of the file as it comes, and 6,800
// for one of events that hold nothing but their numbers.
constexpr std::int64_t kSpareSteps = 10'000'000;
constexpr std::int64_t kStepsPerPage = 150'000;
constexpr int kStepsBetweenLooks = 10'000;

const PropertyDescription* propertyOf(const EntityDescription& entity, std::string_view name) {
  const auto index = entity.indexOf(name);
  return index ? &entity.properties()[*index] : nullptr;
}

bool isSameKind(const PropertyDescription& one, const PropertyDescription& other) {
  if (one.kind != other.kind) return false;
  return one.kind == Kind::attribute ? one.type == other.type : one.destination == other.destination;
}

/// What keeps a mapping from being inferred; nothing when one can.
String mappingProblem(const ManagedObjectModel& earlier, const ManagedObjectModel& present) {
  for (const EntityDescription& entity : present.entities()) {
    const EntityDescription* const before = earlier.entity(entity.name());
    if (before == nullptr) continue;
    for (const PropertyDescription& property : entity.properties()) {
      const PropertyDescription* const former = propertyOf(*before, property.name);
      if (former != nullptr && !isSameKind(*former, property))
        return entity.name() + "." + property.name + " was of another type";
    }
  }
  return std::nullopt;
}

/// Ends the statements of a connection with SQLITE_INTERRUPT, while it lives, once they have taken that many
/// steps together.
class WorkLimit {
 public:
  WorkLimit(SQLiteConnection& connection, std::int64_t steps)
      : connection_(connection), looksLeft_(steps / kStepsBetweenLooks) {
    connection_.watchProgress(kStepsBetweenLooks, [this] { return looksLeft_-- > 0; });
  }
  WorkLimit(const WorkLimit&) = delete;
  WorkLimit& operator=(const WorkLimit&) = delete;
  ~WorkLimit() { connection_.watchProgress(0, nullptr); }

 private:
  SQLiteConnection& connection_;
  std::int64_t looksLeft_;
};

class Migration {
 public:
  Migration(SQLiteConnection& connection, const ManagedObjectModel& earlier,
            const ManagedObjectModel& present)
      : connection_(connection), earlier_(earlier), present_(present) {}

  bool run(const StoreMetadata& metadata) {
    const auto pages = pageCount();
    if (!pages || !setPageLimit(std::min(kNoPageLimit, *pages * kMostGrowth + kSparePages))) return fail();
    const WorkLimit limit(connection_, kSpareSteps + *pages * kStepsPerPage);
    const bool migrated = migrateAll(metadata);
    setPageLimit(kNoPageLimit);
    return migrated;
  }

  const ErrorPtr& problem() const { return problem_; }

 private:
  bool setPageLimit(std::int64_t pages) {
    return connection_.execute("PRAGMA max_page_count = " + std::to_string(pages));
  }

  std::optional<std::int64_t> pageCount() {
    SQLiteStatement count = connection_.prepare("PRAGMA page_count");
    if (!count || count.step() != SQLITE_ROW) return std::nullopt;
    return count.integer(0);
  }

  bool migrateAll(const StoreMetadata& metadata) {
    for (const std::string table : {"Z_PRIMARYKEY", "Z_METADATA"})
      if (!checkColumns(table)) return false;
    for (const EntityDescription& entity : earlier_.entities())
      if (!checkTable(entity.table()) || !noteRowNumbers(entity)) return false;
    for (const EntityDescription& entity : earlier_.entities())
      if (present_.entity(entity.name()) == nullptr && !connection_.execute("DROP TABLE " + entity.table()))
        return fail();
    if (!renewBookkeeping(metadata)) return fail();
    for (const EntityDescription& entity : present_.entities())
      if (!migrate(entity)) return false;
    return true;
  }

  /// Whether `sql` gives no row for a table's name: 259 with `words` otherwise.
  bool hasNone(const std::string& sql, const std::string& table, const std::string& words) {
    const Value name(table);
    SQLiteStatement problems = connection_.prepare(sql);
    if (problems) problems.bind(1, name);
    const int result = problems ? problems.step() : SQLITE_ERROR;
    if (result == SQLITE_DONE) return true;
    return result == SQLITE_ROW ? failAsCorrupt(words) : fail();
  }

  bool checkColumns(const std::string& table) {
    return hasNone("SELECT 1 FROM pragma_table_xinfo(?) WHERE hidden <> 0 LIMIT 1", table,
                   "a column of " + table + " is computed");
  }

  /// A primary key that is not the row's own number in SQLite has an index of its own.
  bool checkTable(const std::string& table) {
    return checkColumns(table) &&
           hasNone(
               "SELECT 1 WHERE NOT EXISTS (SELECT 1 FROM pragma_table_info(?1) WHERE UPPER(name) = "
               "'Z_PK' AND pk = 1) OR EXISTS (SELECT 1 FROM pragma_index_list(?1) WHERE origin = 'pk')",
               table, "the rows of " + table + " do not go by their numbers");
  }

  bool noteRowNumbers(const EntityDescription& entity) {
    SQLiteStatement counter = connection_.prepare(EntitySQL(entity, earlier_).lastRow);
    if (counter) counter.bind(1, std::int64_t{entity.number()});
    const int result = counter ? counter.step() : SQLITE_ERROR;
    if (result == SQLITE_DONE) return failAsCorrupt("it has no row numbers for " + entity.name());
    if (result != SQLITE_ROW) return fail();
    lastRows_[entity.name()] = counter.integer(0);
    return true;
  }

  bool renewBookkeeping(const StoreMetadata& metadata) {
    StoreMetadata present = metadata;
    describeModel(present_, present.values);
    return connection_.execute("DROP TABLE Z_PRIMARYKEY") && connection_.execute("DROP TABLE Z_METADATA") &&
           createBookkeeping(connection_) && addMetadata(connection_, present);
  }

  bool migrate(const EntityDescription& entity) {
    const EntityDescription* const before = earlier_.entity(entity.name());
    if (before == nullptr) {
      return (createTable(connection_, entity) && createIndexes(connection_, entity) &&
              addRowNumbers(connection_, entity, 0)) ||
             fail();
    }
    const std::string aside = "Z_EARLIER_" + entity.name();
    return (connection_.execute("ALTER TABLE " + entity.table() + " RENAME TO " + aside) &&
            createTable(connection_, entity) && copyRows(*before, aside, entity) &&
            connection_.execute("DROP TABLE " + aside) && createIndexes(connection_, entity) &&
            addRowNumbers(connection_, entity, lastRows_[entity.name()])) ||
           fail();
  }

  /// Values go over as they are. Rows that no store hands out numbers for stand for no object.
  bool copyRows(const EntityDescription& before, const std::string& from, const EntityDescription& entity) {
    std::vector<const Value*> defaults;
    std::string sources = "Z_PK, " + std::to_string(entity.number()) + ", Z_OPT";
    for (const PropertyDescription& property : entity.properties()) {
      if (property.column.empty()) continue;
      const bool isThere = propertyOf(before, property.name) != nullptr;
      sources += isThere ? ", " + property.column : ", ?";
      if (!isThere) defaults.push_back(&property.defaultValue);
    }
    std::string columns = columnList(entity, "");
    if (!columns.empty()) columns.insert(0, ", ");
    SQLiteStatement copy =
        connection_.prepare("INSERT INTO " + entity.table() + " (Z_PK, Z_ENT, Z_OPT" + columns + ") SELECT " +
                            sources + " FROM " + from + " WHERE Z_PK > 0");
    if (!copy) return false;
    int parameter = 1;
    for (const Value* const value : defaults)
      copy.bind(parameter++, *value);
    return copy.step() == SQLITE_DONE;
  }

  /// Our statements are right for the file that the metadata speaks of: what they cannot do, or what
  /// contradicts itself, tells that the file is another.
  bool fail() {
    problem_ = connection_.lastError(StoreOperation::save);
    if (problem_->domain() != kSQLiteErrorDomain) return false;
    switch (problem_->code() & 0xff) {
      case SQLITE_ERROR:
      case SQLITE_CONSTRAINT:
      case SQLITE_MISMATCH:
      case SQLITE_TOOBIG:
        return failAsCorrupt("it is not what its metadata says: " + problem_->localizedDescription());
      case SQLITE_INTERRUPT:  // nobody else interrupts
        return failAsCorrupt("to bring it up to date takes far more work than its size tells");
      case SQLITE_FULL:
        if (writesWithoutRoom() == writesWithoutRoom_)
          failAsCorrupt("brought up to date it would be far larger than it is");
        return false;
      default:
        return false;
    }
  }

  bool failAsCorrupt(const std::string& words) {
    problem_ = storeError(kStoreCorrupt, connection_.path(), words);
    return false;
  }

  SQLiteConnection& connection_;
  const ManagedObjectModel& earlier_;
  const ManagedObjectModel& present_;
  std::map<std::string, std::int64_t> lastRows_;  // by entity
  const std::uint64_t writesWithoutRoom_ = writesWithoutRoom();
  ErrorPtr problem_;
};

}  // namespace

ErrorPtr anotherModel(const std::string& path, const std::string& why) {
  return storeError(kStoreOfAnotherModel, path, "it was made for another version of the model" + why);
}

ManagedObjectModelPtr earlierVersion(const ManagedObjectModel& present, const ModelVersions& versions,
                                     const StoreMetadata& metadata, const std::string& path,
                                     ErrorPtr* error) {
  std::vector<ManagedObjectModelPtr> known;
  if (versions) {
    auto all = versions(error);
    if (!all) return nullptr;
    known = std::move(*all);
  }
  for (const auto& version : known) {
    if (!version->isCompatibleWith(metadata)) continue;
    const String obstacle = mappingProblem(*version, present);
    if (!obstacle) return version;
    setError(error, anotherModel(path, ", and " + *obstacle));
    return nullptr;
  }
  setError(error, anotherModel(path, ""));
  return nullptr;
}

bool migrateStore(SQLiteConnection& connection, const ManagedObjectModel& earlier,
                  const ManagedObjectModel& present, const StoreMetadata& metadata, ErrorPtr* error) {
  Migration migration(connection, earlier, present);
  if (migration.run(metadata)) return true;
  setError(error, migration.problem());
  return false;
}

}  // namespace qx
