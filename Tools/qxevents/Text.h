#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qxevents {

/// `text` as it may be shown on a terminal: control characters, line and paragraph separators and
/// characters that are invisible or reorder text are written as \n, \t, \u001B, \u{E0041}; bytes that are not
/// UTF-8 as \xC3. What is left is valid UTF-8 that moves no cursor.
std::string printable(std::string_view text);

/// printable(), cut to at most `maximumWidth` columns for use in a message.
std::string excerpt(std::string_view text, std::size_t maximumWidth = 60);

/// Columns that printable text takes on a terminal: wide East Asian characters and emoji two, combining
/// marks none (Unicode Standard Annex #11).
std::size_t displayWidth(std::string_view text);

enum class Cut { end, start };

/// Printable text cut to at most `width` columns, "…" standing for what is missing at its end or start.
std::string fitted(const std::string& text, std::size_t width, Cut cut = Cut::end);

/// Base 64 (RFC 4648, section 4), with padding.
std::string base64(std::string_view bytes);
/// Nothing for anything but the canonical form that base64() writes.
std::optional<std::string> bytesFromBase64(std::string_view text);

/// Whether `text` is a UUID in its canonical form, in either case.
bool isUUID(std::string_view text);

}  // namespace qxevents
