#include "Logging/ValueDecoders.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <system_error>

#include "Logging/MessageFormatter.h"

namespace qx::log {
namespace {

std::uintptr_t addressOf(std::span<const std::byte> bytes) {
  return reinterpret_cast<std::uintptr_t>(bytes.data());
}

std::uintptr_t endOf(std::span<const std::byte> bytes) {
  return addressOf(bytes) + bytes.size();
}

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

}  // namespace

void ReadableMemory::add(std::span<const std::byte> bytes) {
  if (bytes.empty()) return;
  const std::uintptr_t start = addressOf(bytes);
  auto next = ranges_.upper_bound(start);
  if (next != ranges_.begin() && endOf(std::prev(next)->second) >= endOf(bytes)) return;
  while (next != ranges_.end() && endOf(next->second) <= endOf(bytes))
    next = ranges_.erase(next);
  ranges_.insert_or_assign(start, bytes);
}

std::optional<std::span<const std::byte>> ReadableMemory::at(std::uintptr_t address,
                                                             std::size_t length) const {
  auto range = ranges_.upper_bound(address);
  if (range == ranges_.begin()) return std::nullopt;
  const auto bytes = (--range)->second;
  const std::uintptr_t offset = address - range->first;
  if (offset > bytes.size() || length > bytes.size() - offset) return std::nullopt;
  return bytes.subspan(offset, length);
}

std::optional<int> scanInteger(std::string_view text) {
  if (text.size() > 1 && text[0] == '+' && isDigit(text[1])) text.remove_prefix(1);
  int number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec == std::errc()) return number;
  if (result.ec != std::errc::result_out_of_range) return std::nullopt;
  return text[0] == '-' ? std::numeric_limits<int>::min() : std::numeric_limits<int>::max();
}

std::optional<std::uintptr_t> scanAddress(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
  std::uintptr_t address = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), address, 16);
  if (result.ec != std::errc()) return std::nullopt;
  if (address == 0 || address == std::numeric_limits<std::uintptr_t>::max()) return std::nullopt;
  return address;
}

std::string_view withoutLeadingBlanks(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  return text;
}

void appendHexadecimal(std::string& text, std::byte byte) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  text += kDigits[std::to_integer<unsigned>(byte >> 4U)];
  text += kDigits[std::to_integer<unsigned>(byte & std::byte{0x0F})];
}

std::optional<std::string> decodeBinaryData(std::string_view length, std::string_view value,
                                            const ReadableMemory& memory) {
  constexpr int kLongest = kLongestMessage / 3;  // each byte takes three characters
  const auto count = scanInteger(length);
  const auto address = scanAddress(withoutLeadingBlanks(value));
  if (!count || *count < 1 || *count > kLongest || !address) return std::nullopt;
  const auto bytes = memory.at(*address, static_cast<std::size_t>(*count));
  if (!bytes) return std::nullopt;
  std::string text;
  text.reserve(bytes->size() * 3 + 1);
  char separator = '\'';
  for (const std::byte byte : *bytes) {
    text += separator;
    appendHexadecimal(text, byte);
    separator = ' ';
  }
  text += '\'';
  return text;
}

}  // namespace qx::log
