#pragma once

#include <string>
#include <string_view>
#include <utility>

#include <QXEventStoring/Platform/Predicate.h>

namespace qx {

/// A predicate under construction: `key(QXESAttributeEventSeverity) >= 2 && key("eventReadStatus") == false`.
/// A type of its own, so that && and ! on it never hide those of a pointer. A chain of && is one AND.
/// A value; any thread.
class QX_EXPORT Condition {
 public:
  explicit Condition(PredicatePtr predicate) : predicate_(std::move(predicate)) {}
  operator PredicatePtr() const { return predicate_; }  // NOLINT: the whole point

 private:
  PredicatePtr predicate_;
};

class KeyBuilder;

/// The left side of a comparison: a KeyBuilder or a MembersBuilder. A value; any thread.
class QX_EXPORT ComparisonSide {
 public:
  /// Any comparison; `options` are the letters behind its operator.
  Condition compare(Predicate::Operator op, Value value, Predicate::Options options = {}) const;
  Condition compare(Predicate::Operator op, const KeyBuilder& other, Predicate::Options options = {}) const;

  Condition isNull() const { return compare(Predicate::Operator::equal, Value()); }
  /// Whether it is one of `values`.
  Condition in(Array values) const;
  Condition in(Array values, Predicate::Options options) const;
  /// Both ends included.
  Condition between(Value lowest, Value highest) const;
  Condition between(const KeyBuilder& lowest, const KeyBuilder& highest) const;
  /// Whether the list has that member, or the string that part.
  Condition contains(Value part, Predicate::Options options = {}) const;
  Condition beginsWith(std::string_view text, Predicate::Options options = {}) const;
  Condition endsWith(std::string_view text, Predicate::Options options = {}) const;
  /// ? stands for one character, * for any run of them, \ makes the next one literal.
  Condition like(std::string_view pattern, Predicate::Options options = {}) const;
  /// An ICU regular expression for the whole string. One that cannot be used (it is malformed, has more than
  /// 32,768 bytes or 1,000 groups) matches nothing, and withFormat() does not read the predicate's text back.
  Condition matches(std::string_view expression, Predicate::Options options = {}) const;

 protected:
  ComparisonSide(ExpressionPtr expression, Predicate::Modifier modifier)
      : expression_(std::move(expression)), modifier_(modifier) {}

  ExpressionPtr expression_;

 private:
  Condition comparison(Predicate::Operator op, ExpressionPtr right, Predicate::Options options) const;

  Predicate::Modifier modifier_;
};

/// Some member, or every member, of a collection: `key("tags").any() == "x"`. A type of its own, since it
/// stands on the left of a comparison only: neither in arithmetic nor on the right. A value; any thread.
class QX_EXPORT MembersBuilder : public ComparisonSide {
 public:
  Condition operator==(Value value) const { return compare(Predicate::Operator::equal, std::move(value)); }
  Condition operator==(const KeyBuilder& key) const { return compare(Predicate::Operator::equal, key); }
  Condition operator!=(Value value) const { return compare(Predicate::Operator::notEqual, std::move(value)); }
  Condition operator!=(const KeyBuilder& key) const { return compare(Predicate::Operator::notEqual, key); }
  Condition operator<(Value value) const { return compare(Predicate::Operator::less, std::move(value)); }
  Condition operator<(const KeyBuilder& key) const { return compare(Predicate::Operator::less, key); }
  Condition operator<=(Value value) const {
    return compare(Predicate::Operator::lessOrEqual, std::move(value));
  }
  Condition operator<=(const KeyBuilder& key) const { return compare(Predicate::Operator::lessOrEqual, key); }
  Condition operator>(Value value) const { return compare(Predicate::Operator::greater, std::move(value)); }
  Condition operator>(const KeyBuilder& key) const { return compare(Predicate::Operator::greater, key); }
  Condition operator>=(Value value) const {
    return compare(Predicate::Operator::greaterOrEqual, std::move(value));
  }
  Condition operator>=(const KeyBuilder& key) const {
    return compare(Predicate::Operator::greaterOrEqual, key);
  }

