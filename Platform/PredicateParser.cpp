// Recursive descent over the predicate-format language, lowest binding first: OR, AND, NOT, comparison.
//
// A "(" opens a predicate or an expression, and which of them shows only later. So every level yields an
// operand that is either, and whoever needs one kind asks for it; nothing is ever parsed twice. Arguments
// become constants and keys of the tree and never pass through text.

#include <QXEventStoring/Platform/Predicate.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include "Platform/PredicateArguments.h"
#include "Platform/PredicateLexer.h"

namespace qx {

namespace {

using detail::PredicateArguments;
using detail::PredicateLexer;
using detail::PredicateToken;
using TokenKind = PredicateToken::Kind;

constexpr int kNestingLimit = 200;
constexpr std::int64_t kUnreadableFormat = 2048;  // the platform's "formatting error"

struct OperatorSpelling {
  std::string_view text;
  Predicate::Operator op;
};

constexpr std::array<OperatorSpelling, 11> kOperators = {{
    {"==", Predicate::Operator::equal},
    {"=", Predicate::Operator::equal},
    {"!=", Predicate::Operator::notEqual},
    {"<>", Predicate::Operator::notEqual},
    {"<", Predicate::Operator::less},
    {"<=", Predicate::Operator::lessOrEqual},
    {"=<", Predicate::Operator::lessOrEqual},
    {">", Predicate::Operator::greater},
    {">=", Predicate::Operator::greaterOrEqual},
    {"=>", Predicate::Operator::greaterOrEqual},
    {"IN", Predicate::Operator::in},
}};

/// Words of the language that this implementation does not take.
constexpr std::array<std::string_view, 20> kUnsupported = {
    "BETWEEN",  "CONTAINS", "BEGINSWITH",      "ENDSWITH",   "LIKE", "MATCHES", "ANY", "SOME", "ALL", "NONE",
    "SUBQUERY", "ANYKEY",   "UTI-CONFORMS-TO", "UTI-EQUALS", "[",    "+",       "-",   "*",    "/",   "**"};

bool isUnsupported(const PredicateToken& token) {
  if (token.kind == TokenKind::variable || token.kind == TokenKind::pathOperator) return true;
  if (token.kind != TokenKind::keyword && token.kind != TokenKind::symbol) return false;
  return std::find(kUnsupported.begin(), kUnsupported.end(), token.text) != kUnsupported.end();
}

bool isContinuationByte(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

/// The text round `position`, fit for a message: bounded, control characters and malformed UTF-8 escaped.
std::string excerpt(std::string_view text, std::size_t position, std::size_t reach) {
  std::size_t begin = position > reach ? position - reach : 0;
  std::size_t end = std::min(text.size(), position + reach);
  while (begin < position && isContinuationByte(text[begin]))
    ++begin;
  while (end > position && end < text.size() && isContinuationByte(text[end]))
    --end;

  const std::string_view part = text.substr(begin, end - begin);
  const bool escapeAll = !isValidUTF8(part);
  constexpr std::string_view kHex = "0123456789abcdef";
  std::string out = begin > 0 ? "…" : "";
  for (const char c : part) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F && (byte < 0x80 || !escapeAll)) {
      out += c;
      continue;
    }
    out += "\\x";
    out += kHex[byte >> 4];
    out += kHex[byte & 0xF];
  }
  if (end < text.size()) out += "…";
  return out;
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

/// Whether the printed text, where each compound member has its parentheses, keeps to the nesting limit,
/// so that what is accepted can be read back.
bool printsWithinLimit(const Predicate& root) {
  std::vector<std::pair<const Predicate*, int>> pending = {{&root, 0}};
  while (!pending.empty()) {
    const auto [predicate, level] = pending.back();
    pending.pop_back();
    if (level > kNestingLimit) return false;
    const bool negation = predicate->kind() == Predicate::Kind::negation;
    for (const PredicatePtr& member : predicate->members()) {
      pending.emplace_back(member.get(), negation || !member->members().empty() ? level + 1 : level);
    }
  }
  return true;
}

/// Counts a level for as long as it lives.
class Nesting {
 public:
  explicit Nesting(int& levels) : levels_(levels) { ++levels_; }
  ~Nesting() { --levels_; }
  Nesting(const Nesting&) = delete;
  Nesting& operator=(const Nesting&) = delete;
  bool exceeded() const { return levels_ > kNestingLimit; }

