#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

/// Limits of readBinaryPropertyList(): what a hostile file can cost.
struct PropertyListLimits {
  std::size_t depth = 512;                // collections inside each other
  std::size_t bytes = 64U << 20;          // size of the input
  std::size_t expandedValues = 1U << 20;  // values made, a shared one counted at each use
  std::size_t expandedBytes = 64U << 20;  // string and data bytes made, counted likewise
};

/// Writes `value` in the binary property-list format, version "bplist00": integers in 1, 2, 4, 8 (signed)
/// or, past 2^63 - 1, 16 bytes, ASCII strings as bytes, all others as UTF-16, dictionaries in key order.
/// Equal values of the same kinds give equal bytes (true, 1 and 1.0 are equal, but kept apart). Empty, with
/// *error of NSCocoaErrorDomain 3851, for what a property list cannot hold: the null marker, a string that is
/// not UTF-8, more (in depth, values or bytes) than the reader's limits let anyone read back. Format: as
/// published in the comment of the open-source release of CFBinaryPList.c. Any thread.
std::optional<std::string> writeBinaryPropertyList(const Value& value, ErrorPtr* error = nullptr);

/// Reads what writeBinaryPropertyList() or any other writer of the format made. Exact: every integer to 64
/// bits of either sign, every double, dates with their fraction, strings with their NULs. Empty, with
/// *error of NSCocoaErrorDomain 3840 naming the offset, for damaged input, cycles, kinds we have no value
/// for (sets, UIDs), keys that are no strings, and input past `limits`. Never crashes, never reads outside
/// `bytes`; work and memory are bounded by the limits. Of equal keys the last wins.
std::optional<Value> readBinaryPropertyList(std::string_view bytes, ErrorPtr* error = nullptr,
                                            const PropertyListLimits& limits = {});

/// Reads an XML property list (the small files that administrators and developers write: at most 1 MiB,
/// 64 levels). Empty, with *error of NSCocoaErrorDomain 3840, when it is none. Any thread.
std::optional<Value> readXMLPropertyList(std::string_view bytes, ErrorPtr* error = nullptr);

/// Reads a file of that form: a regular file, not through a symbolic link at the end of `path`. Empty, with
/// *error of NSCocoaErrorDomain: 260 missing, 257 no permission, 256 otherwise unreadable (the system's error
/// underneath), 3840 as above. Any thread.
std::optional<Value> readXMLPropertyListFile(const std::string& path, ErrorPtr* error = nullptr);

/// Writes `value` as XML, dates to the second. Empty, with *error of NSCocoaErrorDomain 3851, for what
/// readXMLPropertyList() would not read back: what writeBinaryPropertyList() refuses, control characters in a
/// string, dates outside the years 1000 to 9999, more than 64 levels or 1 MiB. Any thread.
std::optional<std::string> writeXMLPropertyList(const Value& value, ErrorPtr* error = nullptr);

}  // namespace qx
