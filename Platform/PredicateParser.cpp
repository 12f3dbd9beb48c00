// Predicates: connectives, comparisons and what may stand on their right, and the errors of the parser.

#include "Platform/PredicateParser.h"
#include "Platform/TextPattern.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Platform/PredicateNesting.h"
#include "Platform/TextExcerpt.h"

namespace qx {

namespace detail {

namespace {

using TokenKind = PredicateToken::Kind;
using Word = PredicateWord;

constexpr std::int64_t kUnreadableFormat = 2048;  // the platform's "formatting error"

std::optional<Predicate::Operator> comparisonOperator(Word word) {
  using Operator = Predicate::Operator;
  switch (word) {
    case Word::equal:
      return Operator::equal;
    case Word::notEqual:
      return Operator::notEqual;
    case Word::less:
      return Operator::less;
    case Word::lessOrEqual:
      return Operator::lessOrEqual;
    case Word::greater:
      return Operator::greater;
    case Word::greaterOrEqual:
      return Operator::greaterOrEqual;
    case Word::between:
      return Operator::between;
    case Word::in:
      return Operator::in;
    case Word::contains:
      return Operator::contains;
    case Word::beginsWith:
      return Operator::beginsWith;
    case Word::endsWith:
      return Operator::endsWith;
    case Word::like:
      return Operator::like;
    case Word::matches:
      return Operator::matches;
    default:
      return std::nullopt;
  }
}

/// Why `right` cannot stand on the right of `op`; empty when it can. What it is only shows at evaluation
/// unless it is a constant or a list.
std::string rightSideProblem(Predicate::Operator op, const Expression& right) {
  const bool constant = right.kind() == Expression::Kind::constant;
  const Array* const list = constant ? right.value().asArray() : nullptr;
  if (op == Predicate::Operator::between) {
    const bool aggregate = right.kind() == Expression::Kind::aggregate;
    const std::size_t size = aggregate ? right.members().size() : list != nullptr ? list->size() : 0;
    if ((constant || aggregate) && size != 2) return "BETWEEN needs a list of two on its right";
  }
  if (op == Predicate::Operator::in && constant) {
    const Value::Kind kind = right.value().kind();
    const bool searchable = kind == Value::Kind::dictionary || kind == Value::Kind::string;
    if (list == nullptr && !searchable) return "IN needs a list, a string or a key on its right";
  }
  return {};
}

}  // namespace

PredicatePtr PredicateParser::parse() {
  const Operand root = parseDisjunction();
  if (!needPredicate(root)) return nullptr;
  if (token_.kind != TokenKind::end) {
    unexpected("AND, OR or the end");
    return nullptr;
  }
  if (printedNesting(*root.predicate) > kNestingLimit) {
    fail(0, "the predicate is nested too deeply");
    return nullptr;
  }
  return root.predicate;
}

ErrorPtr PredicateParser::error() const {
  constexpr std::size_t kReach = 80;
  return Error::make(kCocoaErrorDomain, kUnreadableFormat,
                     "The predicate format \"" + excerpt(text_, failurePosition_, kReach) +
                         "\" cannot be read at position " + std::to_string(failurePosition_) + ": " +
                         failureReason_ + ".");
}

void PredicateParser::fail(std::size_t position, std::string reason) {
  if (failed_) return;
  failed_ = true;
  failurePosition_ = position;
  failureReason_ = std::move(reason);
}

void PredicateParser::unexpected(std::string_view expected) {
  if (token_.kind == TokenKind::invalid) return fail(token_.position, token_.problem);
  constexpr std::size_t kReach = 40;
  const std::string found = '"' + excerpt(token_.text, 0, kReach) + '"';
  if (at(Word::unsupported)) return fail(token_.position, found + " is not supported");
  const std::string wanted = "expected " + std::string(expected);
  if (token_.kind == TokenKind::end) return fail(token_.position, wanted + ", but the text ends");
  const bool reserved = token_.kind == TokenKind::keyword;
  fail(token_.position, wanted + ", found " + (reserved ? "the reserved word " : "") + found +
                            (reserved ? " (a key of that name is written with a # before it)" : ""));
}

bool PredicateParser::accept(Word word) {
  if (!at(word)) return false;
  advance();
  return true;
}

bool PredicateParser::expect(Word word, std::string_view spelling) {
  if (accept(word)) return true;
  unexpected('"' + std::string(spelling) + '"');
  return false;
}

bool PredicateParser::needPredicate(const Operand& operand) {
  if (operand.predicate != nullptr) return true;
  if (operand.expression == nullptr) return false;
  if (at(Word::negation)) {
    fail(token_.position,
         "expected a comparison operator; NOT is written before the comparison: NOT key IN {...}");
  } else {
    unexpected("a comparison operator");
  }
  return false;
}

bool PredicateParser::withinLimit(const Nesting& nesting, std::size_t position) {
  if (!nesting.exceeded()) return true;
  fail(position, "nested too deeply");
  return false;
}

bool PredicateParser::countPart(std::size_t position) {
  if (++parts_ <= kMostParts) return true;
  fail(position, "the predicate has more than " + std::to_string(kMostParts) + " parts");
  return false;
}

PredicateParser::Operand PredicateParser::parseChain(Word word, Level member,
                                                     PredicatePtr (*join)(std::vector<PredicatePtr>)) {
  Operand first = (this->*member)();
  if (!first || !at(word)) return first;
  if (!needPredicate(first)) return {};
  std::vector<PredicatePtr> members;
  members.push_back(std::move(first.predicate));
  while (accept(word)) {
    Operand next = (this->*member)();
    if (!needPredicate(next)) return {};
    members.push_back(std::move(next.predicate));
  }
  return {join(std::move(members)), nullptr, first.position};
}

PredicateParser::Operand PredicateParser::parseNegation() {
  const std::size_t position = token_.position;
  if (!accept(Word::negation)) return parseComparison();
  int parenthesisCounts = 0;  // NOT and the parentheses round its member are one level
  const Nesting nesting(at(Word::openParenthesis) ? parenthesisCounts : levels_);
  if (!withinLimit(nesting, position)) return {};
  Operand member = parseNegation();
  if (!needPredicate(member)) return {};
  return {Predicate::negation(std::move(member.predicate)), nullptr, position};
}

PredicateParser::Operand PredicateParser::parseComparison() {
  if (at(Word::any) || at(Word::all) || at(Word::none)) return parseModified();
  Operand left = parseArithmetic();
  if (left.expression == nullptr) return left;
  return parseComparisonOf(std::move(left), Predicate::Modifier::direct);
}

PredicateParser::Operand PredicateParser::parseModified() {
  const std::size_t position = token_.position;
  const bool none = at(Word::none);
  const auto modifier = at(Word::all) ? Predicate::Modifier::all : Predicate::Modifier::any;
  advance();
  Operand left = {nullptr, parseExpression(), position};
  if (!left) return {};
  Operand comparison = parseComparisonOf(std::move(left), modifier);
  if (!needPredicate(comparison)) return {};
  if (none) comparison.predicate = Predicate::negation(std::move(comparison.predicate));
  return comparison;
}

PredicateParser::Operand PredicateParser::parseComparisonOf(Operand left, Predicate::Modifier modifier) {
  if (at(Word::unsupported)) {
    unexpected("a comparison operator");
    return {};
  }
  const std::optional<Predicate::Operator> op = comparisonOperator(token_.word);
  if (!op) return left;
  if (!countPart(token_.position)) return {};
  advance();
  const std::optional<Predicate::Options> options = parseOptions();
  if (!options) return {};
  const std::size_t rightPosition = token_.position;
  ExpressionPtr right = parseRightSide(*op);
  if (right == nullptr) return {};
  PredicatePtr comparison =
      Predicate::comparison(std::move(left.expression), *op, std::move(right), *options, modifier);
  const std::string problem = comparison->pattern() != nullptr ? comparison->pattern()->problem() : "";
  if (!problem.empty()) {
    fail(rightPosition, "the regular expression cannot be used: " + problem);
    return {};
  }
  return {std::move(comparison), nullptr, left.position};
}

std::optional<Predicate::Options> PredicateParser::parseOptions() {
  Predicate::Options options;
  if (!accept(Word::openBracket)) return options;
  constexpr std::string_view kLetters = "the letters c, d and n";
  if (token_.kind != TokenKind::identifier) {
    unexpected(kLetters);
    return std::nullopt;
  }
  for (const char letter : token_.text) {
    bool* const option = letter == 'c' || letter == 'C'   ? &options.caseInsensitive
                         : letter == 'd' || letter == 'D' ? &options.diacriticInsensitive
                         : letter == 'n' || letter == 'N' ? &options.normalized
                                                          : nullptr;
    if (option == nullptr) {
      unexpected(kLetters);
      return std::nullopt;
    }
    *option = true;
  }
  advance();
  if (!expect(Word::closeBracket, "]")) return std::nullopt;
  return options;
}

ExpressionPtr PredicateParser::parseRightSide(Predicate::Operator op) {
  const std::size_t position = token_.position;
  ExpressionPtr right = parseExpression();
  if (right == nullptr) return nullptr;
  std::string reason = rightSideProblem(op, *right);
  if (op == Predicate::Operator::matches && right->value().asString() != nullptr) {
    constexpr std::size_t kMostExpressionBytes = 65536;  // the time to read them is more than linear
    expressionBytes_ += right->value().asString()->size();
    if (expressionBytes_ > kMostExpressionBytes)
      reason = "the regular expressions are longer than " + std::to_string(kMostExpressionBytes) +
               " bytes together";
  }
  if (reason.empty()) return right;
  fail(position, std::move(reason));
  return nullptr;
}

}  // namespace detail

PredicatePtr Predicate::withFormat(std::string_view format, const FormatArguments& arguments,
                                   ErrorPtr* error) {
  detail::PredicateParser parser(format, arguments.values());
  PredicatePtr predicate = parser.parse();
  setError(error, predicate != nullptr ? nullptr : parser.error());
  return predicate;
}

}  // namespace qx
