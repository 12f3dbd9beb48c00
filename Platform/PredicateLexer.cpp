// Tokens of the predicate-format language. Quoted text is opaque: nothing in it is a keyword, an argument
// or a variable. Numbers are read with std::from_chars, since a process may run in a decimal-comma locale.

#include "Platform/PredicateLexer.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include "Platform/Unicode.h"

namespace qx::detail {

namespace {

using Kind = PredicateToken::Kind;
using Argument = PredicateToken::Argument;

using Word = PredicateWord;

struct Spelling {
  std::string_view text;
  Word word;
};

constexpr std::array<Spelling, 33> kReservedWords = {{
    {"AND", Word::conjunction},
    {"OR", Word::disjunction},
    {"NOT", Word::negation},
    {"ANY", Word::any},
    {"SOME", Word::any},
    {"ALL", Word::all},
    {"NONE", Word::none},
    {"IN", Word::in},
    {"BETWEEN", Word::between},
    {"CONTAINS", Word::contains},
    {"BEGINSWITH", Word::beginsWith},
    {"ENDSWITH", Word::endsWith},
    {"LIKE", Word::like},
    {"MATCHES", Word::matches},
    {"TRUE", Word::yes},
    {"YES", Word::yes},
    {"FALSE", Word::no},
    {"NO", Word::no},
    {"NIL", Word::nil},
    {"NULL", Word::nil},
    {"SELF", Word::self},
    {"FIRST", Word::first},
    {"LAST", Word::last},
    {"SIZE", Word::size},
    {"CAST", Word::cast},
    {"SUBQUERY", Word::subquery},
    {"TRUEPREDICATE", Word::truePredicate},
    {"FALSEPREDICATE", Word::falsePredicate},
    {"ANYKEY", Word::unsupported},
    {"UTI-EQUALS", Word::unsupported},
    {"UTI-CONFORMS-TO", Word::unsupported},
    {"CI", Word::other},
    {"CASEINSENSITIVE", Word::other},
}};

// Longer before shorter, so that the first that fits is the longest.
constexpr std::array<Spelling, 26> kSymbols = {{
    {"==", Word::equal},
    {"!=", Word::notEqual},
    {"<>", Word::notEqual},
    {"<=", Word::lessOrEqual},
    {"=<", Word::lessOrEqual},
    {">=", Word::greaterOrEqual},
    {"=>", Word::greaterOrEqual},
    {"&&", Word::conjunction},
    {"||", Word::disjunction},
    {"**", Word::raisedTo},
    {"=", Word::equal},
    {"<", Word::less},
    {">", Word::greater},
    {"!", Word::negation},
    {"(", Word::openParenthesis},
    {")", Word::closeParenthesis},
    {"{", Word::openBrace},
    {"}", Word::closeBrace},
    {"[", Word::openBracket},
    {"]", Word::closeBracket},
    {",", Word::comma},
    {".", Word::dot},
    {"+", Word::plus},
    {"-", Word::minus},
    {"*", Word::times},
    {"/", Word::dividedBy},
}};

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// Whether a name can begin with `point`: what the Unicode Standard, Annex #31, calls ID_Start, and "_".
bool isNameStart(char32_t point) {
  const bool letter = (point >= 'a' && point <= 'z') || (point >= 'A' && point <= 'Z');
  if (point < 0x80) return letter || point == '_';
  return point != unicode::kIllFormed && u_isIDStart(static_cast<UChar32>(point));
}

/// Whether a name can go on with `point`: ID_Continue, without what nobody would see.
bool isNamePart(char32_t point) {
  if (point < 0x80) return isNameStart(point) || (point >= '0' && point <= '9');
  const auto character = static_cast<UChar32>(point);
  return point != unicode::kIllFormed && u_isIDPart(character) && !u_isIDIgnorable(character);
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

char upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view upperCasePrefix) {
  if (text.size() < upperCasePrefix.size()) return false;
  return std::equal(upperCasePrefix.begin(), upperCasePrefix.end(), text.begin(),
                    [](char expected, char actual) { return expected == upper(actual); });
}

/// Null when `word` is not reserved.
const Spelling* findReserved(std::string_view word) {
  const auto* const found =
      std::find_if(kReservedWords.begin(), kReservedWords.end(), [word](const Spelling& each) {
        return each.text.size() == word.size() && startsWithIgnoringCase(word, each.text);
      });
  return found == kReservedWords.end() ? nullptr : found;
}

/// The reserved word that `text`, which goes on with a "-" after its first word, begins with; a "-" after
/// any other word is a minus.
const Spelling* findHyphenated(std::string_view text) {
  for (const Spelling& each : kReservedWords) {
    const bool hyphenated = each.text.find('-') != std::string_view::npos;
    if (hyphenated && startsWithIgnoringCase(text, each.text)) return &each;
  }
  return findReserved(text.substr(0, text.find('-')));
}

int digitValue(char c) {
  if (isDigit(c)) return c - '0';
  const char letter = upper(c);
  if (letter >= 'A' && letter <= 'F') return letter - 'A' + 10;
  return std::numeric_limits<int>::max();
}

/// A decimal literal as a double: infinite past the largest, 0 below the smallest. Empty when it is past
/// even the long double's range.
std::optional<double> realLiteral(std::string_view digits) {
  const char* const last = digits.data() + digits.size();
  double value = 0;
  if (std::from_chars(digits.data(), last, value).ec == std::errc()) return value;
  long double wide = 0;
  if (std::from_chars(digits.data(), last, wide).ec != std::errc()) return std::nullopt;
  return wide > 1 ? std::numeric_limits<double>::infinity() : 0.0;
}

std::optional<Argument> conversion(char c, bool hasLength) {
  constexpr std::string_view kIntegers = "dDiuUxXoO";
  constexpr std::string_view kReals = "fFeEgG";
  if (kIntegers.find(c) != std::string_view::npos) return Argument::integer;
  if (kReals.find(c) != std::string_view::npos) return Argument::real;
  if (hasLength) return std::nullopt;
  if (c == 'K') return Argument::key;
  if (c == '@') return Argument::object;
  if (c == 's') return Argument::string;
  return std::nullopt;
}

}  // namespace

bool isReservedPredicateWord(std::string_view word) {
  return findReserved(word) != nullptr;
}

bool isPredicateSelf(std::string_view word) {
  const Spelling* const reserved = findReserved(word);
  return reserved != nullptr && reserved->word == Word::self;
}

char PredicateLexer::peek(std::size_t ahead) const {
  return position_ + ahead < text_.size() ? text_[position_ + ahead] : '\0';
}

char32_t PredicateLexer::peekPoint() const {
  std::size_t at = position_;
  return atEnd() ? U'\0' : unicode::decodeUTF8(text_, at);
}

PredicateToken PredicateLexer::token(Kind kind, std::string_view text, Word word) const {
  PredicateToken token;
  token.kind = kind;
  token.word = word;
  token.position = start_;
  token.text = text;
  return token;
}

PredicateToken PredicateLexer::invalid(std::size_t position, const char* problem) {
  position_ = text_.size();
  PredicateToken token;
  token.kind = Kind::invalid;
  token.position = position;
  token.problem = problem;
  return token;
}

PredicateToken PredicateLexer::next() {
  while (!atEnd() && isSpace(peek()))
    ++position_;
  start_ = position_;
  if (atEnd()) return token(Kind::end);
  const char c = peek();
  if (isNameStart(peekPoint())) return word();
  if (isDigit(c) || (c == '.' && isDigit(peek(1)))) return number();
  switch (c) {
    case '"':
    case '\'':
      return string();
    case '%':
      return argument();
    case '#':
      return prefixedWord(Kind::identifier, false);
    case '@':
      return prefixedWord(Kind::pathOperator, true);
    case '$':
      return prefixedWord(Kind::variable, true);
    default:
      return symbol();
  }
}

std::string_view PredicateLexer::scanIdentifier() {
  const std::size_t first = position_;
  std::size_t next = first;
  while (next < text_.size() && isNamePart(unicode::decodeUTF8(text_, next)))
    position_ = next;
  return text_.substr(first, position_ - first);
}

PredicateToken PredicateLexer::word() {
  const std::string_view name = scanIdentifier();
  const Spelling* const reserved = peek() == '-' ? findHyphenated(text_.substr(start_)) : findReserved(name);
  if (reserved == nullptr) return token(Kind::identifier, name);
  position_ = start_ + reserved->text.size();
  return token(Kind::keyword, reserved->text, reserved->word);
}

PredicateToken PredicateLexer::prefixedWord(Kind kind, bool keepPrefix) {
  const char prefix = peek();
  ++position_;
  if (!isNameStart(peekPoint())) {
    return invalid(start_, prefix == '#'   ? "\"#\" without a name"
                           : prefix == '@' ? "\"@\" without a name"
                                           : "\"$\" without a name");
  }
  const std::string_view name = scanIdentifier();
  return token(kind, keepPrefix ? text_.substr(start_, position_ - start_) : name);
}

PredicateToken PredicateLexer::number() {
  if (peek() == '0') {
    const char base = upper(peek(1));
    const int radix = base == 'X' ? 16 : base == 'O' ? 8 : base == 'B' ? 2 : 0;
    if (radix != 0) return radixNumber(radix);
  }
  const auto skipDigits = [this] {
    while (isDigit(peek()))
      ++position_;
  };
  bool integral = true;
  skipDigits();
  if (peek() == '.') {
    integral = false;
    ++position_;
    skipDigits();
  }
  const std::size_t sign = peek(1) == '+' || peek(1) == '-' ? 1 : 0;
  if (upper(peek()) == 'E' && isDigit(peek(1 + sign))) {
    integral = false;
    position_ += 1 + sign;
    skipDigits();
  }
  if (isNamePart(peekPoint())) return invalid(start_, "a number runs into a word");

  const std::string_view digits = text_.substr(start_, position_ - start_);
  PredicateToken result = token(Kind::number, digits);
  std::uint64_t whole = 0;
  if (integral && std::from_chars(digits.data(), digits.data() + digits.size(), whole).ec == std::errc()) {
    result.value = Value(whole);
    return result;
  }
  const std::optional<double> real = realLiteral(digits);
  if (!real) return invalid(start_, "a number out of range");
  result.value = Value(*real);
  return result;
}

PredicateToken PredicateLexer::radixNumber(int radix) {
  position_ += 2;
  const std::size_t first = position_;
  double real = 0;
  for (; !atEnd() && digitValue(peek()) < radix; ++position_)
    real = real * radix + digitValue(peek());
  if (position_ == first) return invalid(start_, "a number without digits");
  if (isNamePart(peekPoint())) return invalid(start_, "a number runs into a word");

  PredicateToken result = token(Kind::number, text_.substr(start_, position_ - start_));
  std::uint64_t whole = 0;
  const bool fits =
      std::from_chars(text_.data() + first, text_.data() + position_, whole, radix).ec == std::errc();
  result.value = fits ? Value(whole) : Value(real);
  return result;
}

long PredicateLexer::scanDigits(std::size_t digits, int radix) {
  long value = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    const int digit = digitValue(peek(i));
    if (digit >= radix) return -1;
    value = value * radix + digit;
  }
  position_ += digits;
  return value;
}

