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

constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kKeys{{
    {"SourceID", QXESAttributeEventSourceID},
    {"EventClassID", QXESAttributeEventClassID},
    {"EventTriggerTime", QXESAttributeEventTriggerTime},
    {"EventReadStatus", QXESAttributeEventReadStatus},
    {"EventSeverity", QXESAttributeEventSeverity},
    {"EventSolutionStatus", QXESAttributeEventSolutionStatus},
}};

bool isKey(const Expression& expression, std::string_view key) {
  return expression.kind() == Expression::Kind::keyPath && expression.components().size() == 1 &&
         expression.components().front() == key;
}

bool isMoment(Operator op) {
  return op <= Operator::between || op == Operator::in;
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
    const Expression& left = *predicate.left();
    const Expression& right = *predicate.right();
    if (isKey(left, kSolved) || isKey(right, kSolved)) return solved(predicate);
    if (isMoment(predicate.comparisonOperator()) && (isKey(left, kTime) || isKey(right, kTime))) {
      return Predicate::comparison(moment(left), predicate.comparisonOperator(), moment(right),
                                   predicate.options(), predicate.modifier());
    }
    return Predicate::comparison(expression(left), predicate.comparisonOperator(), expression(right),
                                 predicate.options(), predicate.modifier());
  }

  /// The library knows the key in "== 1" and "== 0" only, as they are printed.
  PredicatePtr solved(const Predicate& predicate) {
    const bool isMirrored = isKey(*predicate.right(), kSolved);
    const Expression& other = isMirrored ? *predicate.left() : *predicate.right();
    const bool isTruth = other.kind() == Expression::Kind::constant && other.value().isNumber() &&
                         (other.value() == qx::Value(0) || other.value() == qx::Value(1));
    const auto op = predicate.comparisonOperator();
    const bool isKnown = (op == Operator::equal || op == Operator::notEqual) && !predicate.options().any() &&
                         predicate.modifier() == Predicate::Modifier::direct;
    if (!isTruth || !isKnown) {
      refuse("EventSolutionStatus can only be compared with == or != and 1 (solved) or 0");
      return nullptr;
    }
    auto equal = Predicate::comparison(Expression::keyPath(QXESAttributeEventSolutionStatus), Operator::equal,
                                       Expression::constant(qx::Value(other.value().boolValue() ? 1 : 0)));
    return op == Operator::equal ? equal : Predicate::negation(std::move(equal));
  }

  /// What stands beside the trigger time: texts are times.
  ExpressionPtr moment(const Expression& side) {
    if (side.kind() != Expression::Kind::constant) return expression(side);
    if (const qx::Array* const list = side.value().asArray()) {
      qx::Array times;
      for (const auto& member : *list)
        times.push_back(timeOf(member));
      return Expression::constant(std::move(times));
    }
    return Expression::constant(timeOf(side.value()));
  }

  qx::Value timeOf(const qx::Value& value) {
    const std::string* const text = value.asString();
    if (text == nullptr) return value;
    if (const auto time = qx::Date::fromRFC3339(*text)) return *time;
    refuse(fmt::format("\"{}\" is not an RFC 3339 time with a zone, such as 2026-11-02T05:23:26Z",
                       excerpt(*text)));
    return {};
  }

  ExpressionPtr expression(const Expression& from) {
    switch (from.kind()) {
      case Expression::Kind::keyPath:
        return key(from);
      case Expression::Kind::aggregate:
        return Expression::aggregate(membersOf(from));
      case Expression::Kind::arithmetic:
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

  std::vector<ExpressionPtr> membersOf(const Expression& from) {
    std::vector<ExpressionPtr> members;
    for (const auto& member : from.members())
      members.push_back(expression(*member));
    return members;
  }

  ExpressionPtr key(const Expression& from) {
    if (isKey(from, kSolved)) {
      refuse("EventSolutionStatus can only be compared with == or != and 1 (solved) or 0");
      return nullptr;
    }
    for (const auto& [name, attribute] : kKeys) {
      if (isKey(from, name)) return Expression::keyPath(attribute);
    }
    std::string names;
    for (const auto& [name, attribute] : kKeys)
      names += (names.empty() ? "" : ", ") + std::string(name);
    refuse(fmt::format("there is no key \"{}\"; the keys are {}", excerpt(from.format()), names));
    return nullptr;
  }

  void refuse(std::string reason) {
    if (refusal_.empty()) refusal_ = std::move(reason);
  }

  static constexpr std::string_view kSolved = "EventSolutionStatus";
  static constexpr std::string_view kTime = "EventTriggerTime";
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
