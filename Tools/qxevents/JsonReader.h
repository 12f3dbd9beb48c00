#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Value.h>

namespace qxevents {

/// Lists and objects may stand inside each other this deep, the outermost counted.
inline constexpr std::size_t kMaximumDepth = 100;

/// What the text given to readJson() is: marks ("$date" and its like, see EventJson.h) stand for values
/// inside the information of an event, never for the information itself.
enum class JsonRoot { record, info, value };

/// Reads one JSON text (RFC 8259) strictly: UTF-8, no null, no member twice, no number that a 64-bit
/// integer or a double cannot hold, at most kMaximumDepth levels. "-0" becomes the real number -0.0.
/// Nothing, and a sentence in `refusal` that names the place and is fit for a terminal, when it is not so.
std::optional<qx::Value> readJson(std::string_view text, JsonRoot root, std::string& refusal);

/// The moment that `text` names: an RFC 3339 date-time, or what qx::Date::toRFC3339() writes for a moment
/// outside the calendar.
std::optional<qx::Date> parseTime(std::string_view text);

}  // namespace qxevents
