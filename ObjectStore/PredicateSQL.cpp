#include "ObjectStore/PredicateSQL.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <utility>

#include "ObjectStore/PredicateFunction.h"
#include "ObjectStore/PredicateKeys.h"
#include "ObjectStore/SQLiteErrors.h"
#include "Platform/EvaluationScope.h"
#include "Platform/TextExcerpt.h"

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
  AttributeType type;
  Family family() const { return familyOf(type); }
};

std::string dotted(const KeyPath& keyPath) {
  std::string text;
  for (const std::string& component : keyPath)
    text += (text.empty() ? "" : ".") + component;
  return text;
}

/// For a message.
std::string shortened(std::string_view text) {
  constexpr std::size_t kReach = 160;
  return detail::excerpt(text, 0, kReach);
}

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

bool isNaN(const Value& value) {
  if (const Date* date = value.asDate()) return std::isnan(date->secondsSinceReferenceDate);
  return value.asReal() != nullptr && std::isnan(*value.asReal());
}

/// Whether SQLite compares `value` with a stored text as we do. Stored text that is malformed reaches us
/// with replacement characters, which SQLite does not see.
bool comparesAlike(const Value& value) {
  const std::string* text = value.asString();
  return text == nullptr || (isValidUTF8(*text) && text->find("\xEF\xBF\xBD") == std::string::npos);
}

/// A family whose values have an order.
bool isOrdered(Family family) {
  return family == Family::number || family == Family::string || family == Family::date;
}

/// Evaluates what has no keys with the evaluator itself.
class NoSubject : public PredicateSubject {
 public:
  Value valueForKeyPath(const std::vector<std::string>&) const override { return {}; }
};

/// The value of what asks no subject for anything. None when it takes long: the evaluator gives up on a
/// comparison that takes too many steps, so what may come near that is left to it.
std::optional<Value> valueOnItsOwn(const Expression& expression) {
  constexpr std::size_t kFewSteps = 10'000;
  detail::EvaluationBudget budget(kFewSteps);
  const NoSubject nobody;
  Value storage;
  const Value& value = detail::resolve(expression, {nobody, &budget}, storage);
  if (budget.isSpent()) return std::nullopt;
  return value;
}

/// SQL knows three truths, the language two. A NULL comparison counts as false only where nothing negates
/// it, so each comparison is compiled for where it stands: plain SQL (which can use an index) where NULL
/// and false do the same, a form that is never NULL below a NOT.
class Compiler {
  // SQLite's parser has a stack of 100 entries; each open parenthesis of ours takes up to three of them.
  static constexpr int kMostOpenParentheses = 24;
  static constexpr std::size_t kMostParameters = 30000;  // SQLite's own limit is 32766

 public:
  Compiler(const EntityDescription& entity, const ManagedObjectModel& model)
      : entity_(entity), model_(model) {}

  std::optional<PredicateSQL> run(const Predicate& predicate, ErrorPtr* error) {
    write(predicate, false);
    if (isTooLarge_ || result_.parameters.size() > kMostParameters) {
      result_ = {};
      writeCondition(predicate);
    }
    if (problem_.empty()) return std::move(result_);
    setError(error, Error::make(kCocoaErrorDomain, kStoreUnusable,
                                "The query \"" + shortened(predicate.predicateFormat()) +
                                    "\" cannot be run on " + entity_.name() + ": " + problem_ + "."));
    return std::nullopt;
  }

 private:
  void fail(std::string what) {
    if (problem_.empty()) problem_ = std::move(what);
  }

  std::string& sql() { return result_.condition; }

  void write(const Predicate& predicate, bool negated) {
    isTooLarge_ = isTooLarge_ || result_.parameters.size() > kMostParameters;
    if (!problem_.empty() || isTooLarge_) return;
    const bool isCompound = !predicate.members().empty();
    const int needed = 1 + std::bit_width(predicate.members().size());
    if (isCompound && open_ + needed > kMostOpenParentheses) return writeCondition(predicate);
    writeKind(predicate, negated);
  }

