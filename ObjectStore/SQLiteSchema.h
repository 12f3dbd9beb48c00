#pragma once

#include <string>

#include "ObjectStore/ManagedObjectModel.h"
#include "ObjectStore/SQLiteConnection.h"

namespace qx {

/// Makes the tables and indexes of `model` in an empty file, and its Z_METADATA row with a fresh UUID. In
/// a transaction of the caller's.
bool createSchema(SQLiteConnection& connection, const ManagedObjectModel& model, ErrorPtr* error);

/// Refuses (259, naming what) a file whose schema holds more than tables and indexes: a trigger, a view or
/// a virtual table has no business in a store.
bool checkSchema(SQLiteConnection& connection, ErrorPtr* error);

/// "ZA, ZB" with `prefix` before each: the columns of the entity's properties, in their order.
std::string columnList(const EntityDescription& entity, const std::string& prefix);

}  // namespace qx
