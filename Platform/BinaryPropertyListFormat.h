#pragma once

// The binary property list, version "bplist00", as the comment at the head of CFBinaryPList.c publishes it:
//
//   header         "bplist00"
//   objects        a marker byte each (kind in the high half, size or count in the low), then the content
//   offset table   for each object number, where in the file it starts
//   trailer        32 bytes, see below
//
// Everything is big-endian. Collections name their content by object number; a dictionary lists the numbers
// of its keys, then those of its values.

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace qx::bplist {

inline constexpr std::string_view kHeader = "bplist00";

/// The high half of a marker byte.
enum class Kind : std::uint8_t {
  simple = 0x0,
  integer = 0x1,
  real = 0x2,
  date = 0x3,
  data = 0x4,
  asciiString = 0x5,
  utf16String = 0x6,
  array = 0xA,
  dictionary = 0xD
};

inline constexpr std::uint8_t kFalse = 0x08;
inline constexpr std::uint8_t kTrue = 0x09;
inline constexpr std::uint8_t kReal32 = 0x22;
inline constexpr std::uint8_t kReal64 = 0x23;
inline constexpr std::uint8_t kDate = 0x33;
/// In the low half: the count follows as an integer object.
inline constexpr unsigned kCountFollows = 0xF;

// The trailer: where its fields stand in it.
inline constexpr std::size_t kTrailerSize = 32;
inline constexpr std::size_t kOffsetSizeAt = 6;
inline constexpr std::size_t kReferenceSizeAt = 7;
inline constexpr std::size_t kObjectCountAt = 8;
inline constexpr std::size_t kTopObjectAt = 16;
inline constexpr std::size_t kOffsetTableAt = 24;

/// The big-endian number in the `size` bytes, 1 to 8, at `bytes`.
inline std::uint64_t readBigEndian(const char* bytes, std::size_t size) {
  const auto byteAt = [bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  if (size == 1) return byteAt(0);  // small files are made of these two
  if (size == 2) return static_cast<unsigned>(byteAt(0) << 8U | byteAt(1));
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < size; ++i)
    number = number << 8U | byteAt(i);
  return number;
}

inline void writeBigEndian(char* bytes, std::uint64_t number, std::size_t size) {
  for (std::size_t i = size; i > 0; --i, number >>= 8U)
    bytes[i - 1] = static_cast<char>(number & 0xFFU);
}

/// 1, 2, 4 or 8: the bytes that hold `number`.
inline std::size_t bytesFor(std::uint64_t number) {
  return number <= 0xFF ? 1 : number <= 0xFFFF ? 2 : number <= 0xFFFFFFFF ? 4 : 8;
}

}  // namespace qx::bplist
