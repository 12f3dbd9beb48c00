// The values of expressions. What has none is the null marker; nothing fails. The operators of key paths
// and how they treat missing values: "Key-Value Coding Programming Guide", Using Collection Operators.

#include <Platform/EvaluationScope.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace qx {

namespace detail {

std::size_t weight(const Value& value) {
  constexpr std::size_t kBytesPerStep = 64;
  if (const std::string* text = value.asString()) return 1 + text->size() / kBytesPerStep;
  const Members members(value);
  std::size_t result = 1;
  for (std::size_t i = 0; i < members.size(); ++i)
    result += weight(members[i]);
  return result;
}

namespace {

using Operation = Expression::Operation;
using Component = std::vector<std::string>::const_iterator;

__extension__ typedef __int128 Wide;  // NOLINT: holds every sum, difference and quotient of 64-bit integers

Value copied(const Value& value, const EvaluationScope& scope) {
  return scope.budget->take(weight(value)) ? value : Value();
}

// --- arithmetic

std::optional<Wide> wholeOf(const Value& value) {
  if (const bool* boolean = value.asBool()) return Wide{*boolean ? 1 : 0};
  if (const std::int64_t* integer = value.asInteger()) return Wide{*integer};
  if (const std::uint64_t* integer = value.asUnsigned()) return Wide{*integer};
  return std::nullopt;
}

Value numberOf(Wide whole) {
  if (whole >= std::numeric_limits<std::int64_t>::min() && whole <= std::numeric_limits<std::int64_t>::max())
    return static_cast<std::int64_t>(whole);
  if (whole >= 0 && whole <= std::numeric_limits<std::uint64_t>::max())
    return static_cast<std::uint64_t>(whole);
  return static_cast<double>(whole);
}

Value calculateReal(double a, Operation operation, double b) {
  switch (operation) {
    case Operation::add:
      return a + b;
    case Operation::subtract:
      return a - b;
    case Operation::multiply:
      return a * b;
    case Operation::divide:
      return a / b;
    case Operation::power:
      return std::pow(a, b);
    case Operation::negate:
      return -a;
  }
  return {};
}

Value calculate(const Value& a, Operation operation, const Value& b) {
  if (!a.isNumber() || !b.isNumber()) return {};
  const std::optional<Wide> left = wholeOf(a);
  const std::optional<Wide> right = wholeOf(b);
  if (!left || !right || operation == Operation::power)
    return calculateReal(a.doubleValue(), operation, b.doubleValue());
  Wide product = 0;
  switch (operation) {
    case Operation::add:
      return numberOf(*left + *right);
    case Operation::subtract:
      return numberOf(*left - *right);
    case Operation::multiply:
      if (__builtin_mul_overflow(*left, *right, &product)) return a.doubleValue() * b.doubleValue();
      return numberOf(product);
    case Operation::divide:
      return *right != 0 ? numberOf(*left / *right) : Value();
    default:
      return numberOf(-*left);
  }
}

// --- key paths

Value sumOf(const Members& members) {
  Value sum = 0;
  for (std::size_t i = 0; i < members.size() && !sum.isNull(); ++i)
    if (!members[i].isNull()) sum = calculate(sum, Operation::add, members[i]);
  return sum;
}

/// The least member in the order that `isBetter` says; null when two of them have no order.
template <class IsBetter>
Value bestOf(const Members& members, IsBetter&& isBetter) {
  const Value* best = nullptr;
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (members[i].isNull()) continue;
    if (best == nullptr) best = &members[i];
    const std::partial_ordering order = predicateOrder(members[i], *best);
    if (order == std::partial_ordering::unordered) return {};
    if (isBetter(order)) best = &members[i];
  }
  return best != nullptr ? *best : Value();
}

Value collected(const std::string& name, const Value& collection, const EvaluationScope& scope) {
  const Members members(collection);
  if (!members || (scope.isRepeated() && !scope.budget->take(members.size()))) return {};
  const auto count = static_cast<std::int64_t>(members.size());
  if (name == "@count") return count;
  if (name == "@sum") return sumOf(members);
  if (name == "@min") return bestOf(members, [](std::partial_ordering order) { return std::is_lt(order); });
  if (name == "@max") return bestOf(members, [](std::partial_ordering order) { return std::is_gt(order); });
  if (name != "@avg" || count == 0) return {};
  const Value sum = sumOf(members);
  return sum.isNull() ? Value() : Value(sum.doubleValue() / static_cast<double>(count));
}

bool isOperator(const std::string& component) {
  return component.starts_with('@');
}

/// Down through dictionaries; through an array to the array of what its members give.
Value valueAlong(const Value& base, Component first, Component last, const EvaluationScope& scope) {
  const Value* value = &base;
  for (; first != last; ++first) {
    if (const Array* members = value->asArray()) {
      if (!scope.budget->take(members->size())) return {};
      Array values;
      values.reserve(members->size());
      for (const Value& member : *members)
        values.push_back(valueAlong(member, first, last, scope));
      return Value(std::move(values));
    }
    const Dictionary* entries = value->asDictionary();
    value = entries != nullptr ? entries->find(*first) : nullptr;
    if (value == nullptr) return {};
  }
  return copied(*value, scope);
}

/// The rest of a key path, from `base` on: keys, then at most one operator, then keys of what it collects.
Value valueAt(const Value& base, Component first, Component last, const EvaluationScope& scope) {
  const Component operation = std::find_if(first, last, isOperator);
  if (operation == last) return valueAlong(base, first, last, scope);
  if (operation == first && last - first == 1) return collected(*operation, base, scope);
  if (std::any_of(operation + 1, last, isOperator)) return {};
  const Value collection = valueAlong(base, first, operation, scope);
  if (operation + 1 == last || *operation == "@count") return collected(*operation, collection, scope);
  return collected(*operation, valueAlong(collection, operation + 1, last, scope), scope);
}

Value valueOfSelf(const PredicateSubject& subject) {
  static const auto* const kSelf = new std::vector<std::string>{"SELF"};
  return subject.valueForKeyPath(*kSelf);
}

/// A subject answers for its own keys; arrays on the way and operators behind them are our business.
Value valueOfKeys(const std::vector<std::string>& components, const EvaluationScope& scope) {
  const Component operation = std::find_if(components.begin(), components.end(), isOperator);
  if (operation == components.begin())
    return valueAt(valueOfSelf(scope.subject), operation, components.end(), scope);
  if (operation != components.end()) {
    const Value base = valueOfKeys({components.begin(), operation}, scope);
    return valueAt(base, operation, components.end(), scope);
  }
  Value value = scope.subject.valueForKeyPath(components);
  if (!value.isNull() || components.size() == 1) return value;
  for (Component last = components.end() - 1; last != components.begin(); --last) {
    const Value base = scope.subject.valueForKeyPath({components.begin(), last});
    if (base.isNull() && scope.budget->take(components.size())) continue;
    return base.asArray() != nullptr ? valueAlong(base, last, components.end(), scope) : Value();
  }
  return {};
}

// --- collections

Value elementOf(const Value& collection, const Value& index, const EvaluationScope& scope) {
  if (const Dictionary* entries = collection.asDictionary()) {
    const Value* entry = index.asString() != nullptr ? entries->find(*index.asString()) : nullptr;
    return entry != nullptr ? copied(*entry, scope) : Value();
  }
  const Array* members = collection.asArray();
  if (members == nullptr || !index.isNumber()) return {};
  const std::int64_t at = index.integerValue();
  const bool isIn = at >= 0 && static_cast<std::uint64_t>(at) < members->size() && predicateEqual(at, index);
  return isIn ? copied((*members)[static_cast<std::size_t>(at)], scope) : Value();
}

Value elementOf(const Value& collection, Expression::Element which, const EvaluationScope& scope) {
  const Members members(collection);
  if (!members) return {};
  if (which == Expression::Element::size) return static_cast<std::int64_t>(members.size());
  if (collection.asArray() == nullptr || members.size() == 0) return {};
  return copied(members[which == Expression::Element::first ? 0 : members.size() - 1], scope);
}

Value subquery(const Expression& expression, const EvaluationScope& scope) {
  Value storage;
  const Members members(resolve(*expression.base(), scope, storage));
  if (!members) return {};
  Array selected;
  for (std::size_t i = 0; i < members.size() && scope.budget->take(1); ++i) {
    const EvaluationScope inner{scope.subject, scope.budget, &scope, &expression.name(), &members[i]};
    if (evaluate(*expression.predicate(), inner)) selected.push_back(copied(members[i], scope));
  }
  return Value(std::move(selected));
}

Value aggregate(const Expression& expression, const EvaluationScope& scope) {
  Array values;
  values.reserve(expression.members().size());
  for (const ExpressionPtr& member : expression.members()) {
    Value storage;
    const Value& value = resolve(*member, scope, storage);
    values.push_back(&value == &storage ? std::move(storage) : copied(value, scope));
  }
  return Value(std::move(values));
}

Value arithmetic(const Expression& expression, const EvaluationScope& scope) {
  Value leftStorage;
  const Value& left = resolve(*expression.members().front(), scope, leftStorage);
  if (expression.operation() == Operation::negate) return calculate(left, Operation::negate, 0);
  Value rightStorage;
  return calculate(left, expression.operation(), resolve(*expression.members().back(), scope, rightStorage));
}

Value element(const Expression& expression, const EvaluationScope& scope) {
  Value storage;
  const Value& collection = resolve(*expression.base(), scope, storage);
  if (expression.element() != Expression::Element::at)
    return elementOf(collection, expression.element(), scope);
  Value indexStorage;
  return elementOf(collection, resolve(*expression.members().back(), scope, indexStorage), scope);
}

Value path(const Expression& expression, const EvaluationScope& scope) {
  const auto& components = expression.components();
  if (expression.base()->kind() == Expression::Kind::self) return valueOfKeys(components, scope);
  Value storage;
  return valueAt(resolve(*expression.base(), scope, storage), components.begin(), components.end(), scope);
}

const Value& valueOfVariable(const std::string& name, const EvaluationScope& scope) {
  static const Value kUnbound;
  for (const EvaluationScope* each = &scope; each != nullptr; each = each->outer)
    if (each->variable != nullptr && *each->variable == name) return *each->value;
  return kUnbound;
}

/// What the subject answered; it may have copied much.
Value answered(Value value, const EvaluationScope& scope) {
  return !scope.isRepeated() || scope.budget->take(weight(value)) ? std::move(value) : Value();
}

/// Expressions nest at most Expression::kDeepest levels deep: those that hold others are told apart in small
/// functions, so that a level takes little of the stack.
Value evaluate(const Expression& expression, const EvaluationScope& scope) {
  if (!scope.budget->take(1)) return {};
  switch (expression.kind()) {
    case Expression::Kind::keyPath:
      return answered(valueOfKeys(expression.components(), scope), scope);
    case Expression::Kind::self:
      return answered(valueOfSelf(scope.subject), scope);
    case Expression::Kind::aggregate:
      return aggregate(expression, scope);
    case Expression::Kind::arithmetic:
      return arithmetic(expression, scope);
    case Expression::Kind::element:
      return element(expression, scope);
    case Expression::Kind::path:
      return path(expression, scope);
    case Expression::Kind::subquery:
      return subquery(expression, scope);
    default:
      return {};
  }
}

}  // namespace

const Value& resolve(const Expression& expression, const EvaluationScope& scope, Value& storage) {
  if (expression.kind() == Expression::Kind::constant) return expression.value();
  if (expression.kind() == Expression::Kind::variable) return valueOfVariable(expression.name(), scope);
  storage = evaluate(expression, scope);
  return storage;
}

std::partial_ordering predicateOrder(const Value& a, const Value& b) {
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

bool predicateEqual(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) return std::is_eq(compareNumbers(a, b));
  return a.kind() == b.kind() && a == b;
}

}  // namespace detail

Value Expression::evaluate(const PredicateSubject& subject) const {
  detail::EvaluationBudget budget;
  Value storage;
  const Value& value = detail::resolve(*this, {subject, &budget}, storage);
  if (budget.isSpent()) return {};
  return value;
}

}  // namespace qx
