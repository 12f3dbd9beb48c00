#pragma once

#include <memory>
#include <string>
#include <vector>

#include <QXEventStoring/Platform/Predicate.h>
#include <QXEventStoring/Platform/Value.h>

#include "ObjectStore/ManagedObjectModel.h"

struct sqlite3;
struct sqlite3_value;

namespace qx {

/// A condition on a row that SQL leaves to the evaluator of predicates: `qx_matches(?, column, ...)`. It is
/// bound to the call's first parameter and sees the columns as the objects of the row do.
///
/// Immutable; any thread. It must live as long as it is bound.
class RowCondition {
 public:
  static constexpr const char* kFunction = "qx_matches";
  static constexpr const char* kPointerType = "qx.RowCondition";

  /// The error of a query that asks for what cannot be decided in bounded time.
  static constexpr const char* kUndecided = "a regular expression takes too long on one of its values";

  /// A key of the predicate, and what its column holds.
  struct Key {
    std::vector<std::string> path;
    AttributeType type;
    bool isObject = false;  // the row number of an object of its own
  };

  /// Whether `predicate`, which must outlive it, is true; the columns are those of `keys`.
  static std::shared_ptr<const RowCondition> evaluation(const Predicate& predicate, std::vector<Key> keys);
  /// Whether the one column, of that type, is a member of `list`: for long lists.
  static std::shared_ptr<const RowCondition> membership(const Array& list, AttributeType type,
                                                        Predicate::Options options);

  virtual ~RowCondition() = default;
  virtual bool holds(sqlite3_value* const* columns) const = 0;
};

/// Makes the function known to the connection: for its own statements, and for nothing in the file.
bool registerPredicateFunction(sqlite3* handle);

}  // namespace qx