 private:
  friend class KeyBuilder;
  using ComparisonSide::ComparisonSide;
};

/// A key, or arithmetic on keys, as a side of a comparison: `key("a") + 1 > key("b")`. A value; any thread.
class QX_EXPORT KeyBuilder : public ComparisonSide {
 public:
  /// `path` is split at its dots. As for %K in a text, SELF at its start, in any case, is the object itself.
  explicit KeyBuilder(std::string_view path);
  /// Of what no key says, such as a subquery. Null counts as nil.
  explicit KeyBuilder(ExpressionPtr expression)
      : ComparisonSide(std::move(expression), Predicate::Modifier::direct) {}

  const ExpressionPtr& expression() const { return expression_; }

  /// Some member, or every member, of the collection.
  MembersBuilder any() const { return {expression_, Predicate::Modifier::any}; }
  MembersBuilder all() const { return {expression_, Predicate::Modifier::all}; }

  KeyBuilder first() const { return element(Expression::Element::first); }
  KeyBuilder last() const { return element(Expression::Element::last); }
  /// The number of elements.
  KeyBuilder size() const { return element(Expression::Element::size); }
  /// The element at that index, from 0, of a list; the entry of that key of a dictionary.
  KeyBuilder at(Value index) const;

 private:
  KeyBuilder element(Expression::Element which) const;
};

/// See KeyBuilder.
inline KeyBuilder key(std::string_view path) {
  return KeyBuilder(path);
}

QX_EXPORT Condition operator==(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator!=(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator<(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator<=(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator>(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator>=(const KeyBuilder& key, Value value);

QX_EXPORT Condition operator==(const KeyBuilder& a, const KeyBuilder& b);
QX_EXPORT Condition operator!=(const KeyBuilder& a, const KeyBuilder& b);
QX_EXPORT Condition operator<(const KeyBuilder& a, const KeyBuilder& b);
QX_EXPORT Condition operator<=(const KeyBuilder& a, const KeyBuilder& b);
QX_EXPORT Condition operator>(const KeyBuilder& a, const KeyBuilder& b);
QX_EXPORT Condition operator>=(const KeyBuilder& a, const KeyBuilder& b);

// Printed in that order: `1 == key`.
QX_EXPORT Condition operator==(Value value, const KeyBuilder& key);
QX_EXPORT Condition operator!=(Value value, const KeyBuilder& key);
QX_EXPORT Condition operator<(Value value, const KeyBuilder& key);
QX_EXPORT Condition operator<=(Value value, const KeyBuilder& key);
QX_EXPORT Condition operator>(Value value, const KeyBuilder& key);
QX_EXPORT Condition operator>=(Value value, const KeyBuilder& key);

// Arithmetic, which is done when the predicate is evaluated.
QX_EXPORT KeyBuilder operator+(const KeyBuilder& a, const KeyBuilder& b);
QX_EXPORT KeyBuilder operator-(const KeyBuilder& a, const KeyBuilder& b);
QX_EXPORT KeyBuilder operator*(const KeyBuilder& a, const KeyBuilder& b);
QX_EXPORT KeyBuilder operator/(const KeyBuilder& a, const KeyBuilder& b);
QX_EXPORT KeyBuilder operator+(const KeyBuilder& key, Value number);
QX_EXPORT KeyBuilder operator-(const KeyBuilder& key, Value number);
QX_EXPORT KeyBuilder operator*(const KeyBuilder& key, Value number);
QX_EXPORT KeyBuilder operator/(const KeyBuilder& key, Value number);
QX_EXPORT KeyBuilder operator+(Value number, const KeyBuilder& key);
QX_EXPORT KeyBuilder operator-(Value number, const KeyBuilder& key);
QX_EXPORT KeyBuilder operator*(Value number, const KeyBuilder& key);
QX_EXPORT KeyBuilder operator/(Value number, const KeyBuilder& key);
QX_EXPORT KeyBuilder operator-(const KeyBuilder& key);
/// `key ** exponent` in the text.
QX_EXPORT KeyBuilder power(const KeyBuilder& key, Value exponent);

QX_EXPORT Condition operator&&(const Condition& a, const Condition& b);
QX_EXPORT Condition operator||(const Condition& a, const Condition& b);
QX_EXPORT Condition operator!(const Condition& a);

}  // namespace qx
