// Evaluation in memory, two-valued: a missing value equals only a missing value, != is exactly the
// negation of ==, and values of different kinds are unequal and unordered. The SQL that the object store
// compiles gives the same answers.

#include <QXEventStoring/Platform/Predicate.h>

#include <algorithm>
#include <optional>
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

/// What comparing them takes.
std::size_t stepsToCompare(const Value& a, const Value& b, Options options) {
  constexpr std::size_t kBytesPerStep = 64;
  const std::string* const left = a.asString();
  const std::string* const right = b.asString();
  if (left == nullptr || right == nullptr) return a.kind() == b.kind() ? weight(a) : 1;
  return 1 + std::min(left->size(), right->size()) / kBytesPerStep + stepsToFold(*left, options) +
         stepsToFold(*right, options);
}

/// One side of many comparisons: its text is folded once.
class Operand {
 public:
  Operand(const Value& value, Options options) : value_(value), options_(options) {}

  const Value& value() const { return value_; }

  bool equals(const Value& other) const {
    if (!foldsBoth(value_, other, options_) || value_ == other) return predicateEqual(other, value_);
    return foldedText(*other.asString(), options_) == folded();
  }

  /// That of `other` to this one.
  std::partial_ordering orderOf(const Value& other) const {
    if (!foldsBoth(value_, other, options_)) return predicateOrder(other, value_);
    return foldedText(*other.asString(), options_).compare(folded()) <=> 0;
  }

 private:
  const std::string& folded() const {
    if (!folded_) folded_ = foldedText(*value_.asString(), options_);
    return *folded_;
  }

  const Value& value_;
  Options options_;
  mutable std::optional<std::string> folded_;
};

/// A comparison whose right side has its value, ready for one or many left sides. With a budget it charges
/// what it takes, and once that is spent its answers mean nothing.
class Comparison {
 public:
  Comparison(const Predicate& predicate, const Value& right, EvaluationBudget* budget)
      : operator_(predicate.comparisonOperator()),
        options_(predicate.options()),
        right_(right, options_),
        budget_(budget),
        pattern_(predicate.pattern()) {
    const std::string* const text = right.asString();
    if (operator_ < Operator::in || pattern_ != nullptr || text == nullptr) return;
    if (take(stepsToMake(operator_, text->size()) + stepsToFold(*text, options_)))
      pattern_ = TextPattern::make(operator_, *text, options_);
  }

  bool holds(const Value& left) const {
    if (operator_ < Operator::between && !take(stepsToCompare(left, right_.value(), options_))) return false;
    switch (operator_) {
      case Operator::equal:
        return right_.equals(left);
      case Operator::notEqual:
        return !right_.equals(left);
      case Operator::less:
        return std::is_lt(right_.orderOf(left));
      case Operator::lessOrEqual:
        return std::is_lteq(right_.orderOf(left));
      case Operator::greater:
        return std::is_gt(right_.orderOf(left));
      case Operator::greaterOrEqual:
        return std::is_gteq(right_.orderOf(left));
      case Operator::between:
        return isBetween(left);
      case Operator::in:
        return Members(right_.value()) ? hasMember(right_.value(), {left, options_}) : matchesPattern(left);
      case Operator::contains:
        return Members(left) ? hasMember(left, right_) : matchesPattern(left);
      default:
        return matchesPattern(left);
    }
  }

 private:
  bool take(std::size_t steps) const { return budget_ == nullptr || budget_->take(steps); }

  bool isBetween(const Value& left) const {
    const Array* bounds = right_.value().asArray();
    if (left.isNull() || bounds == nullptr || bounds->size() != 2) return false;
    for (const Value& bound : *bounds)
      if (!take(stepsToCompare(left, bound, options_))) return false;
    const Operand operand(left, options_);
    return std::is_lteq(operand.orderOf(bounds->front())) && std::is_gteq(operand.orderOf(bounds->back()));
  }

  bool hasMember(const Value& collection, const Operand& member) const {
    const Members members(collection);
    for (std::size_t i = 0; i < members.size(); ++i) {
      if (!take(stepsToCompare(members[i], member.value(), options_))) return false;
      if (member.equals(members[i])) return true;
    }
    return false;
  }

  bool matchesPattern(const Value& left) const {
    if (pattern_ == nullptr || left.asString() == nullptr) return false;
    std::size_t steps = 1;
    const bool found = pattern_->matches(*left.asString(), &steps);
    return take(steps) && found;
  }

  Operator operator_;
  Options options_;
  Operand right_;
  EvaluationBudget* budget_;                    // null: free of charge
  std::shared_ptr<const TextPattern> pattern_;  // null when the right side is no string
};

bool compare(const Predicate& predicate, const EvaluationScope& scope) {
  const bool isDirect = predicate.modifier() == Predicate::Modifier::direct;
  Value leftStorage;
  Value rightStorage;
  const Value& left = resolve(*predicate.left(), scope, leftStorage);
  const Value& right = resolve(*predicate.right(), scope, rightStorage);
  const Comparison comparison(predicate, right, isDirect && !scope.isRepeated() ? nullptr : scope.budget);
  if (isDirect) return comparison.holds(left);
  const Members members(left);
  if (!members) return false;
  const bool decisive = predicate.modifier() == Predicate::Modifier::any;
  for (std::size_t i = 0; i < members.size() && !scope.budget->isSpent(); ++i)
    if (comparison.holds(members[i]) == decisive) return decisive;
  return !decisive;
}

bool evaluateLeaf(const Predicate& predicate, const EvaluationScope& scope) {
  if (predicate.kind() == Predicate::Kind::constant) return predicate.constantValue();
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