  void open(const char* text) {
    sql() += text;
    ++open_;
  }

  void close() {
    sql() += ")";
    --open_;
  }

  void writeKind(const Predicate& predicate, bool negated) {
    switch (predicate.kind()) {
      case Predicate::Kind::constant:
        sql() += truth(predicate.constantValue());
        break;
      case Predicate::Kind::negation:
        open("NOT (");
        write(*predicate.members().front(), true);
        close();
        break;
      case Predicate::Kind::conjunction:
        writeRange(predicate.members(), 0, predicate.members().size(), " AND ", negated);
        break;
      case Predicate::Kind::disjunction:
        writeRange(predicate.members(), 0, predicate.members().size(), " OR ", negated);
        break;
      case Predicate::Kind::comparison:
        writeComparison(predicate, negated);
        break;
    }
  }

  /// As a balanced tree: SQLite limits how deep an expression is, and n members in a row are n deep.
  void writeRange(const std::vector<PredicatePtr>& members, std::size_t first, std::size_t last,
                  const char* connective, bool negated) {
    open("(");
    if (last - first == 1) {
      write(*members[first], negated);
    } else {
      const std::size_t middle = first + (last - first) / 2;
      writeRange(members, first, middle, connective, negated);
      sql() += connective;
      writeRange(members, middle, last, connective, negated);
    }
    close();
  }

  void writeComparison(const Predicate& predicate, bool negated) {
    if (!writeRelationship(predicate) && !writePlain(predicate, negated)) writeCondition(predicate);
  }

  /// Leaves all of it to the evaluator.
  void writeCondition(const Predicate& predicate) {
    const std::vector<KeyPath> keys = keysOf(predicate);
    if (keys.empty()) {
      sql() += truth(predicate.evaluate(NoSubject()));
      return;
    }
    std::vector<RowCondition::Key> columns;
    std::string arguments;
    for (const KeyPath& key : keys) {
      // A compound predicate may hold what writeRelationship() would have written.
      const auto object = predicate.members().empty() ? std::nullopt : relationship(key);
      const Column column =
          object ? Column{use(*object) + ".Z_PK", AttributeType::integer} : this->column(key);
      arguments += ", " + column.name;
      columns.push_back({key, column.type, object.has_value()});
    }
    writeCall(RowCondition::evaluation(predicate, std::move(columns)), arguments);
  }

  void writeCall(std::shared_ptr<const RowCondition> condition, const std::string& arguments) {
    result_.parameters.emplace_back(std::move(condition));
    sql() += std::string(RowCondition::kFunction) + "(?" + arguments + ")";
  }

  /// `relationship == nil` and its negation; nothing else can be asked of an object itself.
  bool writeRelationship(const Predicate& predicate) {
    const Operator op = predicate.comparisonOperator();
    if (predicate.modifier() != Predicate::Modifier::direct || op > Operator::notEqual) return false;
    const bool isMirrored = predicate.left()->kind() == Expression::Kind::constant;
    const Expression& key = isMirrored ? *predicate.right() : *predicate.left();
    const Expression& nil = isMirrored ? *predicate.left() : *predicate.right();
    if (key.kind() != Expression::Kind::keyPath) return false;
    if (nil.kind() != Expression::Kind::constant || !nil.value().isNull()) return false;
    const auto at = relationship(key.components());
    if (!at) return false;
    // A row number that leads nowhere is no object.
    sql() += "IFNULL(" + use(*at) + ".Z_PK, 0) " + (op == Operator::equal ? "<= 0" : "> 0");
    return true;
  }

  /// A side of a comparison that is one column, or one value.
  struct Side {
    std::optional<Column> column;
    const Value* value = nullptr;
    std::optional<Value> storage;
  };

