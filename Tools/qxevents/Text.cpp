// Character properties are ICU's: general category, East Asian width, default ignorable, bidi control.

#include "Text.h"

#include <array>
#include <cstdint>

#include <fmt/format.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace qxevents {
namespace {

constexpr UChar32 kZeroWidthNonJoiner = 0x200C;
constexpr UChar32 kZeroWidthJoiner = 0x200D;
constexpr std::string_view kEllipsis = "…";

/// The character at `position`, which moves behind it; negative for an ill-formed sequence.
UChar32 nextCharacter(std::string_view text, std::size_t& position) {
  const auto length = static_cast<std::int64_t>(text.size());
  auto index = static_cast<std::int64_t>(position);
  UChar32 character = 0;
  U8_NEXT(text.data(), index, length, character);
  position = static_cast<std::size_t>(index);
  return character;
}

bool isSafeOnTerminal(UChar32 character) {
  if (character >= 0x20 && character < 0x7F) return true;
  if (character == kZeroWidthJoiner || character == kZeroWidthNonJoiner) return true;
  switch (u_charType(character)) {
    case U_CONTROL_CHAR:
    case U_LINE_SEPARATOR:
    case U_PARAGRAPH_SEPARATOR:
      return false;
    case U_FORMAT_CHAR:
      return u_hasBinaryProperty(character, UCHAR_DEFAULT_IGNORABLE_CODE_POINT) == 0 &&
             u_hasBinaryProperty(character, UCHAR_BIDI_CONTROL) == 0;
    default:
      return true;
  }
}

std::string escaped(UChar32 character) {
  switch (character) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return character < 0x10000 ? fmt::format("\\u{:04X}", character)
                                 : fmt::format("\\u{{{:X}}}", character);
  }
}

std::size_t widthOf(UChar32 character) {
  if (character >= 0x20 && character < 0x7F) return 1;
  switch (u_charType(character)) {
    case U_NON_SPACING_MARK:
    case U_ENCLOSING_MARK:
    case U_CONTROL_CHAR:
      return 0;
    default:
      break;
  }
  if (character == kZeroWidthJoiner || character == kZeroWidthNonJoiner) return 0;
  if (character >= 0x1160 && character <= 0x11FF)
    return 0;  // vowels and finals join the syllable before them
  const auto eastAsian = u_getIntPropertyValue(character, UCHAR_EAST_ASIAN_WIDTH);
  return eastAsian == U_EA_WIDE || eastAsian == U_EA_FULLWIDTH ? 2 : 1;
}

std::string cutAtEnd(const std::string& text, std::size_t width) {
  std::size_t taken = 0;
  std::size_t position = 0;
  while (position < text.size()) {
    std::size_t next = position;
    taken += widthOf(nextCharacter(text, next));
    if (taken > width - 1) break;
    position = next;
  }
  return text.substr(0, position).append(kEllipsis);
}

std::string cutAtStart(const std::string& text, std::size_t width) {
  std::size_t left = displayWidth(text);
  std::size_t position = 0;
  while (position < text.size() && left > width - 1)
    left -= widthOf(nextCharacter(text, position));
  while (position < text.size()) {  // a mark without its base has no place here
    std::size_t next = position;
    if (widthOf(nextCharacter(text, next)) != 0) break;
    position = next;
  }
  return std::string(kEllipsis).append(text, position);
}

constexpr std::string_view kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeBase64Values() {
  std::array<std::int8_t, 256> values{};
  for (auto& value : values)
    value = -1;
  for (std::size_t i = 0; i < kBase64Digits.size(); ++i) {
    values[static_cast<unsigned char>(kBase64Digits[i])] = static_cast<std::int8_t>(i);
  }
  return values;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  std::size_t position = 0;
  while (position < text.size()) {
    const std::size_t start = position;
    const UChar32 character = nextCharacter(text, position);
    if (character < 0) {
      for (std::size_t i = start; i < position; ++i) {
        result += fmt::format("\\x{:02X}", static_cast<unsigned char>(text[i]));
      }
    } else if (isSafeOnTerminal(character)) {
      result.append(text, start, position - start);
    } else {
      result += escaped(character);
    }
  }
  return result;
}

std::string excerpt(std::string_view text, std::size_t maximumWidth) {
  constexpr std::size_t kBytesPerColumn = 16;  // enough for every base with a few marks
  const bool isLong = text.size() > maximumWidth * kBytesPerColumn;
  std::string shown = printable(text.substr(0, maximumWidth * kBytesPerColumn));
  if (isLong) shown.append(kEllipsis);
  return fitted(shown, maximumWidth);
}

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  std::size_t position = 0;
  while (position < text.size()) {
    const UChar32 character = nextCharacter(text, position);
    width += character < 0 ? 1 : widthOf(character);
  }
  return width;
}

std::string fitted(const std::string& text, std::size_t width, Cut cut) {
  if (displayWidth(text) <= width) return text;
  if (width == 0) return {};
  return cut == Cut::end ? cutAtEnd(text, width) : cutAtStart(text, width);
}

std::string base64(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const auto group = bytes.substr(i, 3);
    std::uint32_t bits = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      bits = bits << 8U | (k < group.size() ? static_cast<unsigned char>(group[k]) : 0U);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      text += k <= group.size() ? kBase64Digits[bits >> (18 - 6 * k) & 0x3FU] : '=';
    }
  }
  return text;
}

std::optional<std::string> bytesFromBase64(std::string_view text) {
  static constexpr auto kValues = makeBase64Values();
  if (text.size() % 4 != 0) return std::nullopt;
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isPadding = i + padding >= text.size();
    const int value = isPadding ? 0 : kValues[static_cast<unsigned char>(text[i])];
    if (value < 0) return std::nullopt;
    bits = bits << 6U | static_cast<std::uint32_t>(value);
    if (i % 4 != 3) continue;
    for (const unsigned shift : {16U, 8U, 0U})
      bytes += static_cast<char>(bits >> shift & 0xFFU);
    bits = 0;
  }
  bytes.resize(bytes.size() - padding);
  if (padding != 0 && base64(bytes) != text) return std::nullopt;  // bits set that the padding leaves unused
  return bytes;
}

bool isUUID(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isHyphen = i == 8 || i == 13 || i == 18 || i == 23;
    const char c = text[i];
    const bool isHex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
    if (isHyphen ? c != '-' : !isHex) return false;
  }
  return true;
}

}  // namespace qxevents
