#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Logging/FormatSpecification.h"
#include "Logging/PLVLogArgument.h"

namespace qx::log {

/// What a conversion sees of an argument's type.
enum class ArgumentKind : std::uint8_t { none, integer, longInteger, real, text, utf16, address, bytes };

template <typename Type>
inline constexpr bool isBytes = std::is_convertible_v<Type, Argument::Bytes>;
template <std::size_t size>
inline constexpr bool isBytes<std::array<unsigned char, size>> = true;
template <std::size_t size>
inline constexpr bool isBytes<unsigned char[size]> = true;

template <typename Type>
constexpr ArgumentKind argumentKind() {
  if constexpr (std::is_same_v<Type, std::nullptr_t>) {
    return ArgumentKind::none;
  } else if constexpr (LoggableInteger<Type>) {
    return sizeof(+Type{}) > sizeof(int) ? ArgumentKind::longInteger : ArgumentKind::integer;
  } else if constexpr (std::floating_point<Type>) {
    return ArgumentKind::real;
  } else if constexpr (std::is_convertible_v<Type, std::u16string_view>) {
    return ArgumentKind::utf16;
  } else if constexpr (std::is_pointer_v<Type> && !std::is_convertible_v<Type, std::string_view>) {
    return ArgumentKind::address;
  } else if constexpr (isBytes<Type>) {
    return ArgumentKind::bytes;
  } else {
    return ArgumentKind::text;  // or an object
  }
}

/// Whether a conversion takes an argument of that kind; as PLVFormatMessage() decides when it runs.
constexpr bool takes(const FormatSpecification& specification, ArgumentKind kind) {
  const auto is = [&](std::string_view characters) { return isOneOf(specification.conversion, characters); };
  if (kind == ArgumentKind::none) return is("s@SpP");
  if (is("diouxX")) {
    const bool isLong = specification.length.find_first_of("ljztL") != std::string_view::npos;
    return kind == ArgumentKind::integer || (isLong && kind == ArgumentKind::longInteger);
  }
  if (is("cC")) return kind == ArgumentKind::integer;
  if (is("fFeEgGaA")) return kind == ArgumentKind::real;
  if (is("s@")) return kind == ArgumentKind::text;
  if (is("S")) return kind == ArgumentKind::utf16;
  if (is("pP")) return kind == ArgumentKind::address || kind == ArgumentKind::bytes;
  return false;
}

/// Whether the format's conversions and the arguments go together, in order and in number. Formats with
/// positions are not looked into.
template <std::size_t count>
constexpr bool goTogether(std::string_view format, const std::array<ArgumentKind, count>& arguments) {
  std::size_t used = 0;
  const auto takesStar = [&](const FormatNumber& number) {
    if (number.kind != FormatNumber::Kind::argument) return true;
    return used < count && arguments[used++] == ArgumentKind::integer;
  };
  for (std::size_t at = format.find('%'); at != std::string_view::npos; at = format.find('%', at)) {
    if (format.substr(at).starts_with("%%")) {
      at += 2;
      continue;
    }
    const auto specification = parseFormatSpecification(format, at);
    if (!specification) return false;
    if (!specification->position.empty()) return true;
    if (!takesStar(specification->width) || !takesStar(specification->precision)) return false;
    if (used == count || !takes(*specification, arguments[used++])) return false;
    at += specification->text.size();
  }
  return used == count;
}

/// A format that is known when the program runs only; what does not go together is found then.
struct RuntimeFormat {
  std::string_view text;
};

/// A format for arguments of these types. A literal that does not go together with them does not compile.
template <typename... Arguments>
class CheckedFormat {
 public:
  template <std::size_t size>
  consteval CheckedFormat(const char (&text)[size]) : text_(text, size - 1) {
    if (!goTogether(text_, std::array<ArgumentKind, sizeof...(Arguments)>{argumentKind<Arguments>()...}))
      throw "the format and the arguments of a log call do not go together";
  }
  CheckedFormat(RuntimeFormat format) : text_(format.text) {}

  constexpr std::string_view text() const { return text_; }

 private:
  std::string_view text_;
};

}  // namespace qx::log
