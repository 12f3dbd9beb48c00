#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qx::log {

/// The flags of a conversion, each of them one of kCharacters.
class FormatFlags {
 public:
  static constexpr std::string_view kCharacters = "'-+#0 ";

  /// `flag` is one of kCharacters.
  void set(char flag) { bits_ |= 1U << kCharacters.find(flag); }
  bool has(char flag) const { return (bits_ >> kCharacters.find(flag) & 1U) != 0; }
  bool empty() const { return bits_ == 0; }

 private:
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
  bool isConversion() const;
};

/// The specification at the "%" in position `percent` of `format`, which no second "%" follows; nothing when
/// the format ends inside of it. A blank is no flag of os_log's and ends it, unless `blankIsFlag`, as for
/// fprintf. The same text is always taken apart the same way, so what one reader holds for a text that is
/// to be hidden no later reader takes for another.
/// Syntax: os_log(3); fprintf in ISO C, 7.21.6.1, and its positional form in POSIX.
std::optional<FormatSpecification> parseFormatSpecification(std::string_view format, std::size_t percent,
                                                            bool blankIsFlag = false);

}  // namespace qx::log
