#pragma once

// UTF-8 and UTF-16 at the level of code points, for the value layer. Encoding forms: The Unicode Standard,
// chapter 3.9, tables 3-5 to 3-7.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace qx::unicode {

/// What decodeUTF8() returns for an ill-formed sequence.
inline constexpr char32_t kIllFormed = 0xFFFFFFFF;

/// Whether every byte is ASCII. Looks at eight bytes at a time, the last of them possibly twice.
inline bool isASCII(std::string_view text) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  constexpr std::uint64_t kHighBits = 0x8080808080808080U;
  if (text.size() < kWord) {
    unsigned seen = 0;
    for (const char byte : text)
      seen |= static_cast<unsigned char>(byte);
    return seen < 0x80;
  }
  const auto wordAt = [text](std::size_t position) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + position, kWord);
    return word;
  };
  const std::size_t last = text.size() - kWord;
  for (std::size_t position = 0; position < last; position += kWord) {
    if ((wordAt(position) & kHighBits) != 0) return false;
  }
  return (wordAt(last) & kHighBits) == 0;
}

/// The code point at `position`, which moves behind it; kIllFormed when there is no well-formed one.
inline char32_t decodeUTF8(std::string_view text, std::size_t& position) {
  const auto lead = static_cast<unsigned char>(text[position++]);
  if (lead < 0x80) return lead;
  const int length = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
  if (length == 0) return kIllFormed;
  char32_t point = lead & (0xFFU >> (length + 1));
  for (int i = 1; i < length; ++i) {
    if (position == text.size()) return kIllFormed;
    const auto next = static_cast<unsigned char>(text[position]);
    if ((next & 0xC0U) != 0x80) return kIllFormed;
    point = point << 6U | (next & 0x3FU);
    ++position;
  }
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = point >= 0xD800 && point <= 0xDFFF;
  return point < kSmallest[length] || isSurrogate || point > 0x10FFFF ? kIllFormed : point;
}

/// Adds `point`, a Unicode scalar value, to `text`.
inline void appendUTF8(std::string& text, char32_t point) {
  const auto continuation = [point](unsigned shift) {
    return static_cast<char>(0x80U | (point >> shift & 0x3FU));
  };
  if (point < 0x80) {
    text += static_cast<char>(point);
  } else if (point < 0x800) {
    text += {static_cast<char>(0xC0U | point >> 6U), continuation(0)};
  } else if (point < 0x10000) {
    text += {static_cast<char>(0xE0U | point >> 12U), continuation(6), continuation(0)};
  } else {
    text += {static_cast<char>(0xF0U | point >> 18U), continuation(12), continuation(6), continuation(0)};
  }
}

}  // namespace qx::unicode
