#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qx::log {

/// The memory that the arguments of one message vouch for: what an address inside a text may be read from.
/// One thread at a time when one of them adds.
class ReadableMemory {
 public:
  /// The bytes stay readable for as long as this object is used.
  void add(std::span<const std::byte> bytes);
  /// The `length` bytes from `address` on, or nothing when no one range holds them all.
  std::optional<std::span<const std::byte>> at(std::uintptr_t address, std::size_t length) const;

 private:
  // By first address. No range lies within another, so that the ends ascend as well.
  std::map<std::uintptr_t, std::span<const std::byte>> ranges_;
};

/// Makes the text that is shown for an annotated value from its formatted one; nothing when it cannot be
/// decoded.
using ValueDecoder = std::optional<std::string> (*)(std::string_view value, const ReadableMemory& memory);

/// The int that `text` begins with, decimal and perhaps signed; held at the limits of int. Skips no blanks.
std::optional<int> scanInteger(std::string_view text);

/// The hexadecimal address that `text` begins with, "0x" or not. Nothing when there is none, and for those
/// that stand for none: 0 and all ones (also what is larger).
std::optional<std::uintptr_t> scanAddress(std::string_view text);

/// `text` without the blanks and line ends that it begins with.
std::string_view withoutLeadingBlanks(std::string_view text);

/// Adds the byte as two upper-case hexadecimal digits.
void appendHexadecimal(std::string& text, std::byte byte);

/// "'DE AD BE EF'": the bytes at the address in `value`, as many as the decimal `length` says. Nothing when
/// one of them is missing or the memory does not hold so many.
std::optional<std::string> decodeBinaryData(std::string_view length, std::string_view value,
                                            const ReadableMemory& memory);

}  // namespace qx::log
