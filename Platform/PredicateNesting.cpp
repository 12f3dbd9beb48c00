// Where the printed text has parentheses, and how deeply they and other brackets nest in it.

#include "Platform/PredicateNesting.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace qx::detail {

namespace {

bool isNegation(const Expression& expression) {
  return expression.kind() == Expression::Kind::arithmetic &&
         expression.operation() == Expression::Operation::negate;
}

/// Brackets and minus signs of `parent` that a member stands in.
int levelsRound(const Expression& parent, std::size_t member) {
  const int parentheses = isParenthesised(parent, member) ? 1 : 0;
  switch (parent.kind()) {
    case Expression::Kind::aggregate:
    case Expression::Kind::subquery:
      return 1;
    case Expression::Kind::element:
      return member == 0 ? parentheses : 1;
    default:
      return isNegation(parent) ? 1 + parentheses : parentheses;
  }
}

int nesting(const Value& value) {
  if (value.kind() == Value::Kind::date) return 1;  // CAST(...)
  const Array* const members = value.asArray();
  if (members == nullptr) return 0;
  int deepest = 0;
  for (const Value& member : *members)
    deepest = std::max(deepest, nesting(member));
  return deepest + 1;
}

int nesting(const Expression& expression) {
  if (expression.kind() == Expression::Kind::constant) return nesting(expression.value());
  int deepest = 0;
  for (std::size_t i = 0; i < expression.members().size(); ++i) {
    deepest = std::max(deepest, levelsRound(expression, i) + nesting(*expression.members()[i]));
  }
  if (expression.kind() != Expression::Kind::subquery) return deepest;
  return std::max(deepest, 1 + printedNesting(*expression.predicate()));
}

}  // namespace

bool isParenthesised(const Expression& parent, std::size_t member) {
  const Expression& inner = *parent.members()[member];
  const bool arithmetic = inner.kind() == Expression::Kind::arithmetic;
  if (parent.kind() == Expression::Kind::arithmetic && !isNegation(parent)) return arithmetic;
  const bool base = parent.kind() == Expression::Kind::path || parent.kind() == Expression::Kind::element;
  if (member > 0 || (!base && !isNegation(parent))) return false;
  // A bare number would take the sign before it, or the dot behind it, for its own.
  return arithmetic || (inner.kind() == Expression::Kind::constant && inner.value().isNumber());
}

int printedNesting(const Predicate& root) {
  int deepest = 0;
  std::vector<std::pair<const Predicate*, int>> pending = {{&root, 0}};
  while (!pending.empty()) {
    const auto [predicate, level] = pending.back();
    pending.pop_back();
    deepest = std::max(deepest, level);
    if (predicate->kind() == Predicate::Kind::comparison) {
      deepest =
          std::max({deepest, level + nesting(*predicate->left()), level + nesting(*predicate->right())});
    }
    const bool negation = predicate->kind() == Predicate::Kind::negation;
    for (const PredicatePtr& member : predicate->members()) {
      pending.emplace_back(member.get(), negation || !member->members().empty() ? level + 1 : level);
    }
  }
  return deepest;
}

}  // namespace qx::detail
