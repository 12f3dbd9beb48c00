// Queries: a predicate becomes a condition of one statement, whose rows are handed out one by one.
#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <unordered_set>
#include <utility>

#include "ObjectStore/PredicateSQL.h"
#include "ObjectStore/SQLiteErrors.h"
#include "ObjectStore/SQLiteStore.h"

namespace qx {

namespace {

/// For rows that come in the order of their numbers: whether this one was not there yet.
auto rising() {
  return [last = std::numeric_limits<std::int64_t>::min()](std::int64_t row) mutable {
    return std::exchange(last, row) < row;
  };
}

/// For rows that come in any order: whether this one was not there yet. Remembers single rows only from
/// the first on that is not in the order of the numbers.
class Distinct {
 public:
  bool operator()(std::int64_t row) {
    if (seen_.empty() && row > (inOrder_.empty() ? kLowest : inOrder_.back())) {
      inOrder_.push_back(row);
      return true;
    }
    if (seen_.empty()) seen_.insert(inOrder_.begin(), inOrder_.end());
    return seen_.insert(row).second;
  }

 private:
  static constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  std::vector<std::int64_t> inOrder_;
  std::unordered_set<std::int64_t> seen_;
};

}  // namespace

std::string SQLiteStore::joins(const EntityDescription& entity, const PredicateSQL& selection) const {
  std::string text;
  for (const std::size_t property : selection.relationships) {
    const PropertyDescription& relationship = entity.properties()[property];
    text +=
        EntitySQL::join(*model_->entity(relationship.destination), relationshipAlias(property), relationship);
  }
  return text;
}

bool SQLiteStore::fetch(const EntityDescription& entity, const Predicate* predicate,
                        const RowHandler& handler, ErrorPtr* error) {
  if (predicate == nullptr)
    return runFetch(entity, sql(entity).select + " ORDER BY t0.Z_PK", {}, rising(), handler, error);
  const auto compiled = PredicateSQL::compile(*predicate, entity, *model_, error);
  if (!compiled) return false;
  // Without an order: for one SQLite would rather go through all rows than use an index over a range.
  return runFetch(entity, sql(entity).select + " WHERE " + compiled->condition, compiled->parameters,
                  Distinct(), handler, error);
}

bool SQLiteStore::fetchRow(const EntityDescription& entity, std::int64_t row, const RowHandler& handler,
                           ErrorPtr* error) {
  return runFetch(entity, sql(entity).select + " WHERE t0.Z_PK = ?", {Value(row)}, rising(), handler, error);
}

bool SQLiteStore::runFetch(const EntityDescription& entity, std::string_view sql,
                           const std::vector<SQLiteParameter>& parameters, const RowCheck& isNew,
                           const RowHandler& handler, ErrorPtr* error) {
  const std::lock_guard lock(mutex_);
  SQLiteStatement statement = connection_->prepare(sql);
  if (!statement) return fail(StoreOperation::read, error);
  statement.bind(parameters);
  const FetchedRow row(statement, entity, this->sql(entity).parts);
  int result = statement.step();
  for (; result == SQLITE_ROW; result = statement.step()) {
    // Pages of a crafted file may lead to each other, and to the same rows without end.
    if (!isNew(row.rowNumber())) {
      setError(error, storeError(kStoreCorrupt, path_, "rows of " + entity.name() + " come more than once"));
      return false;
    }
    if (row.rowNumber() > 0) handler(row);  // rows that we never write stand for no object
  }
  return result == SQLITE_DONE || fail(StoreOperation::read, error);
}

bool SQLiteStore::fetchLargest(const EntityDescription& entity, const Predicate* predicate,
                               std::size_t property, std::uint64_t most, const RowHandler& handler,
                               ErrorPtr* error) {
  PredicateSQL selection{.condition = "1", .parameters = {}, .relationships = {}};
  if (predicate != nullptr) {
    auto compiled = PredicateSQL::compile(*predicate, entity, *model_, error);
    if (!compiled) return false;
    selection = std::move(*compiled);
  }
  const Value limit(std::min<std::uint64_t>(most, std::numeric_limits<std::int64_t>::max()));
  selection.parameters.push_back(limit);
  return runFetch(entity,
                  sql(entity).select + " WHERE " + selection.condition + " ORDER BY t0." +
                      entity.properties()[property].column + " DESC, t0.Z_PK DESC LIMIT ?",
                  selection.parameters, Distinct(), handler, error);
}

std::optional<std::vector<std::string>> SQLiteStore::distinctStrings(const EntityDescription& entity,
                                                                     std::size_t property,
                                                                     const Predicate* predicate,
                                                                     ErrorPtr* error) {
  const std::string& column = entity.properties()[property].column;
  const std::string from = " FROM " + entity.table() + " AS t0";
  PredicateSQL selection{.condition = "1", .parameters = {}, .relationships = {}};
  if (predicate != nullptr) {
    auto compiled = PredicateSQL::compile(*predicate, entity, *model_, error);
    if (!compiled) return std::nullopt;
    selection = std::move(*compiled);
  }
  // From each value one step in the index to the next, and for each the first row that counts. UNION, which
  // never gives a value twice, ends the walk where the pages of a crafted index lead in a circle.
  const std::string text = "WITH RECURSIVE step(v) AS (SELECT MIN(t0." + column + ")" + from +
                           " UNION SELECT (SELECT MIN(t0." + column + ")" + from + " WHERE t0." + column +
                           " > v) FROM step WHERE v IS NOT NULL) SELECT v, (SELECT t0.Z_PK" + from +
                           joins(entity, selection) + " WHERE t0." + column + " = v AND (" +
                           selection.condition + ") ORDER BY t0.Z_PK LIMIT 1) FROM step WHERE v IS NOT NULL";
  std::vector<std::pair<std::int64_t, std::string>> found;
  const std::lock_guard lock(mutex_);
  SQLiteStatement statement = connection_->prepare(text);
  if (!statement) {
    fail(StoreOperation::read, error);
    return std::nullopt;
  }
  statement.bind(selection.parameters);
  int result = statement.step();
  for (; result == SQLITE_ROW; result = statement.step()) {
    String value = statement.value(0, AttributeType::string).stringValue();
    if (value && statement.integer(1) > 0) found.emplace_back(statement.integer(1), std::move(*value));
  }
  if (result != SQLITE_DONE) {
    fail(StoreOperation::read, error);
    return std::nullopt;
  }
  std::sort(found.begin(), found.end());
  std::vector<std::string> values;
  values.reserve(found.size());
  for (auto& [row, value] : found)
    values.push_back(std::move(value));
  return values;
}

std::optional<std::uint64_t> SQLiteStore::count(const EntityDescription& entity, const Predicate* predicate,
                                                ErrorPtr* error) {
  std::string text = "SELECT COUNT(*) FROM " + entity.table() + " AS t0";
  std::optional<PredicateSQL> compiled;
  if (predicate != nullptr) {
    compiled = PredicateSQL::compile(*predicate, entity, *model_, error);
    if (!compiled) return std::nullopt;
    text += joins(entity, *compiled) + " WHERE " + compiled->condition;
  }
  const std::lock_guard lock(mutex_);
  SQLiteStatement statement = connection_->prepare(text);
  if (!statement) {
    fail(StoreOperation::read, error);
    return std::nullopt;
  }
  if (compiled) statement.bind(compiled->parameters);
  if (statement.step() == SQLITE_ROW) return static_cast<std::uint64_t>(statement.integer(0));
  fail(StoreOperation::read, error);
  return std::nullopt;
}

}  // namespace qx
