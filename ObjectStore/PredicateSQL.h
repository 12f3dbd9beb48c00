#pragma once

#include <optional>
#include <string>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Predicate.h>
#include <QXEventStoring/Platform/Value.h>

#include "ObjectStore/ManagedObjectModel.h"
#include "ObjectStore/SQLiteConnection.h"

namespace qx {

/// A predicate as the condition of a WHERE clause. It must not outlive the predicate.
struct PredicateSQL {
  std::string condition;
  std::vector<SQLiteParameter> parameters;  // in order; constants never become text
  std::vector<std::size_t> relationships;   // properties of the entity whose tables it speaks of

  /// Compiles `predicate` for rows of `entity`, so that SQL selects exactly the objects for which
  /// Predicate::evaluate() is true, missing values included. Table t0 is the entity's; the table behind
  /// its property p is t<p + 1>. Empty, with *error (134060, naming the key), for a key that the entity
  /// does not have, for SELF, for a to-many relationship and for a to-one relationship that is not compared
  /// with nil.
  ///
  /// Plain comparisons of keys become plain SQL, which can use an index; all others a call of RowCondition.
  static std::optional<PredicateSQL> compile(const Predicate& predicate, const EntityDescription& entity,
                                             const ManagedObjectModel& model, ErrorPtr* error);
};

/// Name of the table behind property `property` in such a statement: "t3".
std::string relationshipAlias(std::size_t property);

}  // namespace qx
