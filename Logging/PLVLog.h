#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <QXEventStoring/Platform/Date.h>
#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Value.h>

/// Where the log lines of one part of a program go: a subsystem and a category name.
struct PLVLogCategoryDescriptor {
  const char* subsystem;
  const char* category;
};

/// The types of a log message, by their os_log numbers.
enum class PLVLogType : std::uint8_t { Default = 0, Info = 1, Debug = 2, Error = 16, Fault = 17 };

/// Where a log line was written.
struct PLVLogSource {
  const char* file;
  unsigned line;
  const char* function;
};

namespace qx::log {

/// One argument of a log line, typed: a wrong conversion cannot read what is not there.
using Argument = std::variant<std::monostate, std::int64_t, std::uint64_t, double, std::string>;

inline Argument argument(std::nullptr_t) {
  return {};
}
inline Argument argument(std::string text) {
  return Argument(std::move(text));
}
inline Argument argument(std::string_view text) {
  return Argument(std::string(text));
}
inline Argument argument(const char* text) {
  return text ? Argument(std::string(text)) : Argument();
}
inline Argument argument(const void* address) {
  return Argument(std::uint64_t{reinterpret_cast<std::uintptr_t>(address)});
}
inline Argument argument(const String& text) {
  return text ? Argument(*text) : Argument();
}
inline Argument argument(const ErrorPtr& error) {
  return error ? Argument(error->summary()) : Argument();
}
inline Argument argument(const Dictionary& values) {
  return Argument(Value(values).description());
}
inline Argument argument(const Value& value) {
  return Argument(value.description());
}
template <typename Number>
requires std::is_arithmetic_v<Number> Argument argument(Number number) {
  if constexpr (std::is_floating_point_v<Number>) {
    return Argument(static_cast<double>(number));
  } else if constexpr (std::is_unsigned_v<Number> && sizeof(Number) == sizeof(std::uint64_t)) {
    return Argument(std::uint64_t{number});
  } else {
    return Argument(static_cast<std::int64_t>(number));
  }
}

/// The arguments of a log line in their order.
template <typename... Arguments>
std::vector<Argument> arguments(Arguments&&... values) {
  std::vector<Argument> result;
  result.reserve(sizeof...(values));
  (result.push_back(argument(std::forward<Arguments>(values))), ...);
  return result;
}

/// A line ready to be formatted and sent. What it refers to lives as long as the call that gets it.
struct Message {
  const PLVLogCategoryDescriptor& descriptor;
  PLVLogType type;
  PLVLogSource source;
  std::string_view format;
  std::vector<Argument> arguments;
};

/// Whether a line of that category and type would be sent to anyone. Costs one atomic load when not. Any
/// thread.
bool isEnabled(const PLVLogCategoryDescriptor& descriptor, PLVLogType type);

/// Hands the message to the sink, when there is one. A line that the sink itself writes is dropped, and so
/// is what the sink throws: logging never fails its caller. Any thread.
void emit(const Message& message);

/// The message's text: its format, in os_log syntax ("%{public}@", "%ld", "%lx"...), with the arguments in
/// place. A conversion without an argument prints "(null)"; one whose argument is of another kind prints
/// the argument as it is; strings are printed whole. Text that is no conversion is copied, arguments left
/// over are ignored, widths and precisions past 1024 count as 1024.
/// Syntax: os_log(3); fprintf in ISO C, 7.21.6.1.
std::string format(const Message& message);

/// Receives every line that is sent; none (the initial state) means that nothing is sent. The function is
/// called on the thread that logs, possibly several at a time.
using Sink = std::function<void(const Message&)>;

/// Replaces the sink; an empty one ends all sending. Returns only after running calls of the former one have
/// ended (unless called from inside it), so that what it uses may go afterwards. Any thread.
void setSink(Sink sink);

}  // namespace qx::log

/// Writes a log line: PLVLog(descriptor, PLVLogType::Info, "Count [%lu]", count). The arguments are
/// evaluated only when the line is sent.
#define PLVLog(descriptor, type, format, ...)                                                             \
  do {                                                                                                    \
    if (::qx::log::isEnabled(descriptor, type)) {                                                         \
      ::qx::log::emit(                                                                                    \
          {descriptor, type, {__FILE__, __LINE__, __func__}, format, ::qx::log::arguments(__VA_ARGS__)}); \
    }                                                                                                     \
  } while (false)
