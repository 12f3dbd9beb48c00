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

/// A key, or arithmetic on keys, as a side of a comparison: `key("a") + 1 > key("b")`. Also, as the left
/// side of a comparison, the members of a collection: `key("tags").any() == "x"`. A value; any thread.
class QX_EXPORT KeyBuilder {
 public:
  explicit KeyBuilder(std::string_view path) : expression_(Expression::keyPath(path)) {}
  /// Of what no key says, such as a subquery. Null counts as nil.
  explicit KeyBuilder(ExpressionPtr expression) : expression_(std::move(expression)) {}

  const ExpressionPtr& expression() const { return expression_; }

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
  /// ? stands for one character, * for any run of them.
  Condition like(std::string_view pattern, Predicate::Options options = {}) const;
  /// An ICU regular expression for the whole string; one that is malformed matches nothing.
  Condition matches(std::string_view expression, Predicate::Options options = {}) const;

  /// Some member, or every member, of the collection: counts for comparisons only, not for arithmetic.
  KeyBuilder any() const { return {expression_, Predicate::Modifier::any}; }
  KeyBuilder all() const { return {expression_, Predicate::Modifier::all}; }

  KeyBuilder first() const { return element(Expression::Element::first); }
  KeyBuilder last() const { return element(Expression::Element::last); }
  /// The number of elements.
  KeyBuilder size() const { return element(Expression::Element::size); }
  /// The element at that index, from 0, of a list; the entry of that key of a dictionary.
  KeyBuilder at(Value index) const;

 private:
  KeyBuilder(ExpressionPtr expression, Predicate::Modifier modifier)
      : expression_(std::move(expression)), modifier_(modifier) {}
  KeyBuilder element(Expression::Element which) const;
  Condition comparison(Predicate::Operator op, ExpressionPtr right, Predicate::Options options) const;

  ExpressionPtr expression_;
  Predicate::Modifier modifier_ = Predicate::Modifier::direct;
};

/// `path` is split at its dots.
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
