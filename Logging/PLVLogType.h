#pragma once

#include <cstdint>

/// The types of a log message, by their os_log numbers.
enum class PLVLogType : std::uint8_t { Default = 0, Info = 1, Debug = 2, Error = 16, Fault = 17 };

/// "Info", "Debug", "Error", "Fault", and "Default" for every other value.
const char* nameOfLogType(PLVLogType type);

/// Where a log line was written: the file's path in the source tree, and the function's full name, such as
/// "-[QXEventStore addEvent]".
struct PLVLogSource {
  const char* file;
  unsigned line;
  const char* function;
};
