#include "ObjectStore/SQLiteSchema.h"

#include <sqlite3.h>

#include "Platform/PropertyList.h"
#include "Platform/UUID.h"

namespace qx {

namespace {

// Values that the published layout gives these keys.
constexpr std::int64_t kVersionHashesVersion = 3;
constexpr std::int64_t kMetadataVersion = 1;

const char* columnType(const PropertyDescription& property) {
  if (property.kind != PropertyDescription::Kind::attribute) return "INTEGER";
  switch (property.type) {
    case AttributeType::string:
      return "VARCHAR";
    case AttributeType::integer:
    case AttributeType::boolean:
      return "INTEGER";
    case AttributeType::date:
      return "TIMESTAMP";
    case AttributeType::binary:
      return "BLOB";
  }
  return "BLOB";
}

StoreMetadata freshMetadata(const ManagedObjectModel& model) {
  StoreMetadata metadata{makeUUID(), {}};
  metadata.values.set(std::string(kStoreTypeKey), std::string("SQLite"));
  metadata.values.set(std::string(kStoreUUIDKey), metadata.uuid);
  describeModel(model, metadata.values);
  return metadata;
}

}  // namespace

bool createSchema(SQLiteConnection& connection, const ManagedObjectModel& model, ErrorPtr* error) {
  bool good = createBookkeeping(connection);
  for (const EntityDescription& entity : model.entities())
    good = good && createTable(connection, entity) && addRowNumbers(connection, entity, 0);
  good = good && addMetadata(connection, freshMetadata(model));
  if (!good) setError(error, connection.lastError(StoreOperation::save));
  return good;
}

bool createBookkeeping(SQLiteConnection& connection) {
  return connection.execute(
             "CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, "
             "Z_MAX INTEGER)") &&
         connection.execute(
             "CREATE TABLE Z_METADATA (Z_VERSION INTEGER PRIMARY KEY, Z_UUID VARCHAR(255), Z_PLIST BLOB)");
}

bool createTable(SQLiteConnection& connection, const EntityDescription& entity) {
  std::string sql =
      "CREATE TABLE " + entity.table() + " ( Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER";
  for (const PropertyDescription& property : entity.properties())
    if (!property.column.empty()) sql += ", " + property.column + " " + columnType(property);
  return connection.execute(sql + " )");
}

bool createIndexes(SQLiteConnection& connection, const EntityDescription& entity) {
  for (const auto& index : entity.indexes()) {
    std::string name = "Z_" + entity.name();
    std::string columns;
    for (const std::string& key : index) {
      name.append("_").append(key);
      columns.append(columns.empty() ? "" : ", ").append(entity.properties()[*entity.indexOf(key)].column);
    }
    std::string sql = "CREATE INDEX ";
    sql.append(name).append(" ON ").append(entity.table()).append(" (").append(columns).append(")");
    if (!connection.execute(sql)) return false;
  }
  return true;
}

bool addRowNumbers(SQLiteConnection& connection, const EntityDescription& entity, std::int64_t last) {
  const Value name(entity.name());
  SQLiteStatement row =
      connection.prepare("INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (?, ?, 0, ?)");
  if (!row) return false;
  row.bind(1, std::int64_t{entity.number()});
  row.bind(2, name);
  row.bind(3, last);
  return row.step() == SQLITE_DONE;
}

bool addMetadata(SQLiteConnection& connection, const StoreMetadata& metadata) {
  const auto bytes = writeBinaryPropertyList(metadata.values);
  SQLiteStatement row =
      connection.prepare("INSERT INTO Z_METADATA (Z_VERSION, Z_UUID, Z_PLIST) VALUES (?, ?, ?)");
  if (!bytes || !row) return false;
  const Value uuid(metadata.uuid);
  const Value list{Data(*bytes)};
  row.bind(1, kMetadataVersion);
  row.bind(2, uuid);
  row.bind(3, list);
  return row.step() == SQLITE_DONE;
}

void describeModel(const ManagedObjectModel& model, Dictionary& metadata) {
  metadata.set(std::string(kStoreModelVersionHashesKey), model.versionHashes());
  metadata.set("NSStoreModelVersionHashesVersion", kVersionHashesVersion);
  metadata.set("NSStoreModelVersionIdentifiers",
               model.version().empty() ? Array() : Array{Value(model.version())});
}

bool checkSchema(SQLiteConnection& connection, ErrorPtr* error) {
  // What a row of the schema says of itself is only text; the list of tables tells what SQLite made of it.
  SQLiteStatement rows = connection.prepare(
      "SELECT type, name FROM pragma_table_list WHERE schema = 'main' AND type <> 'table' "
      "UNION ALL SELECT type, name FROM sqlite_master WHERE type NOT IN ('table', 'index') LIMIT 1");
  const int result = rows ? rows.step() : SQLITE_ERROR;
  if (result == SQLITE_DONE) return true;
  if (result == SQLITE_ROW) {
    const String type = rows.value(0, AttributeType::string).stringValue();
    const String name = rows.value(1, AttributeType::string).stringValue();
    setError(error, storeError(kStoreCorrupt, connection.path(),
                               "the unexpected " + type.value_or("object") + " \"" + name.value_or("") +
                                   "\" stands in it"));
    return false;
  }
  setError(error, connection.lastError(StoreOperation::read));
  return false;
}

std::string columnList(const EntityDescription& entity, const std::string& prefix) {
  std::string result;
  for (const PropertyDescription& property : entity.properties())
    if (!property.column.empty()) result += (result.empty() ? "" : ", ") + prefix + property.column;
  return result;
}

}  // namespace qx
