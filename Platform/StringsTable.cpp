#include "Platform/StringsTable.h"

#include <algorithm>
#include <charconv>

#include "Platform/Unicode.h"

namespace qx {

namespace {

constexpr std::size_t kMaximumBytes = 1U << 20;
constexpr std::size_t kUnitDigits = 4;

bool isBareCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
         c == '-';
}

bool isBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Each function takes what it names from the front of the text, or sets the problem.
class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  std::optional<StringsTable> parse() {
    StringsTable table;
    if (text_.substr(0, 3) == "\xEF\xBB\xBF") position_ = 3;
    for (skipBlanks(); !failed() && position_ < text_.size(); skipBlanks()) {
      std::string key = takeText();
      takeSign('=');
      std::string value = takeText();
      takeSign(';');
      if (!failed()) table.insert_or_assign(std::move(key), std::move(value));
    }
    if (failed()) return std::nullopt;
    return table;
  }

  std::string problem() const {
    const auto line =
        1 + std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(position_), '\n');
    return "Line " + std::to_string(line) + " of the strings table: " + problem_ + ".";
  }

 private:
  bool failed() const { return !problem_.empty(); }
  void fail(std::string problem) {
    if (!failed()) problem_ = std::move(problem);
  }
  bool startsWith(std::string_view sign) const { return text_.substr(position_, sign.size()) == sign; }

  void skipBlanks() {
    while (position_ < text_.size() && !failed()) {
      if (isBlank(text_[position_])) {
        ++position_;
      } else if (startsWith("//")) {
        position_ = std::min(text_.find('\n', position_), text_.size());
      } else if (startsWith("/*")) {
        const std::size_t end = text_.find("*/", position_ + 2);
        if (end == std::string_view::npos) return fail("a comment without an end");
        position_ = end + 2;
      } else {
        return;
      }
    }
  }

  void takeSign(char sign) {
    skipBlanks();
    if (failed()) return;
    if (position_ >= text_.size() || text_[position_] != sign)
      return fail(std::string("\"") + sign + "\" expected");
    ++position_;
  }

  std::string takeText() {
    skipBlanks();
    if (failed()) return {};
    if (startsWith("\"")) return takeQuoted();
    const std::size_t start = position_;
    while (position_ < text_.size() && isBareCharacter(text_[position_]))
      ++position_;
    if (position_ == start) fail("a text expected");
    return std::string(text_.substr(start, position_ - start));
  }

  std::string takeQuoted() {
    std::string taken;
    for (++position_; !failed() && position_ < text_.size();) {
      const char c = text_[position_++];
      if (c == '"') return taken;
      if (c == '\\') {
        takeEscape(&taken);
      } else {
        taken += c;
      }
    }
    fail("a text without an end");
    return {};
  }

  void takeEscape(std::string* taken) {
    static constexpr std::string_view kLetters = "nrtbf0";
    static constexpr std::string_view kMeanings("\n\r\t\b\f\0", 6);
    if (position_ >= text_.size()) return;
    const char letter = text_[position_++];
    if (letter == 'U' || letter == 'u') return takeUnits(taken);
    const std::size_t known = kLetters.find(letter);
    *taken += known == std::string_view::npos ? letter : kMeanings[known];
  }

  /// A UTF-16 unit, or the two of a surrogate pair ("\Ud83d\Ude00").
  void takeUnits(std::string* taken) {
    const char32_t first = takeUnit();
    if (first < 0xD800 || first > 0xDFFF) return unicode::appendUTF8(*taken, first);
    if (first > 0xDBFF || !(startsWith("\\U") || startsWith("\\u"))) return fail("half a surrogate pair");
    position_ += 2;
    const char32_t second = takeUnit();
    if (second < 0xDC00 || second > 0xDFFF) return fail("half a surrogate pair");
    unicode::appendUTF8(*taken, 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00));
  }

  char32_t takeUnit() {
    const std::string_view digits = text_.substr(position_, kUnitDigits);
    std::uint32_t unit = 0;
    const char* const end = digits.data() + digits.size();
    const auto [rest, failure] = std::from_chars(digits.data(), end, unit, 16);
    if (failure != std::errc() || rest != end || digits.size() != kUnitDigits) {
      fail("\\U needs four hexadecimal digits");
      return 0;
    }
    position_ += kUnitDigits;
    return unit;
  }

  const std::string_view text_;
  std::size_t position_ = 0;
  std::string problem_;
};

}  // namespace

std::optional<StringsTable> parseStringsTable(std::string_view text, ErrorPtr* error) {
  constexpr std::int64_t kUnreadable = 3840;
  if (text.size() > kMaximumBytes || !isValidUTF8(text)) {
    setError(error, Error::make(kCocoaErrorDomain, kUnreadable,
                                "The strings table is longer than 1 MiB or no UTF-8."));
    return std::nullopt;
  }
  Parser parser(text);
  std::optional<StringsTable> table = parser.parse();
  if (!table) setError(error, Error::make(kCocoaErrorDomain, kUnreadable, parser.problem()));
  return table;
}

}  // namespace qx
