#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>

#include "Logging/ASLMessage.h"

namespace qx::log {

/// Leaves room for the keys in what a local socket takes.
inline constexpr std::size_t kLongestSyslogText = std::size_t{64} << 10U;

/// A line for the local syslog socket: "<PRI>Mmm dd hh:mm:ss NAME[PID]: TEXT [PLV KEY="VALUE" ...]", facility
/// "user" and `level` (2 critical to 5 notice), all keys of `message` in order; without keys it ends with the
/// text. Values escape '"', '\' and ']' with '\'; control characters of text and values are written as "#ooo"
/// (octal), so a line stays one line, and so is the bracket of a "[PLV" in the text, so that nobody's words
/// pass for keys. A text of more than kLongestSyslogText bytes is cut, and "..." follows it. `now` is shown
/// in local time. Throws nothing but std::bad_alloc. Formats: RFC 3164 (header, as local daemons expect it),
/// RFC 5424 6.3 (the keys). Any thread.
std::string syslogLine(int level, const ASLMessage& message, std::string_view text, std::time_t now);

/// The same line for standard error: "Mmm dd hh:mm:ss HOST NAME[PID] <LEVEL>: TEXT\n", level as "Critical",
/// "Error", "Warning", "Notice" (syslog's other levels by their names too), HOST without its domain; control
/// characters other than tab as above. Any thread.
std::string standardErrorLine(int level, std::string_view text, std::time_t now);

}  // namespace qx::log
