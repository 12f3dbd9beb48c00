// How a store is brought up to date, all in one transaction:
//
// 1. The last row number of each entity is noted.
// 2. Tables of entities that are gone are dropped, and Z_PRIMARYKEY is emptied: entities are numbered by
//    their names, so one that is added renumbers others.
// 3. Each entity's table is put aside under another name, made anew, filled from the old one by SQL, and the
//    old one dropped; then come its indexes and its row of Z_PRIMARYKEY.
// 4. Z_METADATA names the present model.
//
// Tables are made anew, not altered: the old file is anyone's work, and what its columns were declared to be
// or check does not get into the new one. What would make the copy much larger than the file is refused:
// computed columns, and rows that share their pages.
#include "ObjectStore/StoreMigration.h"

#include <sqlite3.h>

#include <algorithm>
#include <map>

#include "ObjectStore/SQLiteRows.h"
#include "ObjectStore/SQLiteSchema.h"
#include "Platform/Host.h"
#include "Platform/PropertyList.h"

namespace qx {

namespace {

using Kind = PropertyDescription::Kind;

// Small rows grow by their new columns and indexes; a sound file never gets near these.
constexpr std::int64_t kMostGrowth = 8;
constexpr std::int64_t kSparePages = 1000;
constexpr std::int64_t kNoPageLimit = 4294967294;  // SQLite's own
constexpr std::uint64_t kFullBelowBytes = 1'000'000;

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

class Migration {
 public:
  Migration(SQLiteConnection& connection, const ManagedObjectModel& earlier,
            const ManagedObjectModel& present)
      : connection_(connection), earlier_(earlier), present_(present) {}

  bool run(const StoreMetadata& metadata) {
    if (!limitGrowth()) return fail();
    const bool migrated = migrateAll(metadata);
    setPageLimit(kNoPageLimit);
    return migrated;
  }

  const ErrorPtr& problem() const { return problem_; }

 private:
  bool setPageLimit(std::int64_t pages) {
    return connection_.execute("PRAGMA max_page_count = " + std::to_string(pages));
  }

  bool limitGrowth() {
    std::int64_t pages = 0;
    {
      SQLiteStatement count = connection_.prepare("PRAGMA page_count");
      if (!count || count.step() != SQLITE_ROW) return false;
      pages = count.integer(0);
    }
    return setPageLimit(std::min(kNoPageLimit, pages * kMostGrowth + kSparePages));
  }

  bool migrateAll(const StoreMetadata& metadata) {
    for (const EntityDescription& entity : earlier_.entities())
      if (!noteRowNumbers(entity) || !checkColumns(entity)) return false;
    for (const EntityDescription& entity : earlier_.entities())
      if (present_.entity(entity.name()) == nullptr && !connection_.execute("DROP TABLE " + entity.table()))
        return fail();
    if (!connection_.execute("DELETE FROM Z_PRIMARYKEY")) return fail();
    for (const EntityDescription& entity : present_.entities())
      if (!migrate(entity)) return false;
    return writeMetadata(metadata);
  }

  bool checkColumns(const EntityDescription& entity) {
    const Value table(entity.table());
    SQLiteStatement computed =
        connection_.prepare("SELECT name FROM pragma_table_xinfo(?) WHERE hidden <> 0 LIMIT 1");
    if (computed) computed.bind(1, table);
    const int result = computed ? computed.step() : SQLITE_ERROR;
    if (result == SQLITE_DONE) return true;
    if (result != SQLITE_ROW) return fail();
    return failAsCorrupt("a column of " + entity.table() + " is computed");
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

  bool writeMetadata(const StoreMetadata& metadata) {
    Dictionary values = metadata.values;
    describeModel(present_, values);
    const auto bytes = writeBinaryPropertyList(values);
    if (!bytes) return failAsCorrupt("its metadata cannot be written");
    const Value list{Data(*bytes)};
    SQLiteStatement update = connection_.prepare(
        "UPDATE Z_METADATA SET Z_PLIST = ? WHERE Z_VERSION = (SELECT MIN(Z_VERSION) FROM Z_METADATA)");
    if (update) update.bind(1, list);
    return (update && update.step() == SQLITE_DONE) || fail();
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
      case SQLITE_FULL:
        if (!isDiskFull() && !isSound()) failAsCorrupt("its rows share their pages");
        return false;
      default:
        return false;
    }
  }

  bool isDiskFull() const {
    return Host::current().freeSize(connection_.path()).value_or(0) < kFullBelowBytes;
  }

  bool isSound() {
    connection_.execute("ROLLBACK");
    SQLiteStatement check = connection_.prepare("PRAGMA quick_check(1)");
    return check && check.step() == SQLITE_ROW && check.value(0, AttributeType::string) == Value("ok");
  }

  bool failAsCorrupt(const std::string& words) {
    problem_ = storeError(kStoreCorrupt, connection_.path(), words);
    return false;
  }

  SQLiteConnection& connection_;
  const ManagedObjectModel& earlier_;
  const ManagedObjectModel& present_;
  std::map<std::string, std::int64_t> lastRows_;  // by entity
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
