#include "Where.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <QXEventStoring/QXEventStore.h>

#include "Text.h"

namespace qxevents {
namespace {

using qx::Expression;
using qx::ExpressionPtr;
using qx::Predicate;
using qx::PredicatePtr;
using Operator = qx::Predicate::Operator;

enum class Holds { text, time, truth, number, solution };

struct Key {
  std::string_view name;
  std::string_view attribute;
  Holds holds;
  std::string_view comparesWith;
};

constexpr std::array<Key, 6> kKeys{{
    {"SourceID", QXESAttributeEventSourceID, Holds::text, "texts in quotes"},
    {"EventClassID", QXESAttributeEventClassID, Holds::text, "texts in quotes"},
    {"EventTriggerTime", QXESAttributeEventTriggerTime, Holds::time,
     "RFC 3339 times with a zone in quotes, such as \"2026-11-02T05:23:26Z\""},
    {"EventReadStatus", QXESAttributeEventReadStatus, Holds::truth, "YES and NO"},
    {"EventSeverity", QXESAttributeEventSeverity, Holds::number, "numbers"},
    {"EventSolutionStatus", QXESAttributeEventSolutionStatus, Holds::solution,
     "1 (solved) and 0, by == and !="},
}};

/// The key that is all of the expression; null when it is anything else.
const Key* keyOf(const Expression& expression) {
  if (expression.kind() != Expression::Kind::keyPath || expression.components().size() != 1) return nullptr;
  const auto* const found = std::find_if(kKeys.begin(), kKeys.end(), [&](const Key& key) {
    return key.name == expression.components().front();
  });
  return found != kKeys.end() ? found : nullptr;
}

bool isConstant(const Expression& expression) {
  return expression.kind() == Expression::Kind::constant;
}

/// Rebuilds a predicate with the library's keys. The first thing that has no place in one ends it.
class Translation {
 public:
  explicit Translation(std::string& refusal) : refusal_(refusal) {}

  PredicatePtr translate(const Predicate& predicate) {
    switch (predicate.kind()) {
      case Predicate::Kind::constant:
        return Predicate::constant(predicate.constantValue());
      case Predicate::Kind::comparison:
        return comparison(predicate);
      case Predicate::Kind::negation:
        return Predicate::negation(translate(*predicate.members().front()));
      case Predicate::Kind::conjunction:
        return Predicate::conjunction(membersOf(predicate));
      case Predicate::Kind::disjunction:
        return Predicate::disjunction(membersOf(predicate));
    }
    return nullptr;
  }

 private:
  std::vector<PredicatePtr> membersOf(const Predicate& predicate) {
    std::vector<PredicatePtr> members;
    members.reserve(predicate.members().size());
    for (const auto& member : predicate.members())
      members.push_back(translate(*member));
    return members;
  }

  PredicatePtr comparison(const Predicate& predicate) {
    const Key* const left = keyOf(*predicate.left());
    const Key* const right = keyOf(*predicate.right());
    for (const Key* const key : {left, right}) {
      if (key != nullptr && key->holds == Holds::solution) return solved(predicate, *key);
    }
    // A constant beside a key is of the key's kind.
    return Predicate::comparison(
        right != nullptr && isConstant(*predicate.left()) ? constant(*predicate.left(), *right)
                                                          : expression(*predicate.left()),
        predicate.comparisonOperator(),
        left != nullptr && isConstant(*predicate.right()) ? constant(*predicate.right(), *left)
                                                          : expression(*predicate.right()),
        predicate.options(), predicate.modifier());
  }

