// Building predicates and taking them apart.

#include <QXEventStoring/Platform/Predicate.h>

#include <algorithm>
#include <utility>

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

void replaceNull(PredicatePtr& member) {
  if (member == nullptr) member = Predicate::constant(false);
}

ExpressionPtr orNil(ExpressionPtr expression) {
  return expression != nullptr ? std::move(expression) : Expression::constant(Value());
}

}  // namespace

ExpressionPtr Expression::constant(Value value) {
  std::shared_ptr<Expression> expression(new Expression(Kind::constant));
  expression->value_ = std::move(value);
  return expression;
}

ExpressionPtr Expression::keyPath(std::string_view path) {
  std::shared_ptr<Expression> expression(new Expression(Kind::keyPath));
  for (std::size_t dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.')) {
    expression->components_.emplace_back(path.substr(0, dot));
    path.remove_prefix(dot + 1);
  }
  expression->components_.emplace_back(path);
  return expression;
}

ExpressionPtr Expression::self() {
  return ExpressionPtr(new Expression(Kind::self));
}

ExpressionPtr Expression::aggregate(std::vector<ExpressionPtr> members) {
  std::transform(members.begin(), members.end(), members.begin(), orNil);
  const bool allConstant = std::all_of(members.begin(), members.end(), [](const ExpressionPtr& member) {
    return member->kind() == Kind::constant;
  });
  if (allConstant) {
    Array values;
    values.reserve(members.size());
    for (const ExpressionPtr& member : members)
      values.push_back(member->value());
    return constant(Value(std::move(values)));
  }
  std::shared_ptr<Expression> expression(new Expression(Kind::aggregate));
  expression->members_ = std::move(members);
  return expression;
}

PredicatePtr Predicate::comparison(ExpressionPtr left, Operator op, ExpressionPtr right) {
  std::shared_ptr<Predicate> predicate(new Predicate(Kind::comparison));
  predicate->operator_ = op;
  predicate->left_ = orNil(std::move(left));
  predicate->right_ = orNil(std::move(right));
  return predicate;
}

PredicatePtr Predicate::conjunction(std::vector<PredicatePtr> members) {
  std::shared_ptr<Predicate> predicate(new Predicate(Kind::conjunction));
  std::for_each(members.begin(), members.end(), replaceNull);
  predicate->members_ = std::move(members);
  return predicate;
}

PredicatePtr Predicate::disjunction(std::vector<PredicatePtr> members) {
  std::shared_ptr<Predicate> predicate(new Predicate(Kind::disjunction));
  std::for_each(members.begin(), members.end(), replaceNull);
  predicate->members_ = std::move(members);
  return predicate;
}

PredicatePtr Predicate::negation(PredicatePtr member) {
  std::shared_ptr<Predicate> predicate(new Predicate(Kind::negation));
  replaceNull(member);
  predicate->members_.push_back(std::move(member));
  return predicate;
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

Condition KeyBuilder::in(Array values) const {
  return compare(Predicate::Operator::in, Value(std::move(values)));
}

Condition KeyBuilder::compare(Predicate::Operator op, Value value) const {
  return Condition(Predicate::comparison(expression_, op, Expression::constant(std::move(value))));
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
