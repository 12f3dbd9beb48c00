#pragma once

#include <compare>
#include <cstddef>
#include <string>

#include <QXEventStoring/Platform/Predicate.h>

namespace qx::detail {

/// What the evaluation of one comparison may still cost. Subqueries in subqueries multiply: without a bound
/// a short predicate could run, or copy values, for ever. The answer is the same wherever it is asked for,
/// since steps are counted and no time is taken.
class EvaluationBudget {
 public:
  static constexpr std::size_t kSteps = 2'000'000;
  explicit EvaluationBudget(std::size_t steps = kSteps) : left_(steps) {}

  /// Whether that many more steps of some 20 ns (members looked at, values copied, texts matched) are left.
  bool take(std::size_t steps) {
    left_ = steps < left_ ? left_ - steps : 0;
    return left_ > 0;
  }
  bool isSpent() const { return left_ == 0; }

 private:
  std::size_t left_;
};

/// What an expression is evaluated on: the subject, and the variables of the subqueries around it.
struct EvaluationScope {
  const PredicateSubject& subject;
  EvaluationBudget* budget = nullptr;  // of the comparison; null outside of one
  const EvaluationScope* outer = nullptr;
  const std::string* variable = nullptr;  // what this scope binds, and to what
  const Value* value = nullptr;

  /// Whether it is evaluated for each member of something. What is done once is as long as the predicate and
  /// its subject, and costs nothing: SQL, which has no budget, does some of it.
  bool isRepeated() const { return outer != nullptr; }
};

/// How many steps it takes to copy `value` or to compare all of it.
std::size_t weight(const Value& value);

/// The value of `expression`: a reference where there is one, else to what is put in `storage`.
const Value& resolve(const Expression& expression, const EvaluationScope& scope, Value& storage);
bool evaluate(const Predicate& predicate, const EvaluationScope& scope);

/// How < and its kin order two values: unordered when the kinds differ or have no order.
std::partial_ordering predicateOrder(const Value& a, const Value& b);

/// The members of an array or the values of a dictionary; false for any other value.
class Members {
 public:
  explicit Members(const Value& value) : array_(value.asArray()), dictionary_(value.asDictionary()) {}
  explicit operator bool() const { return array_ != nullptr || dictionary_ != nullptr; }
  std::size_t size() const {
    if (array_ != nullptr) return array_->size();
    return dictionary_ != nullptr ? dictionary_->size() : 0;
  }
  const Value& operator[](std::size_t at) const {
    return array_ != nullptr ? (*array_)[at] : dictionary_->begin()[at].second;
  }

 private:
  const Array* array_;
  const Dictionary* dictionary_;
};

}  // namespace qx::detail
