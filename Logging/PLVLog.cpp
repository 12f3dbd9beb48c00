// Sending a log line, and making its text.
//
// A format reaches us as text and its arguments as typed values, so nothing is trusted to agree: each
// conversion is taken apart, and only a printf format rebuilt from known parts, with the one type that
// belongs to it, is ever handed to snprintf.
#include "Logging/PLVLog.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>

namespace qx::log {
namespace {

struct State {
  std::atomic<bool> enabled = false;  // whether `sink` is set; read without the mutex
  std::mutex mutex;
  std::shared_ptr<const Sink> sink;  // guarded by mutex
  std::shared_mutex running;         // shared while a sink is called
};

/// Never destroyed: threads may log while the process ends.
State& state() {
  static State& instance = *new State;
  return instance;
}

/// Marks the thread as being inside the sink.
class SinkScope {
 public:
  SinkScope() { inside_ = true; }
  ~SinkScope() { inside_ = false; }
  SinkScope(const SinkScope&) = delete;
  SinkScope& operator=(const SinkScope&) = delete;
  static bool inside() { return inside_; }

 private:
  static thread_local bool inside_;
};
thread_local bool SinkScope::inside_ = false;

constexpr int kLongestField = 1024;
constexpr std::string_view kNull = "(null)";

/// One conversion of a format: "%{public}-08.3lld".
struct Conversion {
  std::string flags;
  int width = 0;
  std::optional<int> precision;
  bool isLong = false;  // a length modifier of 64 bits
  char character = 0;
};

bool isOneOf(char character, std::string_view characters) {
  return characters.find(character) != std::string_view::npos;
}

/// The flags that have a meaning for `character`; with the others, printf's behaviour would be undefined.
std::string meaningfulFlags(const std::string& flags, char character) {
  std::string result;
  for (const char flag : flags) {
    if (flag == '#' && !isOneOf(character, "oxXfFeEgGaA")) continue;
    if (flag == '\'' && !isOneOf(character, "dufFgG")) continue;
    result += flag;
  }
  return result;
}

/// snprintf of one number; `length` and `character` must be those of a `Number`. A precision of -1 counts
/// as none.
template <typename Number>
std::string print(const Conversion& conversion, std::string_view length, char character, Number number) {
  std::string pattern(1, '%');
  pattern += meaningfulFlags(conversion.flags, character);
  pattern += "*.*";
  pattern += length;
  pattern += character;
  const int precision = conversion.precision.value_or(-1);
  const int size = std::snprintf(nullptr, 0, pattern.c_str(), conversion.width, precision, number);
  if (size < 0) return {};
  std::string text(static_cast<std::size_t>(size) + 1, '\0');
  std::snprintf(text.data(), text.size(), pattern.c_str(), conversion.width, precision, number);
  text.pop_back();
  return text;
}

/// The argument's own text, whatever the conversion.
std::string plainText(const Argument& argument) {
  if (const auto* text = std::get_if<std::string>(&argument)) return *text;
  if (const auto* number = std::get_if<std::int64_t>(&argument)) return std::to_string(*number);
  if (const auto* number = std::get_if<std::uint64_t>(&argument)) return std::to_string(*number);
  if (const auto* number = std::get_if<double>(&argument)) {
    std::array<char, 32> buffer;
    const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), *number).ptr;
    return {buffer.data(), end};
  }
  return std::string(kNull);
}

/// `text` in the conversion's field; never cut.
std::string padded(const Conversion& conversion, std::string text) {
  const auto width = static_cast<std::size_t>(conversion.width);
  if (text.size() >= width) return text;
  const bool left = conversion.flags.find('-') != std::string::npos;
  text.insert(left ? text.size() : 0, width - text.size(), ' ');
  return text;
}

std::optional<double> realNumber(const Argument& argument) {
  if (const auto* number = std::get_if<double>(&argument)) return *number;
  if (const auto* number = std::get_if<std::int64_t>(&argument)) return static_cast<double>(*number);
  if (const auto* number = std::get_if<std::uint64_t>(&argument)) return static_cast<double>(*number);
  return std::nullopt;
}

