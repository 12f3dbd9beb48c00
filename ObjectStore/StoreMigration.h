#pragma once

#include <QXEventStoring/Platform/Error.h>

#include "ObjectStore/ManagedObjectModel.h"
#include "ObjectStore/SQLiteConnection.h"

namespace qx {

// Bringing a store up to the present version of its model by a mapping that the two versions give by
// themselves: entities go by name, attributes and to-one relationships by name and type. Added entities start
// empty, added attributes with their default (null without one); what the present version lacks is dropped.

/// The one of `versions` that the store at `path` with that metadata was made for, when a mapping from it to
/// `present` can be inferred. Otherwise null, with *error: 134100 when the version is unknown or of another
/// kind, or why the versions cannot be read, which says nothing of the store.
ManagedObjectModelPtr earlierVersion(const ManagedObjectModel& present, const ModelVersions& versions,
                                     const StoreMetadata& metadata, const std::string& path, ErrorPtr* error);
/// What a store that was made for another version than asked for is refused with (134100); `why`: ", and
/// ...".
ErrorPtr anotherModel(const std::string& path, const std::string& why);

/// Rewrites a store of `earlier`, whose metadata is `metadata`, as one of `present`, in a write transaction
/// of the caller's, who rolls back when it fails. Row numbers, values and the store's UUID stay. The model's
/// tables, Z_PRIMARYKEY and Z_METADATA, with their columns and indexes, are those of a file that is made new;
/// other tables stay as they are. 259 when the file is not what its metadata says it is, or would take more
/// room or work than a file of its size does.
bool migrateStore(SQLiteConnection& connection, const ManagedObjectModel& earlier,
                  const ManagedObjectModel& present, const StoreMetadata& metadata, ErrorPtr* error);

}  // namespace qx
