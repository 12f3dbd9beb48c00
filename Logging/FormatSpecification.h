#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qx::log {

/// A set of ASCII characters, asked without a loop.
class CharacterClass {
 public:
  constexpr explicit CharacterClass(std::string_view characters) {
    for (const char character : characters)
      bits_[static_cast<unsigned char>(character) / 64U] |= std::uint64_t{1} << (character & 63);
  }
  constexpr bool has(char character) const {
    const auto code = static_cast<unsigned char>(character);
    return code < 128 && (bits_[code / 64U] >> (code & 63U) & 1U) != 0;
  }

 private:
  std::array<std::uint64_t, 2> bits_{};
};

/// For the characters of a literal.
constexpr bool isOneOf(char character, std::string_view characters) {
  for (const char each : characters) {
    if (each == character) return true;
  }
  return false;
}

/// The flags of a conversion, each of them one of kCharacters.
class FormatFlags {
 public:
  static constexpr std::string_view kCharacters = "'-+#0 ";

  /// `flag` is one of kCharacters.
  constexpr void set(char flag) { bits_ |= bitOf(flag); }
  constexpr bool has(char flag) const { return (bits_ & bitOf(flag)) != 0; }
  constexpr bool empty() const { return bits_ == 0; }

 private:
  static constexpr unsigned bitOf(char flag) {
    unsigned bit = 1;
    for (const char each : kCharacters) {
      if (each == flag) break;
      bit <<= 1U;
    }
    return bit;
  }

  unsigned bits_ = 0;
};

/// A width or a precision.
struct FormatNumber {
  enum class Kind : std::uint8_t { none, digits, argument };

  Kind kind = Kind::none;
  std::string_view digits;  // of the number, or of the argument's position; may be empty
};

/// One conversion of a format, taken apart: "%2${public,errno}-08.3lld". Points into the format.
struct FormatSpecification {
  static constexpr CharacterClass kDigits{"1234567890"};
  static constexpr CharacterClass kLengthModifiers{"hljztL"};
  static constexpr CharacterClass kConversions{"diouxXfFeEgGaAcspnCS@"};

  std::string_view text;      // all of it
  std::string_view position;  // digits; empty when it has none
  bool isAnnotated = false;
  std::string_view annotation;  // without its braces
  FormatFlags flags;
  FormatNumber width;
  FormatNumber precision;
  std::string_view length;  // any number of "hljztL"
  char conversion = 0;      // the character that ends it, whether it means something or not

  /// Whether `conversion` is one that takes an argument ("P" is none: it is known to annotated formats only).
  constexpr bool isConversion() const { return kConversions.has(conversion); }
};

/// See parseFormatSpecification().
class SpecificationParser {
 public:
  constexpr SpecificationParser(std::string_view format, std::size_t percent, bool blankIsFlag)
      : format_(format), start_(percent), position_(percent + 1), blankIsFlag_(blankIsFlag) {}

  constexpr std::optional<FormatSpecification> run() {
    if (isNext(FormatSpecification::kDigits)) parsePositionOrWidth();
    if (!parseAnnotation()) return std::nullopt;
    if (!isNext(FormatSpecification::kConversions)) parseLayout();
    if (atEnd()) return std::nullopt;
    result_.conversion = format_[position_++];
    result_.text = format_.substr(start_, position_ - start_);
    return result_;
  }

 private:
  constexpr bool isFlag(char character) const {
    return isOneOf(character, "'-+#0") || (blankIsFlag_ && character == ' ');
  }
  constexpr bool isNext(const CharacterClass& characters) const {
    return !atEnd() && characters.has(format_[position_]);
  }
  constexpr bool atEnd() const { return position_ == format_.size(); }

  constexpr bool accept(char character) {
    if (atEnd() || format_[position_] != character) return false;
    ++position_;
    return true;
  }

  constexpr std::string_view acceptAll(const CharacterClass& characters) {
    std::size_t end = position_;
    while (end < format_.size() && characters.has(format_[end]))
      ++end;
    const auto text = format_.substr(position_, end - position_);
    position_ = end;
    return text;
  }

  /// Digits that "$" ends; nothing (and nothing read) when there are none.
  constexpr std::string_view acceptPosition() {
    const std::size_t before = position_;
    const auto digits = acceptAll(FormatSpecification::kDigits);
    if (!digits.empty() && accept('$')) return digits;
    position_ = before;
    return {};
  }

  constexpr void parsePositionOrWidth() {
    result_.position = acceptPosition();
    if (!result_.position.empty()) return;
    if (accept('0')) result_.flags.set('0');
    const auto digits = acceptAll(FormatSpecification::kDigits);
    if (!digits.empty()) result_.width = {FormatNumber::Kind::digits, digits};
  }

  /// False when it does not end.
  constexpr bool parseAnnotation() {
    if (!accept('{')) return true;
    const std::size_t end = format_.find('}', position_);
    if (end == std::string_view::npos) return false;
    result_.isAnnotated = true;
    result_.annotation = format_.substr(position_, end - position_);
    position_ = end + 1;
    return true;
  }

  /// Flags, width, precision and length, all of which may be missing.
  constexpr void parseLayout() {
    for (; !atEnd() && isFlag(format_[position_]); ++position_)
      result_.flags.set(format_[position_]);
    if (result_.width.kind == FormatNumber::Kind::none) result_.width = parseNumber();
    if (accept('.')) {
      result_.precision = parseNumber();
      if (result_.precision.kind == FormatNumber::Kind::none)
        result_.precision.kind = FormatNumber::Kind::digits;
    }
    result_.length = acceptAll(FormatSpecification::kLengthModifiers);
  }

  constexpr FormatNumber parseNumber() {
    if (accept('*')) {
      return {FormatNumber::Kind::argument, result_.position.empty() ? std::string_view() : acceptPosition()};
    }
    const auto digits = acceptAll(FormatSpecification::kDigits);
    return {digits.empty() ? FormatNumber::Kind::none : FormatNumber::Kind::digits, digits};
  }

  const std::string_view format_;
  const std::size_t start_;
  std::size_t position_;
  const bool blankIsFlag_;
  FormatSpecification result_;
};

/// The conversion specification at the "%" in position `percent` of `format`, which no second "%" follows;
/// nothing when the format ends inside of it. A blank is no flag of os_log's and ends it, unless
/// `blankIsFlag`, as for fprintf. The same text is always taken apart the same way, so what one reader holds
/// for a text that is to be hidden no later reader takes for another. Syntax: os_log(3); fprintf in ISO
/// C, 7.21.6.1, and its positional form in POSIX.
constexpr std::optional<FormatSpecification> parseFormatSpecification(std::string_view format,
                                                                      std::size_t percent,
                                                                      bool blankIsFlag = false) {
  return SpecificationParser(format, percent, blankIsFlag).run();
}

}  // namespace qx::log
