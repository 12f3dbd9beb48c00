#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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
///
/// Evaluation never fails: what has no value (a missing key, an unbound variable, arithmetic on something
/// that is no number, an integer divided by zero) is the null marker.
class QX_EXPORT Expression {
 public:
  enum class Kind {
    constant,    // value(); an array constant stands for {a, b}
    keyPath,     // components(): a.b, a.@count
    self,        // SELF
    variable,    // name(): $x, bound by a subquery around it
    aggregate,   // members(): {a, key, 1} with at least one member that is no constant
    arithmetic,  // operation(), members(): one for negate, else two
    element,     // base()[...]: element(), and for Element::at the index in members()[1]
    path,        // components() of what base() gives: $x.a, SUBQUERY(...).@count
    subquery,    // those of base() for which predicate(), with name() bound to each, is true
  };
  enum class Operation { add, subtract, multiply, divide, power, negate };
  enum class Element { at, first, last, size };

  /// Built expressions nest no deeper than this, those inside a subquery's predicate counted with it; what
  /// would is made the constant nil instead. The parser refuses text already past 200 levels, so that a
  /// built expression between the two is printed but not read back.
  static constexpr int kDeepest = 400;

  static ExpressionPtr constant(Value value);
  /// `path` is split at its dots; nothing in it is checked or quoted.
  static ExpressionPtr keyPath(std::string_view path);
  static ExpressionPtr self();
  /// `name` without its $.
  static ExpressionPtr variable(std::string name);
  static ExpressionPtr aggregate(std::vector<ExpressionPtr> members);
  static ExpressionPtr arithmetic(ExpressionPtr left, Operation operation, ExpressionPtr right);
  static ExpressionPtr negated(ExpressionPtr operand);
  /// collection[index]: the element at that position, from 0, of an array; the entry of that key of a
  /// dictionary.
  static ExpressionPtr element(ExpressionPtr collection, ExpressionPtr index);
  /// collection[FIRST], [LAST] or [SIZE]; `which` is not Element::at.
  static ExpressionPtr element(ExpressionPtr collection, Element which);
  /// `path` is split at its dots. It continues a key path or another path, and a path of SELF is a key path
  /// unless it begins with an operator such as @count.
  static ExpressionPtr path(ExpressionPtr base, std::string_view path);
  /// `variable` without its $.
  static ExpressionPtr subquery(ExpressionPtr collection, std::string variable, PredicatePtr predicate);

  ~Expression();

  Kind kind() const { return kind_; }
  const Value& value() const { return value_; }
  const std::vector<std::string>& components() const { return components_; }
  const std::string& name() const { return name_; }
  const std::vector<ExpressionPtr>& members() const { return members_; }
  const ExpressionPtr& base() const { return members_.front(); }
  Operation operation() const { return operation_; }
  Element element() const { return element_; }
  const PredicatePtr& predicate() const { return predicate_; }
  /// Levels of expressions in it, 1 for a constant or a key.
  int depth() const { return depth_; }

  /// Its value on `subject`; nil when that takes more steps than one comparison may. See
  /// Predicate::evaluate().
  Value evaluate(const PredicateSubject& subject) const;
  /// As the language prints it.
  std::string format() const;

  /// Whether both print the same text and mean the same: numbers by value, so that TRUE equals 1.
  friend QX_EXPORT bool operator==(const Expression& a, const Expression& b);

 private:
  explicit Expression(Kind kind) : kind_(kind) {}
  static ExpressionPtr finish(std::shared_ptr<Expression> expression, std::vector<ExpressionPtr> members);
  Kind kind_;
  Operation operation_ = Operation::add;
  Element element_ = Element::at;
  int depth_ = 1;
  Value value_;
  std::vector<std::string> components_;
  std::string name_;
  std::vector<ExpressionPtr> members_;
  PredicatePtr predicate_;
};

}  // namespace qx
