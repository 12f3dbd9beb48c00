// Conditions that are written as C++ expressions.

#include <QXEventStoring/Platform/PredicateBuilder.h>

#include <utility>
#include <vector>

namespace qx {

namespace {

/// Adds `condition`, or its members when it is of `kind` itself: a chain of && prints as one AND.
void appendFlattened(std::vector<PredicatePtr>& members, const PredicatePtr& condition,
                     Predicate::Kind kind) {
  if (condition == nullptr || condition->kind() != kind) {
    members.push_back(condition);
    return;
  }
  members.insert(members.end(), condition->members().begin(), condition->members().end());
}

std::vector<PredicatePtr> flattened(const PredicatePtr& a, const PredicatePtr& b, Predicate::Kind kind) {
  std::vector<PredicatePtr> members;
  appendFlattened(members, a, kind);
  appendFlattened(members, b, kind);
  return members;
}

}  // namespace

Condition KeyBuilder::in(Array values) const {
  return compare(Predicate::Operator::in, Value(std::move(values)));
}

Condition KeyBuilder::compare(Predicate::Operator op, Value value) const {
  return Condition(Predicate::comparison(expression_, op, Expression::constant(std::move(value))));
}

Condition operator==(const KeyBuilder& key, Value value) {
  return key.compare(Predicate::Operator::equal, std::move(value));
}
Condition operator!=(const KeyBuilder& key, Value value) {
  return key.compare(Predicate::Operator::notEqual, std::move(value));
}
Condition operator<(const KeyBuilder& key, Value value) {
  return key.compare(Predicate::Operator::less, std::move(value));
}
Condition operator<=(const KeyBuilder& key, Value value) {
  return key.compare(Predicate::Operator::lessOrEqual, std::move(value));
}
Condition operator>(const KeyBuilder& key, Value value) {
  return key.compare(Predicate::Operator::greater, std::move(value));
}
Condition operator>=(const KeyBuilder& key, Value value) {
  return key.compare(Predicate::Operator::greaterOrEqual, std::move(value));
}

Condition operator&&(const Condition& a, const Condition& b) {
  return Condition(Predicate::conjunction(flattened(a, b, Predicate::Kind::conjunction)));
}

Condition operator||(const Condition& a, const Condition& b) {
  return Condition(Predicate::disjunction(flattened(a, b, Predicate::Kind::disjunction)));
}

Condition operator!(const Condition& a) {
  return Condition(Predicate::negation(a));
}

}  // namespace qx
