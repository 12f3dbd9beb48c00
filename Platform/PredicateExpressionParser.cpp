// Expressions: arithmetic, paths and indices, and what they begin with.

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "Platform/PredicateKeyPath.h"
#include "Platform/PredicateParser.h"

namespace qx::detail {

namespace {

using TokenKind = PredicateToken::Kind;
using Word = PredicateWord;

struct BinaryOperation {
  Expression::Operation operation;
  int binding;  // the tighter the greater
};

std::optional<BinaryOperation> binaryOperation(Word word) {
  using Operation = Expression::Operation;
  switch (word) {
    case Word::plus:
      return BinaryOperation{Operation::add, 0};
    case Word::minus:
      return BinaryOperation{Operation::subtract, 0};
    case Word::times:
      return BinaryOperation{Operation::multiply, 1};
    case Word::dividedBy:
      return BinaryOperation{Operation::divide, 1};
    case Word::raisedTo:
      return BinaryOperation{Operation::power, 2};
    default:
      return std::nullopt;
  }
}

Value negated(const Value& number) {
  if (const std::int64_t* const integer = number.asInteger()) return Value(-*integer);
  constexpr std::uint64_t kLowestMagnitude = std::uint64_t{1} << 63;
  const std::uint64_t* const magnitude = number.asUnsigned();
  if (magnitude != nullptr && *magnitude == kLowestMagnitude) {
    return Value(std::numeric_limits<std::int64_t>::min());
  }
  return Value(-number.doubleValue());
}

void appendComponent(std::string& path, std::string_view component) {
  if (!path.empty()) path += '.';
  path += component;
}

/// Whether it is a constant, or arithmetic on nothing else.
bool isCalculation(const Expression& expression) {
  if (expression.kind() == Expression::Kind::constant) return true;
  return expression.kind() == Expression::Kind::arithmetic &&
         std::all_of(expression.members().begin(), expression.members().end(),
                     [](const ExpressionPtr& member) { return isCalculation(*member); });
}

class NoSubject : public PredicateSubject {
 public:
  Value valueForKeyPath(const std::vector<std::string>&) const override { return {}; }
};

}  // namespace

ExpressionPtr PredicateParser::needExpression(Operand operand) {
  if (operand.predicate != nullptr) fail(operand.position, "expected a key or a value, found a predicate");
  return std::move(operand.expression);
}

ExpressionPtr PredicateParser::withinLimit(ExpressionPtr expression, std::size_t position) {
  if (expression->depth() <= kNestingLimit) return expression;
  fail(position, "nested too deeply");
  return nullptr;
}

ExpressionPtr PredicateParser::parseExpression() {
  return needExpression(parseArithmetic());
}

PredicateParser::Operand PredicateParser::parseArithmetic(int lowest) {
  Operand left = parseMinus();
  while (left.expression != nullptr) {
    const std::optional<BinaryOperation> next = binaryOperation(token_.word);
    if (!next || next->binding < lowest) break;
    const std::size_t position = token_.position;
    advance();
    ExpressionPtr right = needExpression(parseArithmetic(next->binding + 1));
    if (right == nullptr || !countPart(position)) return {};
    left.expression = Expression::arithmetic(std::move(left.expression), next->operation, std::move(right));
    if (left.expression->depth() <= kNestingLimit) continue;
    fail(position, "the expression is too long");
    return {};
  }
  return left;
}

PredicateParser::Operand PredicateParser::parseMinus() {
  const std::size_t position = token_.position;
  if (!accept(Word::minus)) return parsePostfix();
  if (token_.kind == TokenKind::number) {
    ExpressionPtr number = constant(std::move(token_.value));
    if (!at(Word::dot) && !at(Word::openBracket)) {
      return {nullptr, Expression::constant(negated(number->value())), position};
    }
    ExpressionPtr operand = parseSuffixes(std::move(number));
    if (operand == nullptr) return {};
    return {nullptr, withinLimit(Expression::negated(std::move(operand)), position), position};
  }
  const Nesting nesting(levels_);
  if (!withinLimit(nesting, position)) return {};
  ExpressionPtr operand = needExpression(parseMinus());
  if (operand == nullptr) return {};
  return {nullptr, withinLimit(Expression::negated(std::move(operand)), position), position};
}

PredicateParser::Operand PredicateParser::parsePostfix() {
  Operand primary = parsePrimary();
  if (primary.expression != nullptr) primary.expression = parseSuffixes(std::move(primary.expression));
  return primary;
}

PredicateParser::Operand PredicateParser::parsePrimary() {
  const std::size_t position = token_.position;
  if (!countPart(position)) return {};
  switch (token_.word) {
    case Word::openParenthesis:
      return parseGroup();
    case Word::truePredicate:
    case Word::falsePredicate: {
      const bool truth = at(Word::truePredicate);
      advance();
      return {Predicate::constant(truth), nullptr, position};
    }
    case Word::openBrace:
      return {nullptr, parseAggregate(), position};
    case Word::cast:
      return {nullptr, parseCast(), position};
    case Word::subquery:
      return {nullptr, parseSubquery(), position};
    case Word::self:
      advance();
      return {nullptr, Expression::self(), position};
    default:
      break;
  }
  if (token_.kind == TokenKind::identifier || token_.isKeyArgument()) {
    return {nullptr, parseKeyPath(), position};
  }
  return {nullptr, parseConstant(), position};
}

PredicateParser::Operand PredicateParser::parseGroup() {
  const Nesting nesting(levels_);
  const std::size_t position = token_.position;
  if (!withinLimit(nesting, position)) return {};
  advance();
  Operand inner = parseDisjunction();
  if (!inner || !expect(Word::closeParenthesis, ")")) return {};
  inner.position = position;
  return inner;
}

ExpressionPtr PredicateParser::parseSuffixes(ExpressionPtr base) {
  while (base != nullptr && (at(Word::dot) || at(Word::openBracket))) {
    const std::size_t position = token_.position;
    if (!countPart(position)) return nullptr;
    if (at(Word::openBracket)) {
      base = parseElement(std::move(base));
    } else {
      advance();
      std::string path;
      if (!takeComponents(path)) return nullptr;
      if (!path.empty()) base = Expression::path(std::move(base), path);
    }
    if (base != nullptr) base = withinLimit(std::move(base), position);
  }
  return base;
}

ExpressionPtr PredicateParser::parseElement(ExpressionPtr collection) {
  const Nesting nesting(levels_);
  if (!withinLimit(nesting, token_.position)) return nullptr;
  advance();
  std::optional<Expression::Element> which;
  if (at(Word::first)) which = Expression::Element::first;
  if (at(Word::last)) which = Expression::Element::last;
  if (at(Word::size)) which = Expression::Element::size;
  ExpressionPtr index;
  if (which) {
    advance();
  } else {
    index = parseExpression();
    if (index == nullptr) return nullptr;
  }
  if (!expect(Word::closeBracket, "]")) return nullptr;
  return which ? Expression::element(std::move(collection), *which)
               : Expression::element(std::move(collection), std::move(index));
}

ExpressionPtr PredicateParser::constant(Value value) {
  advance();
  return Expression::constant(std::move(value));
}

ExpressionPtr PredicateParser::parseConstant() {
  switch (token_.kind) {
    case TokenKind::string:
    case TokenKind::number:
      return constant(std::move(token_.value));
    case TokenKind::argument: {
      std::optional<Value> argument = takeArgument();
      return argument ? Expression::constant(std::move(*argument)) : nullptr;
    }
    case TokenKind::variable: {
      std::string name(token_.text.substr(1));
      advance();
      return Expression::variable(std::move(name));
    }
    default:
      break;
  }
  if (at(Word::yes) || at(Word::no)) return constant(Value(at(Word::yes)));
  if (at(Word::nil)) return constant(Value());
  unexpected("a key or a value");
  return nullptr;
}

ExpressionPtr PredicateParser::parseAggregate() {
  const Nesting nesting(levels_);
  const std::size_t position = token_.position;
  if (!withinLimit(nesting, position)) return nullptr;
  advance();
  std::vector<ExpressionPtr> members;
  if (accept(Word::closeBrace)) return Expression::aggregate({});
  do {
    ExpressionPtr member = parseExpression();
    if (member == nullptr) return nullptr;
    members.push_back(std::move(member));
  } while (accept(Word::comma));
  if (!expect(Word::closeBrace, "}")) return nullptr;
  return withinLimit(Expression::aggregate(std::move(members)), position);
}

ExpressionPtr PredicateParser::parseCast() {
  const Nesting nesting(levels_);
  if (!withinLimit(nesting, token_.position)) return nullptr;
  advance();
  if (!expect(Word::openParenthesis, "(")) return nullptr;
  const std::size_t numberPosition = token_.position;
  const ExpressionPtr number = parseExpression();
  if (number == nullptr) return nullptr;
  const Value value = isCalculation(*number) ? number->evaluate(NoSubject()) : Value();
  if (!value.isNumber()) {
    fail(numberPosition, "CAST needs a number of seconds, or arithmetic on numbers; it takes no key");
    return nullptr;
  }
  const double seconds = value.doubleValue();
  if (!std::isfinite(seconds)) {
    fail(numberPosition, "a date without a moment");
    return nullptr;
  }
  if (!expect(Word::comma, ",")) return nullptr;
  const std::size_t typePosition = token_.position;
  const ExpressionPtr type = parseExpression();
  if (type == nullptr) return nullptr;
  if (type->kind() != Expression::Kind::constant || type->value().stringValue() != "NSDate") {
    fail(typePosition, "CAST to anything but \"NSDate\" is not supported");
    return nullptr;
  }
  if (!expect(Word::closeParenthesis, ")")) return nullptr;
  return Expression::constant(Value(Date{seconds}));
}

ExpressionPtr PredicateParser::parseSubquery() {
  const Nesting nesting(levels_);
  const std::size_t position = token_.position;
  if (!withinLimit(nesting, position)) return nullptr;
  advance();
  if (!expect(Word::openParenthesis, "(")) return nullptr;
  ExpressionPtr collection = parseExpression();
  if (collection == nullptr || !expect(Word::comma, ",")) return nullptr;
  if (token_.kind != TokenKind::variable) {
    unexpected("a variable");
    return nullptr;
  }
  std::string variable(token_.text.substr(1));
  advance();
  if (!expect(Word::comma, ",")) return nullptr;
  Operand predicate = parseDisjunction();
  if (!needPredicate(predicate) || !expect(Word::closeParenthesis, ")")) return nullptr;
  return withinLimit(
      Expression::subquery(std::move(collection), std::move(variable), std::move(predicate.predicate)),
      position);
}

ExpressionPtr PredicateParser::parseKeyPath() {
  std::string path;
  if (!takeComponents(path)) return nullptr;
  return keyExpression(path);
}

bool PredicateParser::takeComponents(std::string& path) {
  do {
    if (!takeComponent(path)) return false;
  } while (accept(Word::dot));
  return true;
}

bool PredicateParser::takeComponent(std::string& path) {
  if (!countPart(token_.position)) return false;
  if (token_.isKeyArgument()) {
    const std::optional<Value> argument = takeArgument();
    if (!argument) return false;
    const std::string_view component = withoutSelf(*argument->asString());
    if (!component.empty()) appendComponent(path, component);
    return true;
  }
  if (accept(Word::self)) return true;
  if (token_.kind != TokenKind::identifier && token_.kind != TokenKind::pathOperator) {
    unexpected("a key");
    return false;
  }
  appendComponent(path, token_.text);
  advance();
  return true;
}

std::optional<Value> PredicateParser::takeArgument() {
  std::string problem;
  std::optional<Value> value = arguments_.take(token_, kNestingLimit - levels_, &problem);
  if (!value) {
    fail(token_.position, std::move(problem));
    return std::nullopt;
  }
  advance();
  return value;
}

}  // namespace qx::detail
