#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/Expression.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

namespace detail {
class TextPattern;
}

/// What stands for the % conversions of a predicate's text: `{"key", 5}`. A list in braces, `{list}`, is one
/// argument; without them, `list` is all of the arguments. A value; any thread.
class QX_EXPORT FormatArguments {
 public:
  FormatArguments() = default;
  FormatArguments(std::initializer_list<Value> values) : values_(values) {}
  FormatArguments(std::vector<Value> values) : values_(std::move(values)) {}  // NOLINT: the whole point

  const std::vector<Value>& values() const { return values_; }

 private:
  std::vector<Value> values_;
};

/// A condition in the predicate-format language: parsed from text, printed back, evaluated in memory,
/// and compiled to SQL by the object store. Immutable; any thread.
///
/// Evaluation is two-valued: a missing value equals only a missing value, so `x != "a"` is true for a
/// missing x; no text operator is ever true for one. Text is compared byte by byte unless options say
/// otherwise.
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
    between,     // right: a list of two, both ends included
    in,          // right: a list, a dictionary (its values), or a string (is left a part of it?)
    contains,    // left: a list or a string
    beginsWith,  // an empty string is no part of any string, here and in the other two
    endsWith,
    like,     // ? one character, * any run, \ makes the next one literal; the whole string
    matches,  // an ICU regular expression, of the whole string
  };
  /// How the left side counts when it is a collection.
  enum class Modifier {
    direct,
    any,  // true for some member
    all,  // true for every member, also of none; false for what is no collection, as any is
  };
  /// The letters behind an operator: `==[cd]`.
  struct Options {
    bool caseInsensitive = false;       // c: full Unicode case folding
    bool diacriticInsensitive = false;  // d: without the marks of the decomposed text
    bool normalized = false;  // n: the texts are normalised already: byte by byte, whatever c and d say
    bool any() const { return caseInsensitive || diacriticInsensitive || normalized; }
    friend bool operator==(const Options&, const Options&) = default;
  };

  /// Parses `format`; `arguments` stand, left to right, for its %K (a key path), %@ (any value, an array
  /// for a list), %d %i %u %ld %lu %lld %llu %x (integers), %f (a number) and %s (a string). Arguments left
  /// over are ignored; data and dictionaries are taken, although they have no text form.
  ///
  /// Null, and nothing thrown (but for memory), for: malformed text; too few arguments, or one of the wrong
  /// kind, an empty key path, not-a-number or a date without a moment; BETWEEN without a list of two and IN
  /// without anything to look in; a regular expression that cannot be used (see
  /// ComparisonSide::matches()), or several of more than 65,536 bytes together; nesting past 200 levels; more
  /// than 1,000,000 comparisons, expressions and components of keys (those in arguments not counted). *error
  /// (when given) is then of NSCocoaErrorDomain, code 2048, and names the text, the position (bytes from its
  /// start) and the reason; else it is cleared.
  static PredicatePtr withFormat(std::string_view format, const FormatArguments& arguments = {},
                                 ErrorPtr* error = nullptr);

  static PredicatePtr comparison(ExpressionPtr left, Operator op, ExpressionPtr right);
  static PredicatePtr comparison(ExpressionPtr left, Operator op, ExpressionPtr right, Options options,
                                 Modifier modifier = Modifier::direct);
  /// All of `members`; the only one itself, TRUEPREDICATE when there are none. A null member counts as
  /// FALSEPREDICATE, here and below.
  static PredicatePtr conjunction(std::vector<PredicatePtr> members);
  /// Any of `members`; the only one itself, FALSEPREDICATE when there are none.
  static PredicatePtr disjunction(std::vector<PredicatePtr> members);
  static PredicatePtr negation(PredicatePtr member);
  /// TRUEPREDICATE or FALSEPREDICATE.
  static PredicatePtr constant(bool value);

  ~Predicate();  // takes deep trees apart without recursion

  Kind kind() const { return kind_; }
  bool constantValue() const { return constantValue_; }
  Operator comparisonOperator() const { return operator_; }
  Options options() const { return options_; }
  Modifier modifier() const { return modifier_; }
  const ExpressionPtr& left() const { return left_; }
  const ExpressionPtr& right() const { return right_; }
  /// One for a negation, two or more for a conjunction or disjunction, else none.
  const std::vector<PredicatePtr>& members() const { return members_; }
  /// What the right side of a text operator was made into when it is a constant string; else null.
  const std::shared_ptr<const detail::TextPattern>& pattern() const { return pattern_; }
  /// Levels of the deepest expression in it; 0 when there is none.
  int expressionDepth() const { return expressionDepth_; }

  /// Whether it is true of `subject`. Never fails, and ends whatever the predicate: a comparison whose
  /// subqueries and whose ANY or ALL take more than some 2,000,000 steps (a member looked at, a few dozen
  /// bytes copied or matched), well under a second, is false, and so is one with a regular expression that
  /// takes too long for its text. Steps are counted, so that the answer is the same everywhere.
  bool evaluate(const PredicateSubject& subject) const;

  /// The text form, exactly as the language prints it. withFormat() reads it back as an equal predicate, but
  /// for dates, which have six decimals of a second, and unless it holds what has no text form: data,
  /// dictionaries, not-a-number, dates without a moment, keys or variables that are no names; or what
  /// withFormat() refuses: see there, for its limits too.
  std::string predicateFormat() const;

  /// Whether both have the same tree; see Expression.
  friend QX_EXPORT bool operator==(const Predicate& a, const Predicate& b);

 private:
  explicit Predicate(Kind kind) : kind_(kind) {}
  static PredicatePtr compound(Kind kind, std::vector<PredicatePtr> members);
  Kind kind_;
  bool constantValue_ = false;
  Operator operator_ = Operator::equal;
  Modifier modifier_ = Modifier::direct;
  Options options_;
  int expressionDepth_ = 0;
  ExpressionPtr left_, right_;
  std::vector<PredicatePtr> members_;
  std::shared_ptr<const detail::TextPattern> pattern_;  // of a constant right side of a text operator
};

namespace detail {
/// How == compares two values in the language: kinds must agree (numbers among themselves).
QX_EXPORT bool predicateEqual(const Value& a, const Value& b);
}  // namespace detail

}  // namespace qx
