#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

/// What a predicate is evaluated on: anything that answers key paths.
class QX_EXPORT PredicateSubject {
 public:
  virtual ~PredicateSubject() = default;
  /// The value at `keyPath` (one element per component); the null marker when a component is missing or
  /// null. SELF in a predicate asks for the single component "SELF".
  virtual Value valueForKeyPath(const std::vector<std::string>& keyPath) const = 0;
};

class Expression;
using ExpressionPtr = std::shared_ptr<const Expression>;
class Predicate;
using PredicatePtr = std::shared_ptr<const Predicate>;

/// One side of a comparison. Immutable; any thread.
class QX_EXPORT Expression {
 public:
  enum class Kind {
    constant,   // value(); an array constant stands for {a, b}
    keyPath,    // components()
    self,       // SELF
    aggregate,  // members(): {a, key, 1} with at least one member that is no constant
  };

  static ExpressionPtr constant(Value value);
  /// `path` is split at its dots; nothing in it is checked or quoted.
  static ExpressionPtr keyPath(std::string_view path);
  static ExpressionPtr self();
  static ExpressionPtr aggregate(std::vector<ExpressionPtr> members);

  Kind kind() const { return kind_; }
  const Value& value() const { return value_; }
  const std::vector<std::string>& components() const { return components_; }
  const std::vector<ExpressionPtr>& members() const { return members_; }

  Value evaluate(const PredicateSubject& subject) const;
  /// As the language prints it.
  std::string format() const;

 private:
  explicit Expression(Kind kind) : kind_(kind) {}
  Kind kind_;
  Value value_;
  std::vector<std::string> components_;
  std::vector<ExpressionPtr> members_;
};

/// A condition in the predicate-format language: parsed from text, printed back, evaluated in memory,
/// and compiled to SQL by the object store. Immutable; any thread.
///
/// Evaluation is two-valued: a missing value equals only a missing value, so `x != "a"` is true for a
/// missing x.
class QX_EXPORT Predicate {
 public:
  enum class Kind { comparison, conjunction, disjunction, negation, constant };
  enum class Operator {
    equal,
    notEqual,
    less,
    lessOrEqual,
    greater,
    greaterOrEqual,
    in,
  };

  /// Parses `format`; `arguments` stand, left to right, for its %K (a key path), %@ (any value, an array
  /// for a list), %d %i %u %ld %lu %lld %llu %x (integers), %f (a number) and %s (a string). Null for
  /// malformed text, too few arguments or nesting past 200 levels; *error (when given) is then of
  /// NSCocoaErrorDomain, code 2048, and names the text and the position (bytes from its start). Never
  /// throws. Arguments left over are ignored; one that has no text form (not-a-number) is refused.
  static PredicatePtr withFormat(std::string_view format, const std::vector<Value>& arguments = {},
                                 ErrorPtr* error = nullptr);

  static PredicatePtr comparison(ExpressionPtr left, Operator op, ExpressionPtr right);
  /// All of `members`; true when there are none. A null member counts as FALSEPREDICATE, here and below.
  static PredicatePtr conjunction(std::vector<PredicatePtr> members);
  /// Any of `members`; false when there are none.
  static PredicatePtr disjunction(std::vector<PredicatePtr> members);
  static PredicatePtr negation(PredicatePtr member);
  /// TRUEPREDICATE or FALSEPREDICATE.
  static PredicatePtr constant(bool value);

  ~Predicate();  // takes deep trees apart without recursion

  Kind kind() const { return kind_; }
  bool constantValue() const { return constantValue_; }
  Operator comparisonOperator() const { return operator_; }
  const ExpressionPtr& left() const { return left_; }
  const ExpressionPtr& right() const { return right_; }
  const std::vector<PredicatePtr>& members() const { return members_; }

  bool evaluate(const PredicateSubject& subject) const;

  /// The text form, exactly as the language prints it; withFormat() reads it back, unless it holds data,
  /// dictionaries or not-a-number, which have no literal.
  std::string predicateFormat() const;

 private:
  explicit Predicate(Kind kind) : kind_(kind) {}
  Kind kind_;
  bool constantValue_ = false;
  Operator operator_ = Operator::equal;
  ExpressionPtr left_, right_;
  std::vector<PredicatePtr> members_;  // one for a negation
};

/// A predicate under construction: `key(QXESAttributeEventSeverity) >= 2 && key("eventReadStatus") == false`.
/// A type of its own, so that && and ! on it never hide those of a pointer.
class QX_EXPORT Condition {
 public:
  explicit Condition(PredicatePtr predicate) : predicate_(std::move(predicate)) {}
  operator PredicatePtr() const { return predicate_; }  // NOLINT: the whole point

 private:
  PredicatePtr predicate_;
};

/// A key as the left side of a comparison.
class QX_EXPORT KeyBuilder {
 public:
  explicit KeyBuilder(std::string_view path) : expression_(Expression::keyPath(path)) {}
  Condition in(Array values) const;
  Condition compare(Predicate::Operator op, Value value) const;

 private:
  ExpressionPtr expression_;
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
QX_EXPORT Condition operator&&(const Condition& a, const Condition& b);
QX_EXPORT Condition operator||(const Condition& a, const Condition& b);
QX_EXPORT Condition operator!(const Condition& a);

namespace detail {
/// How == compares two values in the language: kinds must agree (numbers among themselves).
QX_EXPORT bool predicateEqual(const Value& a, const Value& b);
}  // namespace detail

}  // namespace qx
