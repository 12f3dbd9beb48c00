// Building predicates and taking them apart.

#include <QXEventStoring/Platform/Predicate.h>

#include <algorithm>
#include <utility>

#include <Platform/NilExpression.h>
#include <Platform/TextPattern.h>

namespace qx {

namespace {

void replaceNull(PredicatePtr& member) {
  if (member == nullptr) member = Predicate::constant(false);
}

/// What AND or OR of at most one member is, so that trees that print alike are equal.
PredicatePtr soleMember(std::vector<PredicatePtr> members, bool ofNone) {
  if (members.empty()) return Predicate::constant(ofNone);
  replaceNull(members.front());
  return std::move(members.front());
}

}  // namespace

PredicatePtr Predicate::comparison(ExpressionPtr left, Operator op, ExpressionPtr right) {
  return comparison(std::move(left), op, std::move(right), Options());
}

PredicatePtr Predicate::comparison(ExpressionPtr left, Operator op, ExpressionPtr right, Options options,
                                   Modifier modifier) {
  std::shared_ptr<Predicate> predicate(new Predicate(Kind::comparison));
  predicate->operator_ = op;
  predicate->options_ = options;
  predicate->modifier_ = modifier;
  predicate->left_ = detail::orNil(std::move(left));
  predicate->right_ = detail::orNil(std::move(right));
  predicate->expressionDepth_ = std::max(predicate->left_->depth(), predicate->right_->depth());
  const bool isConstant = predicate->right_->kind() == Expression::Kind::constant;
  const std::string* text = isConstant ? predicate->right_->value().asString() : nullptr;
  if (text != nullptr && op >= Operator::in)
    predicate->pattern_ = detail::TextPattern::make(op, *text, options);
  return predicate;
}

/// Takes the members over.
PredicatePtr Predicate::compound(Kind kind, std::vector<PredicatePtr> members) {
  std::shared_ptr<Predicate> predicate(new Predicate(kind));
  for (PredicatePtr& member : members) {
    replaceNull(member);
    predicate->expressionDepth_ = std::max(predicate->expressionDepth_, member->expressionDepth_);
  }
  predicate->members_ = std::move(members);
  return predicate;
}

PredicatePtr Predicate::conjunction(std::vector<PredicatePtr> members) {
  if (members.size() < 2) return soleMember(std::move(members), true);
  return compound(Kind::conjunction, std::move(members));
}

PredicatePtr Predicate::disjunction(std::vector<PredicatePtr> members) {
  if (members.size() < 2) return soleMember(std::move(members), false);
  return compound(Kind::disjunction, std::move(members));
}

PredicatePtr Predicate::negation(PredicatePtr member) {
  return compound(Kind::negation, {std::move(member)});
}

PredicatePtr Predicate::constant(bool value) {
  std::shared_ptr<Predicate> predicate(new Predicate(Kind::constant));
  predicate->constantValue_ = value;
  return predicate;
}

Predicate::~Predicate() {
  // The outermost destructor of a thread drops the members one by one; those that it destroys hand it
  // their own members instead of descending into them.
  thread_local std::vector<PredicatePtr>* outermost = nullptr;
  if (members_.empty()) return;
  if (outermost != nullptr) {
    std::move(members_.begin(), members_.end(), std::back_inserter(*outermost));
    return;
  }
  std::vector<PredicatePtr> pending = std::move(members_);
  outermost = &pending;
  while (!pending.empty()) {
    const PredicatePtr dropped = std::move(pending.back());
    pending.pop_back();
  }
  outermost = nullptr;
}

}  // namespace qx