  void read(const Expression& expression, Side& side) {
    if (expression.kind() == Expression::Kind::constant) {
      side.value = &expression.value();
    } else if (keysOf(expression).empty()) {
      side.storage = valueOnItsOwn(expression);
      side.value = side.storage ? &*side.storage : nullptr;
    } else if (expression.kind() == Expression::Kind::keyPath &&
               withoutOperators(expression.components()) == expression.components()) {
      side.column = column(expression.components());
    }
  }

  /// Writes what SQLite can say as we mean it; false for everything else.
  bool writePlain(const Predicate& predicate, bool negated) {
    if (predicate.modifier() != Predicate::Modifier::direct) return false;
    const Operator op = predicate.comparisonOperator();
    Side left;
    Side right;
    read(*predicate.left(), left);
    read(*predicate.right(), right);
    const Predicate::Options options = predicate.options();
    const bool folds = options.any() && !options.normalized;
    if (op == Operator::in && left.column && right.value != nullptr)
      return writeIn(*left.column, *right.value, options, negated);
    if (op == Operator::between && left.column && right.value != nullptr)
      return writeBetween(*left.column, *right.value, folds, negated);
    if (op > Operator::greaterOrEqual) return false;
    if (left.column && right.column) {
      if (folds && left.column->family() == Family::string) return false;
      compareColumns(*left.column, op, *right.column, negated);
      return true;
    }
    if (left.column && right.value != nullptr)
      return compareValue(*left.column, op, *right.value, folds, negated);
    return right.column && left.value != nullptr &&
           compareValue(*right.column, mirrored(op), *left.value, folds, negated);
  }

