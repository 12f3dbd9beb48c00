#include "ObjectStore/PredicateSQL.h"

#include <algorithm>

#include "ObjectStore/SQLiteErrors.h"

namespace qx {

namespace {

/// The kinds of values that compare with each other.
enum class Family { none, number, string, date, data };

Family familyOf(const Value& value) {
  if (value.isNumber()) return Family::number;
  if (value.asString() != nullptr) return Family::string;
  if (value.asDate() != nullptr) return Family::date;
  if (value.asData() != nullptr) return Family::data;
  return Family::none;
}

Family familyOf(AttributeType type) {
  switch (type) {
    case AttributeType::string:
      return Family::string;
    case AttributeType::integer:
    case AttributeType::boolean:
      return Family::number;
    case AttributeType::date:
      return Family::date;
    case AttributeType::binary:
      return Family::data;
  }
  return Family::none;
}

/// A column of the statement.
struct Column {
  std::string name;  // "t0.ZEVENTID"
  Family family;
};

using Operator = Predicate::Operator;

Operator mirrored(Operator op) {
  switch (op) {
    case Operator::less:
      return Operator::greater;
    case Operator::lessOrEqual:
      return Operator::greaterOrEqual;
    case Operator::greater:
      return Operator::less;
    case Operator::greaterOrEqual:
      return Operator::lessOrEqual;
    default:
      return op;
  }
}

const char* symbol(Operator op) {
  switch (op) {
    case Operator::less:
      return " < ";
    case Operator::lessOrEqual:
      return " <= ";
    case Operator::greater:
      return " > ";
    default:
      return " >= ";
  }
}

bool includesEquality(Operator op) {
  return op == Operator::lessOrEqual || op == Operator::greaterOrEqual;
}

const char* truth(bool value) {
  return value ? "1" : "0";
}

/// Evaluates comparisons between constants with the evaluator itself.
class NoSubject : public PredicateSubject {
 public:
  Value valueForKeyPath(const std::vector<std::string>&) const override { return {}; }
};

/// SQL knows three truths, the language two. A NULL comparison counts as false only where nothing negates
/// it, so each comparison is compiled for where it stands: plain SQL (which can use an index) where NULL
/// and false do the same, a form that is never NULL below a NOT.
class Compiler {
  static constexpr int kDeepestPredicate = 250;  // SQLite's own limit is 1000 levels of expression

 public:
  Compiler(const EntityDescription& entity, const ManagedObjectModel& model)
      : entity_(entity), model_(model) {}

  std::optional<PredicateSQL> run(const Predicate& predicate, ErrorPtr* error) {
    write(predicate, false);
    if (problem_.empty()) return std::move(result_);
    setError(error, Error::make(kCocoaErrorDomain, kStoreUnusable,
                                "The query \"" + predicate.predicateFormat() + "\" cannot be run on " +
                                    entity_.name() + ": " + problem_ + "."));
    return std::nullopt;
  }

 private:
  void fail(std::string what) {
    if (problem_.empty()) problem_ = std::move(what);
  }

  std::string& sql() { return result_.condition; }

  void write(const Predicate& predicate, bool negated) {
    if (++depth_ > kDeepestPredicate) fail("it is nested too deeply");
    if (problem_.empty()) writeKind(predicate, negated);
    --depth_;
  }

  void writeKind(const Predicate& predicate, bool negated) {
    switch (predicate.kind()) {
      case Predicate::Kind::constant:
        sql() += truth(predicate.constantValue());
        break;
      case Predicate::Kind::negation:
        sql() += "NOT (";
        write(*predicate.members().front(), true);
        sql() += ")";
        break;
      case Predicate::Kind::conjunction:
        writeAll(predicate.members(), " AND ", "1", negated);
        break;
      case Predicate::Kind::disjunction:
        writeAll(predicate.members(), " OR ", "0", negated);
        break;
      case Predicate::Kind::comparison:
        writeComparison(predicate, negated);
        break;
    }
  }

  /// As a balanced tree: SQLite limits how deep an expression is, and n members in a row are n deep.
  void writeAll(const std::vector<PredicatePtr>& members, const char* connective, const char* none,
                bool negated) {
    if (members.empty())
      sql() += none;
    else
      writeRange(members, 0, members.size(), connective, negated);
  }

  void writeRange(const std::vector<PredicatePtr>& members, std::size_t first, std::size_t last,
                  const char* connective, bool negated) {
    if (last - first == 1) {
      sql() += "(";
      write(*members[first], negated);
      sql() += ")";
      return;
    }
    const std::size_t middle = first + (last - first) / 2;
    sql() += "(";
    writeRange(members, first, middle, connective, negated);
    sql() += connective;
    writeRange(members, middle, last, connective, negated);
    sql() += ")";
  }

