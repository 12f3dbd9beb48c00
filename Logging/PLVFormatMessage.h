#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Logging/PLVLogArgument.h"

/// The text of a log message: `format` in os_log syntax with its arguments in place, private values (of "%s",
/// "%S", "%@", "%P" unless annotated "public", and of whatever is annotated "private") as "<private>",
/// annotated ones decoded, or "<unknown>". Nothing when the format cannot be understood, an argument is
/// missing or of a kind that its conversion cannot take, or the text would pass kLongestMessage; which
/// conversion takes what tells MessageFormatter.h.
///
/// - An annotation is a list of words, divided by commas and blanks, that hold in their order: "public",
///   "private", and how the value is decoded: "errno" or "darwin.errno", "BOOL", "bool", "uuid_t".
/// - From the first conversion on that is annotated or hidden, one that is unknown makes the whole format
///   unknown; before, it is text.
/// - "%.16P" and "%.*P" show bytes, and "%{uuid_t}P" a UUID, only out of memory that an argument of kind
///   Bytes vouches for: an address in a mere text is never read.
/// - The value to hide or decode ends at its first ")": what follows in the value is shown as it is.
///
/// Takes time in proportion to format and result. Never throws other than std::bad_alloc. Any thread.
/// Syntax: os_log(3); fprintf in ISO C, 7.21.6.1, and its positional form in POSIX.
std::optional<std::string> PLVFormatMessage(std::string_view format,
                                            std::span<const qx::log::Argument> arguments);
