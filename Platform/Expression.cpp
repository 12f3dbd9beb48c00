// Building expressions. Their depth is bounded here, so that whoever walks one may do it by recursion.

#include <QXEventStoring/Platform/Expression.h>
#include <QXEventStoring/Platform/Predicate.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include <Platform/NilExpression.h>

namespace qx {

namespace {

using detail::orNil;

std::vector<std::string> splitPath(std::string_view path) {
  std::vector<std::string> components;
  for (std::size_t dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.')) {
    components.emplace_back(path.substr(0, dot));
    path.remove_prefix(dot + 1);
  }
  components.emplace_back(path);
  return components;
}

}  // namespace

/// Takes the members over; nil when they nest too deeply.
ExpressionPtr Expression::finish(std::shared_ptr<Expression> expression, std::vector<ExpressionPtr> members) {
  int deepest = expression->predicate_ != nullptr ? expression->predicate_->expressionDepth() : 0;
  for (ExpressionPtr& member : members) {
    member = orNil(std::move(member));
    deepest = std::max(deepest, member->depth_);
  }
  if (deepest >= kDeepest) return constant(Value());
  expression->depth_ = deepest + 1;
  expression->members_ = std::move(members);
  return expression;
}

ExpressionPtr Expression::constant(Value value) {
  std::shared_ptr<Expression> expression(new Expression(Kind::constant));
  expression->value_ = std::move(value);
  return expression;
}

ExpressionPtr Expression::keyPath(std::string_view path) {
  std::shared_ptr<Expression> expression(new Expression(Kind::keyPath));
  expression->components_ = splitPath(path);
  return expression;
}

ExpressionPtr Expression::self() {
  return ExpressionPtr(new Expression(Kind::self));
}

ExpressionPtr Expression::variable(std::string name) {
  std::shared_ptr<Expression> expression(new Expression(Kind::variable));
  expression->name_ = std::move(name);
  return expression;
}

ExpressionPtr Expression::aggregate(std::vector<ExpressionPtr> members) {
  std::transform(members.begin(), members.end(), members.begin(), orNil);
  const bool allConstant = std::all_of(members.begin(), members.end(), [](const ExpressionPtr& member) {
    return member->kind() == Kind::constant;
  });
  if (!allConstant) {
    return finish(std::shared_ptr<Expression>(new Expression(Kind::aggregate)), std::move(members));
  }
  Array values;
  values.reserve(members.size());
  for (const ExpressionPtr& member : members)
    values.push_back(member->value());
  return constant(Value(std::move(values)));
}

ExpressionPtr Expression::arithmetic(ExpressionPtr left, Operation operation, ExpressionPtr right) {
  std::shared_ptr<Expression> expression(new Expression(Kind::arithmetic));
  expression->operation_ = operation;
  return finish(std::move(expression), {std::move(left), std::move(right)});
}

ExpressionPtr Expression::negated(ExpressionPtr operand) {
  std::shared_ptr<Expression> expression(new Expression(Kind::arithmetic));
  expression->operation_ = Operation::negate;
  return finish(std::move(expression), {std::move(operand)});
}

ExpressionPtr Expression::element(ExpressionPtr collection, ExpressionPtr index) {
  return finish(std::shared_ptr<Expression>(new Expression(Kind::element)),
                {std::move(collection), std::move(index)});
}

ExpressionPtr Expression::element(ExpressionPtr collection, Element which) {
  std::shared_ptr<Expression> expression(new Expression(Kind::element));
  expression->element_ = which;
  return finish(std::move(expression), {std::move(collection)});
}

ExpressionPtr Expression::path(ExpressionPtr base, std::string_view path) {
  base = orNil(std::move(base));
  const bool ofSelf = base->kind() == Kind::self && !path.starts_with('@');
  if (ofSelf) return keyPath(path);
  const bool continues = base->kind() == Kind::keyPath || base->kind() == Kind::path;
  std::shared_ptr<Expression> expression(new Expression(continues ? base->kind() : Kind::path));
  if (continues) expression->components_ = base->components_;
  std::vector<std::string> components = splitPath(path);
  std::move(components.begin(), components.end(), std::back_inserter(expression->components_));
  if (continues) return finish(std::move(expression), base->members_);
  return finish(std::move(expression), {std::move(base)});
}

ExpressionPtr Expression::subquery(ExpressionPtr collection, std::string variable, PredicatePtr predicate) {
  std::shared_ptr<Expression> expression(new Expression(Kind::subquery));
  expression->name_ = std::move(variable);
  expression->predicate_ = predicate != nullptr ? std::move(predicate) : Predicate::constant(false);
  return finish(std::move(expression), {std::move(collection)});
}

Expression::~Expression() = default;

}  // namespace qx
