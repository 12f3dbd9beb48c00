#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Predicate.h>

#include "Platform/PredicateArguments.h"
#include "Platform/PredicateLexer.h"

namespace qx::detail {

/// Recursive descent over the predicate-format language, lowest binding first: OR, AND, NOT, comparison,
/// sums, products, powers, minus, paths and indices.
///
/// A "(" opens a predicate or an expression, and which of them shows only later. So every level yields an
/// operand that is either, and whoever needs one kind asks for it; nothing is ever parsed twice. Arguments
/// become constants and keys of the tree and never pass through text.
class PredicateParser {
 public:
  /// `text` and `arguments` must outlive the parser.
  PredicateParser(std::string_view text, const std::vector<Value>& arguments)
      : text_(text), arguments_(arguments), lexer_(text) {
    advance();
  }

  /// Null when the text cannot be read; error() then says why.
  PredicatePtr parse();
  ErrorPtr error() const;

 private:
  /// Levels of brackets, of NOT and of minus signs that may be open at once, and of expressions in a tree.
  static constexpr int kNestingLimit = 200;
  static constexpr std::size_t kMostParts = 1'000'000;

  /// A predicate or an expression; neither after a failure.
  struct Operand {
    PredicatePtr predicate;
    ExpressionPtr expression;
    std::size_t position = 0;

    explicit operator bool() const { return predicate != nullptr || expression != nullptr; }
  };
  using Level = Operand (PredicateParser::*)();

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

  Operand parseDisjunction() {
    return parseChain(PredicateWord::disjunction, &PredicateParser::parseConjunction,
                      &Predicate::disjunction);
  }
  Operand parseConjunction() {
    return parseChain(PredicateWord::conjunction, &PredicateParser::parseNegation, &Predicate::conjunction);
  }
  Operand parseChain(PredicateWord word, Level member, PredicatePtr (*join)(std::vector<PredicatePtr>));
  Operand parseNegation();
  Operand parseComparison();
  Operand parseModified();
  /// The comparison whose left side has been read; that side itself when no operator follows.
  Operand parseComparisonOf(Operand left, Predicate::Modifier modifier);
  std::optional<Predicate::Options> parseOptions();

  /// Sums and products whose operators bind at least as tightly as `lowest`.
  Operand parseArithmetic(int lowest = 0);
  Operand parseMinus();
  Operand parsePostfix();
  Operand parsePrimary();
  Operand parseGroup();

  // Null after a failure.
  ExpressionPtr parseExpression();
  ExpressionPtr parseRightSide(Predicate::Operator op);
  /// What follows `base`: .key, [index] and so on, any number of times.
  ExpressionPtr parseSuffixes(ExpressionPtr base);
  ExpressionPtr parseElement(ExpressionPtr collection);
  ExpressionPtr parseConstant();
  ExpressionPtr parseAggregate();
  ExpressionPtr parseCast();
  ExpressionPtr parseSubquery();
  ExpressionPtr parseKeyPath();
  ExpressionPtr constant(Value value);

  /// Appends the components, and the dots between them, that begin at the present token. SELF adds none:
  /// it is the object itself.
  bool takeComponents(std::string& path);
  bool takeComponent(std::string& path);
  std::optional<Value> takeArgument();

  void advance() { token_ = lexer_.next(); }
  bool at(PredicateWord word) const { return token_.word == word; }
  bool accept(PredicateWord word);
  bool expect(PredicateWord word, std::string_view spelling);
  bool needPredicate(const Operand& operand);
  /// Null, and a failure, when it is none.
  ExpressionPtr needExpression(Operand operand);
  /// `expression` unless it has too many levels.
  ExpressionPtr withinLimit(ExpressionPtr expression, std::size_t position);
  bool withinLimit(const Nesting& nesting, std::size_t position);
  /// Counts a comparison, an expression or a component of a key; false, and a failure, when there are too
  /// many: each takes hundreds of bytes for the two or three of its text.
  bool countPart(std::size_t position);

  /// Keep the first failure.
  void fail(std::size_t position, std::string reason);
  void unexpected(std::string_view expected);

  std::string_view text_;
  PredicateArguments arguments_;
  PredicateLexer lexer_;
  PredicateToken token_;
  int levels_ = 0;
  std::size_t parts_ = 0;
  std::size_t expressionBytes_ = 0;  // of the regular expressions so far
  bool failed_ = false;
  std::size_t failurePosition_ = 0;
  std::string failureReason_;
};

}  // namespace qx::detail