  /// The library knows the key in "== 1" and "== 0" only, as they are printed.
  PredicatePtr solved(const Predicate& predicate, const Key& key) {
    const bool isMirrored = keyOf(*predicate.right()) == &key;
    const Expression& other = isMirrored ? *predicate.left() : *predicate.right();
    const bool isTruth =
        isConstant(other) && (other.value() == qx::Value(0) || other.value() == qx::Value(1));
    const auto op = predicate.comparisonOperator();
    const bool isKnown = (op == Operator::equal || op == Operator::notEqual) && !predicate.options().any() &&
                         predicate.modifier() == Predicate::Modifier::direct;
    if (!isTruth || !isKnown) {
      refuseUse(key);
      return nullptr;
    }
    auto equal = Predicate::comparison(Expression::keyPath(key.attribute), Operator::equal,
                                       Expression::constant(qx::Value(other.value().boolValue() ? 1 : 0)));
    return op == Operator::equal ? equal : Predicate::negation(std::move(equal));
  }

  /// What stands beside the key; texts beside a time are times.
  ExpressionPtr constant(const Expression& side, const Key& key) {
    const qx::Array* const list = side.value().asArray();
    if (list == nullptr) return Expression::constant(valueFor(key, side.value()));
    qx::Array values;
    for (const auto& member : *list)
      values.push_back(valueFor(key, member));
    return Expression::constant(std::move(values));
  }

  qx::Value valueFor(const Key& key, const qx::Value& value) {
    if (value.isNull()) return value;
    switch (key.holds) {
      case Holds::text:
        if (value.asString() != nullptr) return value;
        break;
      case Holds::time:
        if (value.asDate() != nullptr) return value;
        if (const auto time = qx::Date::fromRFC3339(value.stringValue().value_or(""))) return *time;
        break;
      default:
        if (value.isNumber()) return value;
        break;
    }
    refuseUse(key);
    return {};
  }

  ExpressionPtr expression(const Expression& from) {
    switch (from.kind()) {
      case Expression::Kind::keyPath:
        return key(from);
      case Expression::Kind::aggregate:
        return Expression::aggregate(membersOf(from));
      case Expression::Kind::arithmetic:
        checkNumbers(from);
        if (from.operation() == Expression::Operation::negate)
          return Expression::negated(expression(*from.base()));
        return Expression::arithmetic(expression(*from.members()[0]), from.operation(),
                                      expression(*from.members()[1]));
      case Expression::Kind::constant:
        return Expression::constant(from.value());
      default:
        refuse(fmt::format("\"{}\" means nothing for an event", excerpt(from.format())));
        return nullptr;
    }
  }

  /// Arithmetic with anything but numbers has no value, and would silently match nothing.
  void checkNumbers(const Expression& from) {
    for (const auto& member : from.members()) {
      const Key* const key = keyOf(*member);
      const bool isOther = isConstant(*member) && !member->value().isNumber();
      if (isOther || (key != nullptr && key->holds != Holds::number))
        refuse(fmt::format("\"{}\": only numbers can be calculated with", excerpt(from.format())));
    }
  }

  std::vector<ExpressionPtr> membersOf(const Expression& from) {
    std::vector<ExpressionPtr> members;
    for (const auto& member : from.members())
      members.push_back(expression(*member));
    return members;
  }

  ExpressionPtr key(const Expression& from) {
    if (const Key* const known = keyOf(from)) {
      if (known->holds == Holds::solution) refuseUse(*known);
      return Expression::keyPath(known->attribute);
    }
    std::string names;
    for (const Key& known : kKeys)
      names += (names.empty() ? "" : ", ") + std::string(known.name);
    refuse(fmt::format("there is no key \"{}\"; the keys are {}", excerpt(from.format()), names));
    return nullptr;
  }

  void refuseUse(const Key& key) {
    refuse(fmt::format("{} can only be compared with {}", key.name, key.comparesWith));
  }

  void refuse(std::string reason) {
    if (refusal_.empty()) refusal_ = std::move(reason);
  }

  std::string& refusal_;
};

}  // namespace

PredicatePtr readWhere(std::string_view text, std::string& refusal) {
  qx::ErrorPtr error;
  const PredicatePtr written = Predicate::withFormat(text, {}, &error);
  if (written == nullptr) {
    refusal = error->localizedDescription();
    return nullptr;
  }
  PredicatePtr translated = Translation(refusal).translate(*written);
  return refusal.empty() ? translated : nullptr;
}

}  // namespace qxevents
