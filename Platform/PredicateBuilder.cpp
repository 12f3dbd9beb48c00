// Conditions that are written as C++ expressions.

#include <QXEventStoring/Platform/PredicateBuilder.h>

#include <utility>
#include <vector>

#include "Platform/PredicateKeyPath.h"

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

KeyBuilder constantOf(Value value) {
  return KeyBuilder(Expression::constant(std::move(value)));
}

Condition comparison(Value left, Predicate::Operator op, const KeyBuilder& right) {
  return Condition(Predicate::comparison(Expression::constant(std::move(left)), op, right.expression()));
}

ExpressionPtr keyOf(std::string_view path) {
  return path.empty() ? Expression::keyPath(path) : detail::keyExpression(detail::withoutSelf(path));
}

KeyBuilder arithmetic(const KeyBuilder& a, Expression::Operation operation, const KeyBuilder& b) {
  return KeyBuilder(Expression::arithmetic(a.expression(), operation, b.expression()));
}

}  // namespace

Condition ComparisonSide::comparison(Predicate::Operator op, ExpressionPtr right,
                                     Predicate::Options options) const {
  return Condition(Predicate::comparison(expression_, op, std::move(right), options, modifier_));
}

Condition ComparisonSide::compare(Predicate::Operator op, Value value, Predicate::Options options) const {
  return comparison(op, Expression::constant(std::move(value)), options);
}

Condition ComparisonSide::compare(Predicate::Operator op, const KeyBuilder& other,
                                  Predicate::Options options) const {
  return comparison(op, other.expression(), options);
}

Condition ComparisonSide::in(Array values) const {
  return in(std::move(values), {});
}

Condition ComparisonSide::in(Array values, Predicate::Options options) const {
  return compare(Predicate::Operator::in, Value(std::move(values)), options);
}

Condition ComparisonSide::between(Value lowest, Value highest) const {
  return between(constantOf(std::move(lowest)), constantOf(std::move(highest)));
}

Condition ComparisonSide::between(const KeyBuilder& lowest, const KeyBuilder& highest) const {
  return comparison(Predicate::Operator::between,
                    Expression::aggregate({lowest.expression(), highest.expression()}), {});
}

Condition ComparisonSide::contains(Value part, Predicate::Options options) const {
  return compare(Predicate::Operator::contains, std::move(part), options);
}

Condition ComparisonSide::beginsWith(std::string_view text, Predicate::Options options) const {
  return compare(Predicate::Operator::beginsWith, Value(text), options);
}

Condition ComparisonSide::endsWith(std::string_view text, Predicate::Options options) const {
  return compare(Predicate::Operator::endsWith, Value(text), options);
}

Condition ComparisonSide::like(std::string_view pattern, Predicate::Options options) const {
  return compare(Predicate::Operator::like, Value(pattern), options);
}

Condition ComparisonSide::matches(std::string_view expression, Predicate::Options options) const {
  return compare(Predicate::Operator::matches, Value(expression), options);
}

KeyBuilder::KeyBuilder(std::string_view path) : ComparisonSide(keyOf(path), Predicate::Modifier::direct) {}

KeyBuilder KeyBuilder::element(Expression::Element which) const {
  return KeyBuilder(Expression::element(expression_, which));
}

KeyBuilder KeyBuilder::at(Value index) const {
  return KeyBuilder(Expression::element(expression_, Expression::constant(std::move(index))));
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

Condition operator==(const KeyBuilder& a, const KeyBuilder& b) {
  return a.compare(Predicate::Operator::equal, b);
}
Condition operator!=(const KeyBuilder& a, const KeyBuilder& b) {
  return a.compare(Predicate::Operator::notEqual, b);
}
Condition operator<(const KeyBuilder& a, const KeyBuilder& b) {
  return a.compare(Predicate::Operator::less, b);
}
Condition operator<=(const KeyBuilder& a, const KeyBuilder& b) {
  return a.compare(Predicate::Operator::lessOrEqual, b);
}
Condition operator>(const KeyBuilder& a, const KeyBuilder& b) {
  return a.compare(Predicate::Operator::greater, b);
}
Condition operator>=(const KeyBuilder& a, const KeyBuilder& b) {
  return a.compare(Predicate::Operator::greaterOrEqual, b);
}

Condition operator==(Value value, const KeyBuilder& key) {
  return comparison(std::move(value), Predicate::Operator::equal, key);
}
Condition operator!=(Value value, const KeyBuilder& key) {
  return comparison(std::move(value), Predicate::Operator::notEqual, key);
}
Condition operator<(Value value, const KeyBuilder& key) {
  return comparison(std::move(value), Predicate::Operator::less, key);
}
Condition operator<=(Value value, const KeyBuilder& key) {
  return comparison(std::move(value), Predicate::Operator::lessOrEqual, key);
}
Condition operator>(Value value, const KeyBuilder& key) {
  return comparison(std::move(value), Predicate::Operator::greater, key);
}
Condition operator>=(Value value, const KeyBuilder& key) {
  return comparison(std::move(value), Predicate::Operator::greaterOrEqual, key);
}

KeyBuilder operator+(const KeyBuilder& a, const KeyBuilder& b) {
  return arithmetic(a, Expression::Operation::add, b);
}
KeyBuilder operator+(const KeyBuilder& key, Value number) {
  return key + constantOf(std::move(number));
}
KeyBuilder operator+(Value number, const KeyBuilder& key) {
  return constantOf(std::move(number)) + key;
}
KeyBuilder operator-(const KeyBuilder& a, const KeyBuilder& b) {
  return arithmetic(a, Expression::Operation::subtract, b);
}
KeyBuilder operator-(const KeyBuilder& key, Value number) {
  return key - constantOf(std::move(number));
}
KeyBuilder operator-(Value number, const KeyBuilder& key) {
  return constantOf(std::move(number)) - key;
}
KeyBuilder operator*(const KeyBuilder& a, const KeyBuilder& b) {
  return arithmetic(a, Expression::Operation::multiply, b);
}
KeyBuilder operator*(const KeyBuilder& key, Value number) {
  return key * constantOf(std::move(number));
}
KeyBuilder operator*(Value number, const KeyBuilder& key) {
  return constantOf(std::move(number)) * key;
}
KeyBuilder operator/(const KeyBuilder& a, const KeyBuilder& b) {
  return arithmetic(a, Expression::Operation::divide, b);
}
KeyBuilder operator/(const KeyBuilder& key, Value number) {
  return key / constantOf(std::move(number));
}
KeyBuilder operator/(Value number, const KeyBuilder& key) {
  return constantOf(std::move(number)) / key;
}

KeyBuilder operator-(const KeyBuilder& key) {
  return KeyBuilder(Expression::negated(key.expression()));
}

KeyBuilder power(const KeyBuilder& key, Value exponent) {
  return arithmetic(key, Expression::Operation::power, constantOf(std::move(exponent)));
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
