#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Error.h>

namespace qx {

using StringsTable = std::map<std::string, std::string, std::less<>>;

/// Reads a table of localized texts, in UTF-8: entries "key" = "value"; with /* */ and // comments between
/// them. A key or value of letters, digits, "_", "." and "-" needs no quotes. Escapes: \\ \" \' \n \r \t \b
/// \f \0 and \Uxxxx, a UTF-16 unit in hexadecimal. Of equal keys the last wins. Empty, with *error of
/// NSCocoaErrorDomain 3840 naming the line, for anything else and for more than 1 MiB. Any thread.
/// Format: the "Strings files" of the platform's public internationalization guide.
std::optional<StringsTable> parseStringsTable(std::string_view text, ErrorPtr* error = nullptr);

}  // namespace qx