/// The bits that an unsigned conversion shows: 64, or the 32 of an int where no modifier asks for more.
std::optional<std::uint64_t> unsignedNumber(const Conversion& conversion, const Argument& argument) {
  if (const auto* number = std::get_if<std::uint64_t>(&argument)) return *number;
  const auto* number = std::get_if<std::int64_t>(&argument);
  if (number == nullptr) return std::nullopt;
  const bool isNegativeInt = *number < 0 && *number >= std::numeric_limits<std::int32_t>::min();
  if (isNegativeInt && !conversion.isLong) return static_cast<std::uint32_t>(*number);
  return static_cast<std::uint64_t>(*number);
}

/// A code point as UTF-8; empty for a number that is none.
std::string encodedCodePoint(std::int64_t code) {
  const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < 0 || code > 0x10FFFF || isSurrogate) return {};
  const auto byte = [code](int shift, int lead) {
    return static_cast<char>(lead | ((code >> shift) & 0x3F));
  };
  if (code < 0x80) return {static_cast<char>(code)};
  if (code < 0x800) return {static_cast<char>(0xC0 | (code >> 6)), byte(0, 0x80)};
  if (code < 0x10000) return {static_cast<char>(0xE0 | (code >> 12)), byte(6, 0x80), byte(0, 0x80)};
  return {static_cast<char>(0xF0 | (code >> 18)), byte(12, 0x80), byte(6, 0x80), byte(0, 0x80)};
}

std::optional<std::string> signedText(const Conversion& conversion, const Argument& argument) {
  if (const auto* number = std::get_if<std::int64_t>(&argument)) {
    return print(conversion, "ll", 'd', static_cast<long long>(*number));
  }
  if (const auto* number = std::get_if<std::uint64_t>(&argument)) {
    return print(conversion, "ll", 'u', static_cast<unsigned long long>(*number));
  }
  return std::nullopt;
}

std::optional<std::string> unsignedText(const Conversion& conversion, const Argument& argument) {
  const auto number = unsignedNumber(conversion, argument);
  if (!number) return std::nullopt;
  return print(conversion, "ll", conversion.character, static_cast<unsigned long long>(*number));
}

std::optional<std::string> realText(const Conversion& conversion, const Argument& argument) {
  const auto number = realNumber(argument);
  if (!number) return std::nullopt;
  return print(conversion, "", conversion.character, *number);
}

std::optional<std::string> characterText(const Conversion& conversion, const Argument& argument) {
  const auto* code = std::get_if<std::int64_t>(&argument);
  if (code == nullptr) return std::nullopt;
  return padded(conversion, encodedCodePoint(*code));
}

std::optional<std::string> addressText(const Conversion& conversion, const Argument& argument) {
  const auto address = unsignedNumber(conversion, argument);
  if (!address) return std::nullopt;
  std::string text("0x");
  text += print(Conversion{}, "ll", 'x', static_cast<unsigned long long>(*address));
  return padded(conversion, std::move(text));
}

/// The argument as the conversion wants it; nothing when it is of another kind, or text.
std::optional<std::string> numberText(const Conversion& conversion, const Argument& argument) {
  if (isOneOf(conversion.character, "di")) return signedText(conversion, argument);
  if (isOneOf(conversion.character, "uoxX")) return unsignedText(conversion, argument);
  if (isOneOf(conversion.character, "fFeEgGaA")) return realText(conversion, argument);
  if (isOneOf(conversion.character, "cC")) return characterText(conversion, argument);
  if (conversion.character == 'p') return addressText(conversion, argument);
  return std::nullopt;
}

/// Walks a format and its arguments, side by side.
class Formatter {
 public:
  explicit Formatter(const Message& message) : format_(message.format), arguments_(message.arguments) {}

  std::string run();

 private:
  bool parseConversion(Conversion& conversion);
  bool skipAnnotation();
  int parseNumber(Conversion* starWidth);
  const Argument& nextArgument();

  std::string_view format_;
  const std::vector<Argument>& arguments_;
  std::size_t position_ = 0;
  std::size_t used_ = 0;
  std::string text_;
};