bool PredicateLexer::unescape(std::string& out) {
  const long octal = scanDigits(3, 8);
  if (octal >= 0) {
    unicode::appendUTF8(out, static_cast<char32_t>(octal));
    return true;
  }
  const char c = peek();
  ++position_;
  long codePoint = -1;
  if (c == 'n') codePoint = '\n';
  if (c == 't') codePoint = '\t';
  if (c == 'r') codePoint = '\r';
  if (c == 'x') codePoint = scanDigits(2, 16);
  if (c == 'u') codePoint = scanDigits(4, 16);
  if (codePoint < 0) {
    out += c;
    return true;
  }
  if (codePoint >= 0xD800 && codePoint < 0xDC00 && peek() == '\\' && peek(1) == 'u') {
    position_ += 2;
    const long low = scanDigits(4, 16);
    if (low < 0xDC00 || low > 0xDFFF) return false;
    codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (low - 0xDC00);
  }
  if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return false;
  unicode::appendUTF8(out, static_cast<char32_t>(codePoint));
  return true;
}

PredicateToken PredicateLexer::string() {
  const char quote = peek();
  ++position_;
  std::string content;
  while (!atEnd() && peek() != quote) {
    const std::size_t at = position_;
    const char c = peek();
    ++position_;
    if (c != '\\') {
      content += c;
      continue;
    }
    if (atEnd()) break;
    if (!unescape(content)) return invalid(at, "half of a surrogate pair");
  }
  if (atEnd()) return invalid(start_, "a string without its closing quote");
  ++position_;
  PredicateToken result = token(Kind::string, text_.substr(start_, position_ - start_));
  result.value = Value(std::move(content));
  return result;
}