 private:
  int& levels_;
};

/// A predicate or an expression; neither after a failure.
struct Operand {
  PredicatePtr predicate;
  ExpressionPtr expression;
  std::size_t position = 0;

  explicit operator bool() const { return predicate != nullptr || expression != nullptr; }
};

class Parser {
 public:
  Parser(std::string_view text, const std::vector<Value>& arguments)
      : text_(text), arguments_(arguments), lexer_(text) {
    advance();
  }

  PredicatePtr parse();
  ErrorPtr error() const;

 private:
  using Level = Operand (Parser::*)();

  Operand parseDisjunction() {
    return parseChain("OR", "||", &Parser::parseConjunction, &Predicate::disjunction);
  }
  Operand parseConjunction() {
    return parseChain("AND", "&&", &Parser::parseNegation, &Predicate::conjunction);
  }
  Operand parseChain(std::string_view keyword, std::string_view symbol, Level member,
                     PredicatePtr (*join)(std::vector<PredicatePtr>));
  Operand parseNegation();
  Operand parseComparison();
  Operand parsePrimary();
  Operand parseGroup();

  // Null after a failure.
  ExpressionPtr parseExpression();
  ExpressionPtr parseRightSide(Predicate::Operator op);
  ExpressionPtr parseConstant();
  ExpressionPtr parseNegativeNumber();
  ExpressionPtr parseAggregate();
  ExpressionPtr parseCast();
  ExpressionPtr parseKeyPath();
  ExpressionPtr parseSelf();
  ExpressionPtr constant(Value value);

  /// Appends the component, or the path, that the present token stands for.
  bool takeComponent(std::string& path);
  std::optional<Value> takeArgument();

  void advance() { token_ = lexer_.next(); }
  /// Whether the present token is this keyword or symbol; no text is both.
  bool at(std::string_view word) const { return token_.isKeyword(word) || token_.isSymbol(word); }
  bool accept(std::string_view word);
  bool expect(std::string_view symbol);
  bool needPredicate(const Operand& operand);

  /// Keep the first failure.
  void fail(std::size_t position, std::string reason);
  void unexpected(std::string_view expected);

