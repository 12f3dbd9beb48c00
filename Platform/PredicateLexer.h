#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Value.h>

namespace qx::detail {

/// What a keyword or a symbol means; spellings of one meaning are one word.
enum class PredicateWord : unsigned char {
  other,  // no keyword and no symbol, or a keyword that is only reserved
  unsupported,
  conjunction,
  disjunction,
  negation,
  any,
  all,
  none,
  equal,
  notEqual,
  less,
  lessOrEqual,
  greater,
  greaterOrEqual,
  between,
  in,
  contains,
  beginsWith,
  endsWith,
  like,
  matches,
  plus,
  minus,
  times,
  dividedBy,
  raisedTo,
  yes,
  no,
  nil,
  self,
  first,
  last,
  size,
  cast,
  subquery,
  truePredicate,
  falsePredicate,
  openParenthesis,
  closeParenthesis,
  openBrace,
  closeBrace,
  openBracket,
  closeBracket,
  comma,
  dot,
};

/// One token of a predicate text.
struct PredicateToken {
  enum class Kind {
    end,
    invalid,       // problem says why
    identifier,    // text is the name, without a leading #
    keyword,       // word; text is the reserved word in upper case
    pathOperator,  // text is @name
    variable,      // text is $name
    number,        // value; never negative
    string,        // value, escapes resolved
    argument,      // argument says what the caller has to supply
    symbol,        // word; text is the operator or bracket
  };
  enum class Argument { key, object, integer, real, string };

  Kind kind = Kind::end;
  PredicateWord word = PredicateWord::other;
  Argument argument = Argument::object;
  std::size_t position = 0;  // bytes from the start of the text
  std::string_view text;     // into the lexed text, or into a static table
  Value value;
  const char* problem = "";

  bool isKeyArgument() const { return kind == Kind::argument && argument == Argument::key; }
};

/// Cuts a predicate text into tokens, one at a time. The text must outlive the lexer and its tokens.
class PredicateLexer {
 public:
  explicit PredicateLexer(std::string_view text) : text_(text) {}

  /// The next token; `end` or `invalid` for ever once it is reached.
  PredicateToken next();

 private:
  char peek(std::size_t ahead = 0) const;
  /// The character at the current position; NUL at the end.
  char32_t peekPoint() const;
  bool atEnd() const { return position_ >= text_.size(); }

  PredicateToken word();
  PredicateToken prefixedWord(PredicateToken::Kind kind, bool keepPrefix);
  PredicateToken number();
  PredicateToken radixNumber(int radix);
  PredicateToken string();
  PredicateToken argument();
  PredicateToken symbol();

  std::string_view scanIdentifier();
  /// Reads what follows a backslash; false when it names half of a surrogate pair.
  bool unescape(std::string& out);
  /// The value of exactly `digits` digits of `radix` at the current position, which are then skipped;
  /// -1, and nothing skipped, when they are not there.
  long scanDigits(std::size_t digits, int radix);

  PredicateToken token(PredicateToken::Kind kind, std::string_view text = {},
                       PredicateWord word = PredicateWord::other) const;
  PredicateToken invalid(std::size_t position, const char* problem);

  std::string_view text_;
  std::size_t position_ = 0;
  std::size_t start_ = 0;  // of the present token
};

/// Whether `word`, in upper, lower or mixed case, is a word that a key has to be marked for.
bool isReservedPredicateWord(std::string_view word);
/// Whether `word` is SELF in any case.
bool isPredicateSelf(std::string_view word);

}  // namespace qx::detail