  void compareColumns(const Column& left, Operator op, const Column& right, bool negated) {
    const bool isEquality = op == Operator::equal || op == Operator::notEqual;
    if (left.family() != right.family() || (!isEquality && !isOrdered(left.family()))) {
      // Without an order, or of different kinds: equal only when both are missing.
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
      writeNullAsFalse(left.name + symbol(op) + right.name, negated);
    if (includesEquality(op)) sql() += " OR (" + left.name + " IS NULL AND " + right.name + " IS NULL)";
  }

  bool compareValue(const Column& column, Operator op, const Value& value, bool folds, bool negated) {
    const bool isEquality = op == Operator::equal || op == Operator::notEqual;
    if (value.isNull()) {
      if (op == Operator::equal || includesEquality(op))
        sql() += column.name + " IS NULL";
      else if (op == Operator::notEqual)
        sql() += column.name + " IS NOT NULL";
      else
        sql() += "0";
      return true;
    }
    if (familyOf(value) != column.family() || isNaN(value) || (!isEquality && !isOrdered(column.family()))) {
      sql() += truth(op == Operator::notEqual);
      return true;
    }
    if ((folds && column.family() == Family::string) || !comparesAlike(value)) return false;
    result_.parameters.emplace_back(value);
    if (op == Operator::equal)
      sql() += column.name + (negated ? " IS ?" : " = ?");
    else if (op == Operator::notEqual)
      sql() += column.name + " IS NOT ?";
    else
      writeNullAsFalse(column.name + symbol(op) + "?", negated);
    return true;
  }

  void writeNullAsFalse(const std::string& comparison, bool negated) {
    sql() += negated ? "IFNULL(" + comparison + ", 0)" : comparison;
  }

  bool writeBetween(const Column& column, const Value& range, bool folds, bool negated) {
    const Array* bounds = range.asArray();
    const auto isBound = [&](const Value& value) {
      return familyOf(value) == column.family() && isOrdered(column.family()) && !isNaN(value);
    };
    if (bounds == nullptr || bounds->size() != 2 || !isBound(bounds->front()) || !isBound(bounds->back())) {
      sql() += "0";
      return true;
    }
    if (folds && column.family() == Family::string) return false;
    if (!comparesAlike(bounds->front()) || !comparesAlike(bounds->back())) return false;
    result_.parameters.emplace_back(bounds->front());
    result_.parameters.emplace_back(bounds->back());
    writeNullAsFalse(column.name + " BETWEEN ? AND ?", negated);
    return true;
  }

  bool writeIn(const Column& column, const Value& list, Predicate::Options options, bool negated) {
    std::optional<Array> storage;
    const Array* members = list.asArray();
    if (members == nullptr) {
      storage = valuesOf(list);
      if (!storage) return false;
      members = &*storage;
    }
    const bool folds = options.any() && !options.normalized && column.family() == Family::string;
    const bool comparesAllAlike = std::all_of(members->begin(), members->end(), comparesAlike);
    if (folds || !comparesAllAlike || members->size() + result_.parameters.size() > kMostParameters)
      writeCall(RowCondition::membership(*members, column.type, options), ", " + column.name);
    else
      writeShortList(column, *members, negated);
    return true;
  }

  void writeShortList(const Column& column, const Array& members, bool negated) {
    std::string parameters;
    bool hasNull = false;
    for (const Value& value : members) {
      hasNull = hasNull || value.isNull();
      if (familyOf(value) != column.family() || isNaN(value)) continue;
      result_.parameters.emplace_back(value);
      parameters += parameters.empty() ? "?" : ", ?";
    }
    if (parameters.empty())
      sql() += "0";
    else
      writeNullAsFalse(column.name + " IN (" + parameters + ")", negated);
    if (hasNull) sql() += " OR " + column.name + " IS NULL";
  }

  static std::optional<Array> valuesOf(const Value& value) {
    const Dictionary* dictionary = value.asDictionary();
    if (dictionary == nullptr) return std::nullopt;
    Array values;
    for (const auto& entry : *dictionary)
      values.push_back(entry.second);
    return values;
  }

  /// The to-one relationship that is all of the path.
  std::optional<std::size_t> relationship(const KeyPath& keyPath) const {
    const auto at = keyPath.size() == 1 ? entity_.indexOf(keyPath.front()) : std::nullopt;
    const bool isToOne = at && entity_.properties()[*at].kind == PropertyDescription::Kind::toOne;
    return isToOne ? at : std::nullopt;
  }

  /// The name of the table behind the to-one relationship.
  std::string use(std::size_t property) {
    auto& used = result_.relationships;
    if (std::find(used.begin(), used.end(), property) == used.end()) used.push_back(property);
    return relationshipAlias(property);
  }

  Column column(const KeyPath& keyPath) {
    const EntityDescription* entity = &entity_;
    std::string table = "t0";
    if (keyPath.size() == 2) {
      const auto at = entity_.indexOf(keyPath.front());
      if (!at || entity_.properties()[*at].kind != PropertyDescription::Kind::toOne) return unknown(keyPath);
      entity = model_.entity(entity_.properties()[*at].destination);
      table = use(*at);
    }
    const auto at = keyPath.empty() || keyPath.size() > 2 ? std::nullopt : entity->indexOf(keyPath.back());
    if (!at || entity->properties()[*at].kind != PropertyDescription::Kind::attribute)
      return unknown(keyPath);
    const PropertyDescription& property = entity->properties()[*at];
    return {table + "." + property.column, property.type};
  }

  Column unknown(const KeyPath& keyPath) {
    const auto at = keyPath.size() == 1 ? entity_.indexOf(keyPath.front()) : std::nullopt;
    if (at && entity_.properties()[*at].kind == PropertyDescription::Kind::toOne)
      fail("\"" + keyPath.front() + "\" is a relationship, which can only be == nil or != nil");
    else
      fail("it has no attribute \"" + (keyPath.empty() ? "SELF" : shortened(dotted(keyPath))) + "\"");
    return {"NULL", AttributeType::string};
  }

  const EntityDescription& entity_;
  const ManagedObjectModel& model_;
  PredicateSQL result_;
  std::string problem_;
  int open_ = 0;             // parentheses
  bool isTooLarge_ = false;  // for SQLite
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