  std::string_view text_;
  PredicateArguments arguments_;
  PredicateLexer lexer_;
  PredicateToken token_;
  int levels_ = 0;      // of parentheses and NOT
  int listLevels_ = 0;  // of braces
  bool failed_ = false;
  std::size_t failurePosition_ = 0;
  std::string failureReason_;
};

PredicatePtr Parser::parse() {
  const Operand root = parseDisjunction();
  if (!needPredicate(root)) return nullptr;
  if (token_.kind != TokenKind::end) {
    unexpected("AND, OR or the end");
    return nullptr;
  }
  if (!printsWithinLimit(*root.predicate)) {
    fail(0, "the predicate is nested too deeply");
    return nullptr;
  }
  return root.predicate;
}

ErrorPtr Parser::error() const {
  constexpr std::size_t kReach = 80;
  return Error::make(kCocoaErrorDomain, kUnreadableFormat,
                     "The predicate format \"" + excerpt(text_, failurePosition_, kReach) +
                         "\" cannot be read at position " + std::to_string(failurePosition_) + ": " +
                         failureReason_ + ".");
}

void Parser::fail(std::size_t position, std::string reason) {
  if (failed_) return;
  failed_ = true;
  failurePosition_ = position;
  failureReason_ = std::move(reason);
}

void Parser::unexpected(std::string_view expected) {
  if (token_.kind == TokenKind::invalid) return fail(token_.position, token_.problem);
  constexpr std::size_t kReach = 40;
  const std::string found = '"' + excerpt(token_.text, 0, kReach) + '"';
  if (isUnsupported(token_)) return fail(token_.position, found + " is not supported");
  const std::string wanted = "expected " + std::string(expected);
  if (token_.kind == TokenKind::end) return fail(token_.position, wanted + ", but the text ends");
  const bool reserved = token_.kind == TokenKind::keyword;
  fail(token_.position, wanted + ", found " + (reserved ? "the reserved word " : "") + found +
                            (reserved ? " (a key of that name is written with a # before it)" : ""));
}

bool Parser::accept(std::string_view word) {
  if (!at(word)) return false;
  advance();
  return true;
}

bool Parser::expect(std::string_view symbol) {
  if (!at(symbol)) {
    unexpected('"' + std::string(symbol) + '"');
    return false;
  }
  advance();
  return true;
}

bool Parser::needPredicate(const Operand& operand) {
  if (operand.predicate != nullptr) return true;
  if (operand.expression != nullptr) unexpected("a comparison operator");
  return false;
}

Operand Parser::parseChain(std::string_view keyword, std::string_view symbol, Level member,
                           PredicatePtr (*join)(std::vector<PredicatePtr>)) {
  Operand first = (this->*member)();
  if (!first || (!at(keyword) && !at(symbol))) return first;
  if (!needPredicate(first)) return {};
  std::vector<PredicatePtr> members = {std::move(first.predicate)};
  while (accept(keyword) || accept(symbol)) {
    Operand next = (this->*member)();
    if (!needPredicate(next)) return {};
    members.push_back(std::move(next.predicate));
  }
  return {join(std::move(members)), nullptr, first.position};
}

Operand Parser::parseNegation() {
  const std::size_t position = token_.position;
  if (!accept("NOT") && !accept("!")) return parseComparison();
  int parenthesisCounts = 0;  // NOT and the parentheses round its member are one level
  const Nesting nesting(at("(") ? parenthesisCounts : levels_);
  if (nesting.exceeded()) {
    fail(position, "nested too deeply");
    return {};
  }
  Operand member = parseNegation();
  if (!needPredicate(member)) return {};
  return {Predicate::negation(std::move(member.predicate)), nullptr, position};
}

Operand Parser::parseComparison() {
  Operand left = parsePrimary();
  if (left.expression == nullptr) return left;
  if (isUnsupported(token_)) {
    unexpected("a comparison operator");
    return {};
  }
  const auto* const spelling = std::find_if(kOperators.begin(), kOperators.end(),
                                            [this](const OperatorSpelling& each) { return at(each.text); });
  if (spelling == kOperators.end()) return left;
  advance();
  ExpressionPtr right = parseRightSide(spelling->op);
  if (right == nullptr) return {};
  return {Predicate::comparison(std::move(left.expression), spelling->op, std::move(right)), nullptr,
          left.position};
}

ExpressionPtr Parser::parseRightSide(Predicate::Operator op) {
  const std::size_t position = token_.position;
  ExpressionPtr right = parseExpression();
  if (right == nullptr || op != Predicate::Operator::in) return right;
  if (right->kind() != Expression::Kind::constant) return right;
  const Value::Kind kind = right->value().kind();
  if (kind == Value::Kind::array || kind == Value::Kind::dictionary) return right;
  fail(position, "IN needs a list or a key on its right");
  return nullptr;
}

ExpressionPtr Parser::parseExpression() {
  const Operand operand = parsePrimary();
  if (operand.predicate != nullptr) fail(operand.position, "expected a key or a value, found a predicate");
  return operand.expression;
}

Operand Parser::parsePrimary() {
  const std::size_t position = token_.position;
  if (accept("TRUEPREDICATE")) return {Predicate::constant(true), nullptr, position};
  if (accept("FALSEPREDICATE")) return {Predicate::constant(false), nullptr, position};
  if (at("(")) return parseGroup();
  if (at("{")) return {nullptr, parseAggregate(), position};
  if (at("CAST")) return {nullptr, parseCast(), position};
  if (at("SELF")) return {nullptr, parseSelf(), position};
  const bool key = token_.kind == TokenKind::argument && token_.argument == PredicateToken::Argument::key;
  if (key || token_.kind == TokenKind::identifier) return {nullptr, parseKeyPath(), position};
  return {nullptr, parseConstant(), position};
}

Operand Parser::parseGroup() {
  const Nesting nesting(levels_);
  const std::size_t position = token_.position;
  if (nesting.exceeded()) {
    fail(position, "nested too deeply");
    return {};
  }
  advance();
  Operand inner = parseDisjunction();
  if (!inner || !expect(")")) return {};
  inner.position = position;
  return inner;
}

ExpressionPtr Parser::constant(Value value) {
  advance();
  return Expression::constant(std::move(value));
}

ExpressionPtr Parser::parseConstant() {
  if (token_.kind == TokenKind::string || token_.kind == TokenKind::number) return constant(token_.value);
  if (at("TRUE") || at("YES")) return constant(Value(true));
  if (at("FALSE") || at("NO")) return constant(Value(false));
  if (at("NIL") || at("NULL")) return constant(Value());
  if (at("-")) return parseNegativeNumber();
  if (token_.kind != TokenKind::argument) {
    unexpected("a key or a value");
    return nullptr;
  }
  std::optional<Value> argument = takeArgument();
  return argument ? Expression::constant(std::move(*argument)) : nullptr;
}

ExpressionPtr Parser::parseNegativeNumber() {
  advance();
  if (token_.kind == TokenKind::number) return constant(negated(token_.value));
  unexpected("a number after \"-\"");
  return nullptr;
}

ExpressionPtr Parser::parseAggregate() {
  const Nesting nesting(listLevels_);
  if (nesting.exceeded()) {
    fail(token_.position, "nested too deeply");
    return nullptr;
  }
  advance();
  std::vector<ExpressionPtr> members;
  if (accept("}")) return Expression::aggregate({});
  do {
    ExpressionPtr member = parseExpression();
    if (member == nullptr) return nullptr;
    members.push_back(std::move(member));
  } while (accept(","));
  if (!expect("}")) return nullptr;
  return Expression::aggregate(std::move(members));
}

ExpressionPtr Parser::parseCast() {
  advance();
  if (!expect("(")) return nullptr;
  const std::size_t numberPosition = token_.position;
  const ExpressionPtr number = parseConstant();
  if (number == nullptr) return nullptr;
  if (!number->value().isNumber()) {
    fail(numberPosition, "CAST needs a number of seconds");
    return nullptr;
  }
  const double seconds = number->value().doubleValue();
  if (!std::isfinite(seconds)) {
    fail(numberPosition, "a date without a moment");
    return nullptr;
  }
  if (!expect(",")) return nullptr;
  const std::size_t typePosition = token_.position;
  const ExpressionPtr type = parseConstant();
  if (type == nullptr) return nullptr;
  if (type->value().stringValue() != "NSDate") {
    fail(typePosition, "CAST to anything but \"NSDate\" is not supported");
    return nullptr;
  }
  if (!expect(")")) return nullptr;
  return Expression::constant(Value(Date{seconds}));
}

ExpressionPtr Parser::parseSelf() {
  advance();
  return accept(".") ? parseKeyPath() : Expression::self();
}

bool Parser::takeComponent(std::string& path) {
  if (token_.kind == TokenKind::identifier) {
    path += token_.text;
    advance();
    return true;
  }
  if (token_.kind != TokenKind::argument || token_.argument != PredicateToken::Argument::key) {
    unexpected("a key");
    return false;
  }
  const std::optional<Value> argument = takeArgument();
  if (argument) path += *argument->asString();
  return argument.has_value();
}

ExpressionPtr Parser::parseKeyPath() {
  const bool argument = token_.kind == TokenKind::argument;
  std::string path;
  if (!takeComponent(path)) return nullptr;
  while (accept(".")) {
    path += '.';
    if (!takeComponent(path)) return nullptr;
  }
  const std::size_t dot = path.find('.');
  const bool fromSelf = argument && detail::reservedPredicateWord(path.substr(0, dot)) == "SELF";
  if (!fromSelf) return Expression::keyPath(path);
  if (dot == std::string::npos) return Expression::self();
  return Expression::keyPath(std::string_view(path).substr(dot + 1));
}

std::optional<Value> Parser::takeArgument() {
  std::string problem;
  std::optional<Value> value = arguments_.take(token_, kNestingLimit - listLevels_, &problem);
  if (!value) {
    fail(token_.position, std::move(problem));
    return std::nullopt;
  }
  advance();
  return value;
}

}  // namespace

PredicatePtr Predicate::withFormat(std::string_view format, const std::vector<Value>& arguments,
                                   ErrorPtr* error) {
  Parser parser(format, arguments);
  PredicatePtr predicate = parser.parse();
  setError(error, predicate != nullptr ? nullptr : parser.error());
  return predicate;
}

}  // namespace qx
