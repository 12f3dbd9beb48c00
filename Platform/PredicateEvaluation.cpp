// Evaluation in memory, two-valued: a missing value equals only a missing value, != is exactly the
// negation of ==, and values of different kinds are unequal and unordered. The SQL that the object store
// compiles gives the same answers.

#include <QXEventStoring/Platform/Predicate.h>

#include <algorithm>
#include <utility>

#include <Platform/EvaluationScope.h>
#include <Platform/TextPattern.h>

namespace qx {

namespace detail {
namespace {

using Operator = Predicate::Operator;
using Options = Predicate::Options;

bool foldsBoth(const Value& a, const Value& b, Options options) {
  return options.any() && a.asString() != nullptr && b.asString() != nullptr;
}

bool isEqual(const Value& a, const Value& b, Options options) {
  if (!foldsBoth(a, b, options) || a == b) return predicateEqual(a, b);
  return foldedText(*a.asString(), options) == foldedText(*b.asString(), options);
}

std::partial_ordering orderOf(const Value& a, const Value& b, Options options) {
  if (!foldsBoth(a, b, options)) return predicateOrder(a, b);
  return foldedText(*a.asString(), options).compare(foldedText(*b.asString(), options)) <=> 0;
}

/// A comparison whose right side has its value, ready for one or many left sides.
class Comparison {
 public:
  Comparison(const Predicate& predicate, const Value& right)
      : operator_(predicate.comparisonOperator()),
        options_(predicate.options()),
        right_(right),
        pattern_(predicate.pattern()) {
    if (operator_ >= Operator::in && pattern_ == nullptr && right.asString() != nullptr)
      pattern_ = TextPattern::make(operator_, *right.asString(), options_);
  }

  bool holds(const Value& left) const {
    switch (operator_) {
      case Operator::equal:
        return isEqual(left, right_, options_);
      case Operator::notEqual:
        return !isEqual(left, right_, options_);
      case Operator::less:
        return std::is_lt(orderOf(left, right_, options_));
      case Operator::lessOrEqual:
        return std::is_lteq(orderOf(left, right_, options_));
      case Operator::greater:
        return std::is_gt(orderOf(left, right_, options_));
      case Operator::greaterOrEqual:
        return std::is_gteq(orderOf(left, right_, options_));
      case Operator::between:
        return isBetween(left);
      case Operator::in:
        return Members(right_) ? hasMember(right_, left) : matchesPattern(left);
      case Operator::contains:
        return Members(left) ? hasMember(left, right_) : matchesPattern(left);
      default:
        return matchesPattern(left);
    }
  }

 private:
  bool isBetween(const Value& left) const {
    const Array* bounds = right_.asArray();
    if (left.isNull() || bounds == nullptr || bounds->size() != 2) return false;
    return std::is_gteq(orderOf(left, bounds->front(), options_)) &&
           std::is_lteq(orderOf(left, bounds->back(), options_));
  }

  bool hasMember(const Value& collection, const Value& member) const {
    const Members members(collection);
    for (std::size_t i = 0; i < members.size(); ++i)
      if (isEqual(members[i], member, options_)) return true;
    return false;
  }

  bool matchesPattern(const Value& left) const {
    return pattern_ != nullptr && left.asString() != nullptr && pattern_->matches(*left.asString());
  }

  Operator operator_;
  Options options_;
  const Value& right_;
  std::shared_ptr<const TextPattern> pattern_;  // null when the right side is no string
};

bool compare(const Predicate& predicate, const EvaluationScope& scope) {
  Value leftStorage;
  Value rightStorage;
  const Value& left = resolve(*predicate.left(), scope, leftStorage);
  const Comparison comparison(predicate, resolve(*predicate.right(), scope, rightStorage));
  if (predicate.modifier() == Predicate::Modifier::direct) return comparison.holds(left);
  const Members members(left);
  if (!members) return false;
  const bool decisive = predicate.modifier() == Predicate::Modifier::any;
  for (std::size_t i = 0; i < members.size(); ++i)
    if (comparison.holds(members[i]) == decisive) return decisive;
  return !decisive;
}

bool evaluateLeaf(const Predicate& predicate, const EvaluationScope& scope) {
  if (predicate.kind() == Predicate::Kind::constant) return predicate.constantValue();
  if (predicate.kind() != Predicate::Kind::comparison)
    return predicate.kind() == Predicate::Kind::conjunction;  // of nothing
  if (scope.budget != nullptr) return scope.budget->take(1) && compare(predicate, scope);
  EvaluationBudget budget;
  EvaluationScope limited = scope;
  limited.budget = &budget;
  return compare(predicate, limited) && !budget.isSpent();
}

/// A compound predicate some of whose members are evaluated.
struct Frame {
  const Predicate* predicate;
  std::size_t nextMember = 1;

  /// Takes the result of the member before `nextMember`; whether that settles the predicate.
  bool settle(bool& result) const {
    if (predicate->kind() == Predicate::Kind::negation) {
      result = !result;
      return true;
    }
    const bool decisive = predicate->kind() == Predicate::Kind::disjunction;
    return result == decisive || nextMember == predicate->members().size();
  }
};

}  // namespace

bool evaluate(const Predicate& predicate, const EvaluationScope& scope) {
  // Its own stack instead of the thread's: a builder can nest without bound.
  std::vector<Frame> open;
  const Predicate* current = &predicate;
  while (true) {
    if (!current->members().empty()) {
      open.push_back({current});
      current = current->members().front().get();
      continue;
    }
    bool result = evaluateLeaf(*current, scope);
    while (!open.empty() && open.back().settle(result))
      open.pop_back();
    if (open.empty()) return result;
    Frame& frame = open.back();
    current = frame.predicate->members()[frame.nextMember++].get();
  }
}

}  // namespace detail

bool Predicate::evaluate(const PredicateSubject& subject) const {
  return detail::evaluate(*this, {subject});
}

}  // namespace qx
