#pragma once

#include <string>
#include <string_view>

namespace qx {

/// A new random UUID (RFC 4122 version 4): 36 characters, upper-case hexadecimal. Any thread.
std::string makeUUID();

/// Whether `text` is a UUID in its canonical form, in either case.
bool isUUID(std::string_view text);

/// 16 bytes that stand for `text` (RFC 4122 version 5, in a name space of our own): equal texts give
/// equal bytes, on every machine.
std::string nameUUIDBytes(std::string_view text);

}  // namespace qx
