// Whether predicates and expressions have the same tree.

#include <algorithm>
#include <utility>
#include <vector>

#include <QXEventStoring/Platform/Predicate.h>

namespace qx {

namespace {

bool sameExpressions(const std::vector<ExpressionPtr>& a, const std::vector<ExpressionPtr>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const ExpressionPtr& left, const ExpressionPtr& right) { return *left == *right; });
}

/// Whether a and b agree in all but their members, which are as many.
bool sameNode(const Predicate& a, const Predicate& b) {
  if (a.kind() != b.kind() || a.members().size() != b.members().size()) return false;
  if (a.kind() != Predicate::Kind::comparison) return a.constantValue() == b.constantValue();
  return a.comparisonOperator() == b.comparisonOperator() && a.modifier() == b.modifier() &&
         a.options() == b.options() && *a.left() == *b.left() && *a.right() == *b.right();
}

}  // namespace

bool operator==(const Expression& a, const Expression& b) {
  if (a.kind_ != b.kind_ || a.operation_ != b.operation_ || a.element_ != b.element_) return false;
  if (a.depth_ != b.depth_ || a.name_ != b.name_ || a.components_ != b.components_) return false;
  // The only place where it matters whether a number is an integer, which == does not tell.
  if (a.kind_ == Expression::Kind::arithmetic && a.format() != b.format()) return false;
  if (!(a.value_ == b.value_) || !sameExpressions(a.members_, b.members_)) return false;
  return a.predicate_ == b.predicate_ || (a.predicate_ && b.predicate_ && *a.predicate_ == *b.predicate_);
}

bool operator==(const Predicate& a, const Predicate& b) {
  // Its own stack instead of the thread's: a builder can nest without bound.
  std::vector<std::pair<const Predicate*, const Predicate*>> pending = {{&a, &b}};
  while (!pending.empty()) {
    const auto [left, right] = pending.back();
    pending.pop_back();
    if (left == right) continue;
    if (!sameNode(*left, *right)) return false;
    for (std::size_t i = 0; i < left->members().size(); ++i) {
      pending.emplace_back(left->members()[i].get(), right->members()[i].get());
    }
  }
  return true;
}

}  // namespace qx