std::string Formatter::run() {
  while (position_ < format_.size()) {
    const std::size_t percent = format_.find('%', position_);
    text_ += format_.substr(position_, percent - position_);
    if (percent == std::string_view::npos) break;
    position_ = percent + 1;
    if (position_ < format_.size() && format_[position_] == '%') {
      text_ += '%';
      ++position_;
      continue;
    }
    const std::size_t usedBefore = used_;
    if (Conversion conversion; parseConversion(conversion)) {
      const Argument& argument = nextArgument();
      const auto number = numberText(conversion, argument);
      text_ += number ? *number : padded(conversion, plainText(argument));
    } else {
      text_ += '%';
      position_ = percent + 1;
      used_ = usedBefore;
    }
  }
  return std::move(text_);
}

/// Reads what follows a "%"; false when it is no conversion.
bool Formatter::parseConversion(Conversion& conversion) {
  if (!skipAnnotation()) return false;
  while (position_ < format_.size() && isOneOf(format_[position_], "-+ #0'")) {
    const char flag = format_[position_++];
    if (!isOneOf(flag, conversion.flags)) conversion.flags += flag;
  }
  conversion.width = parseNumber(&conversion);
  if (position_ < format_.size() && format_[position_] == '.') {
    ++position_;
    conversion.precision = parseNumber(nullptr);
  }
  std::size_t modifiers = 0;
  for (; position_ < format_.size() && isOneOf(format_[position_], "hljztLq"); ++position_) {
    if (format_[position_] != 'h') conversion.isLong = true;
    if (++modifiers > 2) return false;
  }
  if (position_ == format_.size() || !isOneOf(format_[position_], "@sSdiuoxXfFeEgGaAcCp")) return false;
  conversion.character = format_[position_++];
  return true;
}

/// "{public}" and its like say how a value is to be shown; everything is shown here.
bool Formatter::skipAnnotation() {
  if (position_ == format_.size() || format_[position_] != '{') return true;
  const std::size_t end = format_.find('}', position_);
  if (end == std::string_view::npos) return false;
  position_ = end + 1;
  return true;
}

/// Digits, or "*" for the next argument. A negative width from an argument means a field filled on the
/// right (`starWidth` gets the flag); a negative precision from an argument means none.
int Formatter::parseNumber(Conversion* starWidth) {
  if (position_ < format_.size() && format_[position_] == '*') {
    ++position_;
    const auto* number = std::get_if<std::int64_t>(&nextArgument());
    const std::int64_t value = number ? std::clamp<std::int64_t>(*number, -kLongestField, kLongestField) : 0;
    if (value >= 0) return static_cast<int>(value);
    if (starWidth == nullptr) return -1;
    starWidth->flags += '-';
    return static_cast<int>(-value);
  }
  int value = 0;
  while (position_ < format_.size() && format_[position_] >= '0' && format_[position_] <= '9') {
    value = std::min(value * 10 + (format_[position_++] - '0'), kLongestField);
  }
  return value;
}

const Argument& Formatter::nextArgument() {
  static const Argument missing;
  return used_ < arguments_.size() ? arguments_[used_++] : missing;
}

}  // namespace

bool isEnabled(const PLVLogCategoryDescriptor& /*descriptor*/, PLVLogType /*type*/) {
  return state().enabled.load(std::memory_order_acquire);
}

void setSink(Sink sink) {
  auto replacement = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  State& shared = state();
  {
    const std::lock_guard lock(shared.mutex);
    shared.enabled.store(replacement != nullptr, std::memory_order_release);
    shared.sink.swap(replacement);
  }
  // Whoever called the old one has ended when nobody runs any more; a sink that replaces itself cannot wait.
  if (SinkScope::inside()) return;
  const std::unique_lock ended(shared.running);
}

void emit(const Message& message) {
  if (SinkScope::inside()) return;
  State& shared = state();
  const std::shared_lock running(shared.running);
  std::shared_ptr<const Sink> sink;
  {
    const std::lock_guard lock(shared.mutex);
    sink = shared.sink;
  }
  if (!sink) return;
  try {
    const SinkScope scope;
    (*sink)(message);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a log line is never worth an operation
  }
}

std::string format(const Message& message) {
  return Formatter(message).run();
}

}  // namespace qx::log
