#pragma once

#include <string>

#include "ObjectStore/ManagedObjectModel.h"
#include "ObjectStore/SQLiteConnection.h"

namespace qx {

/// Makes the tables of `model` in an empty file, and its Z_METADATA row with a fresh UUID. Indexes come with
/// createIndexes(): at the end, when there are rows to write. In a transaction of the caller's.
bool createSchema(SQLiteConnection& connection, const ManagedObjectModel& model, ErrorPtr* error);

// The parts of it. In a transaction of the caller's; false when SQLite fails: see the connection's error.
/// Z_PRIMARYKEY and Z_METADATA, without rows.
bool createBookkeeping(SQLiteConnection& connection);
bool createTable(SQLiteConnection& connection, const EntityDescription& entity);
bool createIndexes(SQLiteConnection& connection, const EntityDescription& entity);
/// The entity's row of Z_PRIMARYKEY; `last` is the last row number that was handed out.
bool addRowNumbers(SQLiteConnection& connection, const EntityDescription& entity, std::int64_t last);
/// The row of Z_METADATA.
bool addMetadata(SQLiteConnection& connection, const StoreMetadata& metadata);
/// Writes into `metadata` which model the store is made for.
void describeModel(const ManagedObjectModel& model, Dictionary& metadata);

/// Refuses (259, naming what) a file whose schema holds more than tables and indexes: a trigger, a view or
/// a virtual table has no business in a store.
bool checkSchema(SQLiteConnection& connection, ErrorPtr* error);

/// "ZA, ZB" with `prefix` before each: the columns of the entity's properties, in their order.
std::string columnList(const EntityDescription& entity, const std::string& prefix);

}  // namespace qx
