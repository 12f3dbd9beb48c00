#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qx {

/// How many arrays and dictionaries an XML property list may have inside each other.
inline constexpr std::size_t kMostXMLPropertyListLevels = 64;

/// What keeps `text` from being an XML property list that a lenient, recursive parser can be trusted with, as
/// a phrase with its offset; empty when nothing does. Tags must match and keep to the depth limit,
/// dictionaries must alternate keys and values, and numbers, dates and data must be spelt as such. Element
/// names and the rest of the syntax are the parser's business. Linear. Any thread.
std::optional<std::string> problemInXMLPropertyList(std::string_view text);

}  // namespace qx
