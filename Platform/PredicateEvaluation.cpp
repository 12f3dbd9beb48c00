// Evaluation in memory, two-valued: a missing value equals only a missing value, != is exactly the
// negation of ==, and values of different kinds are unequal and unordered. The SQL that the object store
// compiles gives the same answers.

#include <QXEventStoring/Platform/Predicate.h>

#include <algorithm>
#include <compare>

namespace qx {

namespace {

/// The key under which a subject answers for itself.
constexpr const char* kSelfKey = "SELF";

/// The value of `expression`; a constant is not copied, anything else is put in `storage`.
const Value& resolve(const Expression& expression, const PredicateSubject& subject, Value& storage) {
  if (expression.kind() == Expression::Kind::constant) return expression.value();
  storage = expression.evaluate(subject);
  return storage;
}

std::partial_ordering order(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) return compareNumbers(a, b);
  if (a.kind() != b.kind()) return std::partial_ordering::unordered;
  switch (a.kind()) {
    case Value::Kind::null:
      return std::partial_ordering::equivalent;
    case Value::Kind::string:
      return a.asString()->compare(*b.asString()) <=> 0;
    case Value::Kind::date:
      return *a.asDate() <=> *b.asDate();
    default:
      return std::partial_ordering::unordered;
  }
}

bool isIn(const Value& left, const Value& right) {
  if (const Array* const members = right.asArray()) {
    return std::any_of(members->begin(), members->end(),
                       [&](const Value& member) { return detail::predicateEqual(left, member); });
  }
  if (const Dictionary* const entries = right.asDictionary()) {
    return std::any_of(entries->begin(), entries->end(), [&](const Dictionary::Entry& entry) {
      return detail::predicateEqual(left, entry.second);
    });
  }
  const std::string* const part = left.asString();
  const std::string* const whole = right.asString();
  if (part == nullptr || whole == nullptr || part->empty()) return false;
  return whole->find(*part) != std::string::npos;
}

bool compare(const Value& left, Predicate::Operator op, const Value& right) {
  switch (op) {
    case Predicate::Operator::equal:
      return detail::predicateEqual(left, right);
    case Predicate::Operator::notEqual:
      return !detail::predicateEqual(left, right);
    case Predicate::Operator::less:
      return std::is_lt(order(left, right));
    case Predicate::Operator::lessOrEqual:
      return std::is_lteq(order(left, right));
    case Predicate::Operator::greater:
      return std::is_gt(order(left, right));
    case Predicate::Operator::greaterOrEqual:
      return std::is_gteq(order(left, right));
    case Predicate::Operator::in:
      return isIn(left, right);
    default:
      break;
  }
  return false;
}

bool evaluateLeaf(const Predicate& predicate, const PredicateSubject& subject) {
  switch (predicate.kind()) {
    case Predicate::Kind::constant:
      return predicate.constantValue();
    case Predicate::Kind::comparison: {
      Value left;
      Value right;
      return compare(resolve(*predicate.left(), subject, left), predicate.comparisonOperator(),
                     resolve(*predicate.right(), subject, right));
    }
    default:
      return predicate.kind() == Predicate::Kind::conjunction;  // of nothing
  }
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

namespace detail {

bool predicateEqual(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) return std::is_eq(compareNumbers(a, b));
  return a.kind() == b.kind() && a == b;
}

}  // namespace detail

Value Expression::evaluate(const PredicateSubject& subject) const {
  switch (kind_) {
    case Kind::constant:
      return value_;
    case Kind::keyPath:
      return subject.valueForKeyPath(components_);
    case Kind::self:
      return subject.valueForKeyPath({kSelfKey});
    default:
      break;
  }
  if (kind_ != Kind::aggregate) return {};
  Array values;
  values.reserve(members_.size());
  for (const ExpressionPtr& member : members_)
    values.push_back(member->evaluate(subject));
  return Value(std::move(values));
}

bool Predicate::evaluate(const PredicateSubject& subject) const {
  // Its own stack instead of the thread's: a builder can nest without bound.
  std::vector<Frame> open;
  const Predicate* current = this;
  while (true) {
    if (!current->members_.empty()) {
      open.push_back({current});
      current = current->members_.front().get();
      continue;
    }
    bool result = evaluateLeaf(*current, subject);
    while (!open.empty() && open.back().settle(result))
      open.pop_back();
    if (open.empty()) return result;
    Frame& frame = open.back();
    current = frame.predicate->members()[frame.nextMember++].get();
  }
}

}  // namespace qx
