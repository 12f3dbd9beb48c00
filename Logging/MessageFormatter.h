#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Logging/PLVLogArgument.h"

namespace qx::log {

/// The longest text that is made, in bytes; a message that would become longer is refused.
inline constexpr std::size_t kLongestMessage = std::size_t{1} << 20U;

/// Larger widths, and larger precisions of numbers, count as this one.
inline constexpr int kWidestField = 4096;

/// `format` with the arguments in place, annotations passed over; what is no conversion is copied as it
/// stands. Nothing when an argument is missing or of a kind that its conversion cannot take, when conversions
/// with and without positions are mixed, or when the text would be longer than kLongestMessage.
///
/// - "d", "i", "u", "o", "x", "X": an integer that is no larger than the length modifier tells: 64 bits for
///   "l", "ll", "j", "z", "t" and "L", else those of int, of which "h" and "hh" keep the low 16 and 8.
/// - "f", "F", "e", "E", "g", "G", "a", "A": a double, as in the C locale.
/// - "c": an int, shown as a character of ISO 8859-1; "C": an int, a code point or UTF-16 unit.
/// - "s": text, widths and precisions in bytes of UTF-8; "@": text, in UTF-16 units; "S": UTF-16 text, in its
///   units. No precision cuts a character. None is "(null)". What is ill-formed is shown as U+FFFD.
/// - "p": an address, bytes (their address) or none, as "0x..." whatever the precision.
/// - "n" is refused: nothing is written to.
/// - A blank flag counts before numbers only; before another conversion it is text, and the argument unused.
///
/// Never throws other than std::bad_alloc. Any thread.
/// Syntax: fprintf in ISO C, 7.21.6.1, and its positional form in POSIX.
std::optional<std::string> formatMessage(std::string_view format, std::span<const Argument> arguments);

}  // namespace qx::log