PredicateToken PredicateLexer::argument() {
  constexpr std::string_view kLengths = "hlqLzjt";
  constexpr std::size_t kLongestLength = 2;
  ++position_;
  std::size_t length = 0;
  while (length < kLongestLength && peek() != '\0' && kLengths.find(peek()) != std::string_view::npos) {
    ++position_;
    ++length;
  }
  const std::optional<Argument> what = conversion(peek(), length > 0);
  if (!what) return invalid(start_, "\"%\" without one of the known conversions");
  ++position_;
  PredicateToken result = token(Kind::argument, text_.substr(start_, position_ - start_));
  result.argument = *what;
  return result;
}

PredicateToken PredicateLexer::symbol() {
  const char first = peek();
  const char second = peek(1);
  const auto* const found = std::find_if(kSymbols.begin(), kSymbols.end(), [&](const Spelling& each) {
    return each.text[0] == first && (each.text.size() == 1 || each.text[1] == second);
  });
  if (found == kSymbols.end()) {
    const bool isIllFormed = peekPoint() == unicode::kIllFormed;
    return invalid(start_, isIllFormed ? "malformed UTF-8" : "a character that has no meaning here");
  }
  position_ += found->text.size();
  return token(Kind::symbol, found->text, found->word);
}

}  // namespace qx::detail
