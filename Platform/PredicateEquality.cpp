// Whether predicates and expressions have the same tree.

#include <QXEventStoring/Platform/Predicate.h>

#include <cmath>
#include <utility>
#include <vector>

#include <Platform/EvaluationScope.h>

namespace qx {

namespace {

using Kind = Expression::Kind;

/// Whether equal constants are integers and reals in the same places: 1 / 2 is 0 and 1 / 2.0 is not.
bool sameKinds(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) {
    const double* const left = a.asReal();
    const double* const right = b.asReal();
    if (left == nullptr || right == nullptr) return left == right;
    return std::signbit(*left) == std::signbit(*right);
  }
  const detail::Members left(a);
  const detail::Members right(b);
  for (std::size_t i = 0; i < left.size() && i < right.size(); ++i)
    if (!sameKinds(left[i], right[i])) return false;
  return true;
}

bool sameExpression(const Expression& a, const Expression& b, bool kindsCount);

/// Whether kinds of numbers count in the member of that number: arithmetic tells them apart, also that on
/// the variable of a subquery.
bool kindsCountIn(const Expression& parent, std::size_t member, bool kindsCount) {
  if (parent.kind() == Kind::arithmetic || parent.kind() == Kind::subquery) return true;
  return kindsCount && (parent.kind() != Kind::element || member == 0);
}

bool sameMembers(const Expression& a, const Expression& b, bool kindsCount) {
  if (a.members().size() != b.members().size()) return false;
  for (std::size_t i = 0; i < a.members().size(); ++i)
    if (!sameExpression(*a.members()[i], *b.members()[i], kindsCountIn(a, i, kindsCount))) return false;
  return true;
}

bool sameExpression(const Expression& a, const Expression& b, bool kindsCount) {
  if (&a == &b) return true;
  if (a.kind() != b.kind() || a.operation() != b.operation() || a.element() != b.element()) return false;
  if (a.depth() != b.depth() || a.name() != b.name() || a.components() != b.components()) return false;
  if (!(a.value() == b.value()) || (kindsCount && !sameKinds(a.value(), b.value()))) return false;
  if (!sameMembers(a, b, kindsCount)) return false;
  if (a.predicate() == nullptr || b.predicate() == nullptr) return a.predicate() == b.predicate();
  return *a.predicate() == *b.predicate();
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
  return sameExpression(a, b, false);
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