  void writeComparison(const Predicate& predicate, bool negated) {
    const Expression& left = *predicate.left();
    const Expression& right = *predicate.right();
    const Operator op = predicate.comparisonOperator();
    if (op == Operator::in) return writeIn(left, right, negated);
    if (op > Operator::in || predicate.options().any() || predicate.modifier() != Predicate::Modifier::direct)
      return fail("\"" + predicate.predicateFormat() + "\" has no form in the store");
    const bool leftIsKey = left.kind() == Expression::Kind::keyPath;
    const bool rightIsKey = right.kind() == Expression::Kind::keyPath;
    if (leftIsKey && rightIsKey) return compareColumns(column(left), op, column(right), negated);
    if (leftIsKey && right.kind() == Expression::Kind::constant)
      return compareValue(column(left), op, right.value(), negated);
    if (rightIsKey && left.kind() == Expression::Kind::constant)
      return compareValue(column(right), mirrored(op), left.value(), negated);
    if (left.kind() == Expression::Kind::constant && right.kind() == Expression::Kind::constant) {
      sql() += truth(predicate.evaluate(NoSubject()));
      return;
    }
    fail("\"" + predicate.predicateFormat() + "\" has no form in the store");
  }

  void compareColumns(const Column& left, Operator op, const Column& right, bool negated) {
    if (left.family != right.family) {
      // Of different kinds: equal only when both are missing.
      const std::string bothMissing = left.name + " IS NULL AND " + right.name + " IS NULL";
      if (op == Operator::equal || includesEquality(op))
        sql() += bothMissing;
      else if (op == Operator::notEqual)
        sql() += "NOT (" + bothMissing + ")";
      else
        sql() += "0";
      return;
    }
    if (op == Operator::equal)
      sql() += left.name + " IS " + right.name;
    else if (op == Operator::notEqual)
      sql() += left.name + " IS NOT " + right.name;
    else
      writeOrdering(left.name + symbol(op) + right.name, negated);
    if (includesEquality(op)) sql() += " OR (" + left.name + " IS NULL AND " + right.name + " IS NULL)";
  }

  void compareValue(const Column& column, Operator op, const Value& value, bool negated) {
    if (value.isNull()) {
      if (op == Operator::equal || includesEquality(op))
        sql() += column.name + " IS NULL";
      else if (op == Operator::notEqual)
        sql() += column.name + " IS NOT NULL";
      else
        sql() += "0";
      return;
    }
    if (familyOf(value) != column.family) {
      sql() += truth(op == Operator::notEqual);
      return;
    }
    result_.bindings.push_back(value);
    if (op == Operator::equal)
      sql() += column.name + (negated ? " IS ?" : " = ?");
    else if (op == Operator::notEqual)
      sql() += column.name + " IS NOT ?";
    else
      writeOrdering(column.name + symbol(op) + "?", negated);
  }

  void writeOrdering(const std::string& comparison, bool negated) {
    sql() += negated ? "IFNULL(" + comparison + ", 0)" : comparison;
  }

  void writeIn(const Expression& left, const Expression& right, bool negated) {
    const auto values = listOf(right);
    if (left.kind() != Expression::Kind::keyPath || !values)
      return fail("IN needs a key on its left and a list on its right");
    const Column key = column(left);
    std::string parameters;
    bool hasNull = false;
    for (const Value& value : *values) {
      hasNull = hasNull || value.isNull();
      if (familyOf(value) != key.family) continue;
      result_.bindings.push_back(value);
      parameters += parameters.empty() ? "?" : ", ?";
    }
    const std::string list = key.name + " IN (" + parameters + ")";
    if (parameters.empty())
      sql() += "0";
    else
      sql() += negated ? "IFNULL(" + list + ", 0)" : list;
    if (hasNull) sql() += " OR " + key.name + " IS NULL";
  }

  /// The members of a constant list, or the values of a constant dictionary.
  static std::optional<Array> listOf(const Expression& expression) {
    if (expression.kind() != Expression::Kind::constant) return std::nullopt;
    if (const Array* array = expression.value().asArray()) return *array;
    const Dictionary* dictionary = expression.value().asDictionary();
    if (dictionary == nullptr) return std::nullopt;
    Array values;
    for (const auto& [key, value] : *dictionary)
      values.push_back(value);
    return values;
  }

  Column column(const Expression& expression) {
    const auto& keyPath = expression.components();
    const EntityDescription* entity = &entity_;
    std::string table = "t0";
    if (keyPath.size() == 2) {
      const auto at = entity_.indexOf(keyPath.front());
      if (!at || entity_.properties()[*at].kind != PropertyDescription::Kind::toOne)
        return unknown(expression);
      entity = model_.entity(entity_.properties()[*at].destination);
      table = relationshipAlias(*at);
      auto& used = result_.relationships;
      if (std::find(used.begin(), used.end(), *at) == used.end()) used.push_back(*at);
    }
    const auto at = keyPath.empty() || keyPath.size() > 2 ? std::nullopt : entity->indexOf(keyPath.back());
    if (!at || entity->properties()[*at].kind != PropertyDescription::Kind::attribute)
      return unknown(expression);
    const PropertyDescription& property = entity->properties()[*at];
    return {table + "." + property.column, familyOf(property.type)};
  }

  Column unknown(const Expression& expression) {
    fail("it has no attribute \"" + expression.format() + "\"");
    return {"NULL", Family::none};
  }

  const EntityDescription& entity_;
  const ManagedObjectModel& model_;
  PredicateSQL result_;
  std::string problem_;
  int depth_ = 0;
};

}  // namespace

std::string relationshipAlias(std::size_t property) {
  return "t" + std::to_string(property + 1);
}

std::optional<PredicateSQL> PredicateSQL::compile(const Predicate& predicate, const EntityDescription& entity,
                                                  const ManagedObjectModel& model, ErrorPtr* error) {
  return Compiler(entity, model).run(predicate, error);
}

}  // namespace qx
