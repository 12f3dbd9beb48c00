// Numbers of different kinds are compared without ever rounding an integer to a double; the printed form
// follows the old-style ("OpenStep") property list.

#include <array>
#include <charconv>
#include <cmath>
#include <limits>

#include <Platform/Unicode.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {
namespace {

using Integer = std::int64_t;
using Unsigned = std::uint64_t;
constexpr Integer kIntegerMax = std::numeric_limits<Integer>::max();
constexpr Integer kIntegerMin = std::numeric_limits<Integer>::min();
constexpr double kTwoTo63 = 9223372036854775808.0;

using Number = std::variant<Integer, Unsigned, double>;

std::optional<Number> numberOf(const Value& value) {
  if (const auto* boolean = value.asBool()) return Integer{*boolean};
  if (const auto* integer = value.asInteger()) return *integer;
  if (const auto* integer = value.asUnsigned()) return *integer;
  if (const auto* real = value.asReal()) return *real;
  return std::nullopt;
}

template <class Whole>
std::partial_ordering compareExactly(Whole whole, double real) {
  constexpr double kLowest = std::is_signed_v<Whole> ? -kTwoTo63 : 0;
  constexpr double kPastLargest = std::is_signed_v<Whole> ? kTwoTo63 : 2 * kTwoTo63;
  if (std::isnan(real)) return std::partial_ordering::unordered;
  if (real < kLowest) return std::partial_ordering::greater;
  if (real >= kPastLargest) return std::partial_ordering::less;
  const double cut = std::trunc(real);
  const auto cutWhole = static_cast<Whole>(cut);
  return whole == cutWhole ? cut <=> real : std::partial_ordering(whole <=> cutWhole);
}

std::partial_ordering opposite(std::partial_ordering order) {
  if (std::is_lt(order)) return std::partial_ordering::greater;
  return std::is_gt(order) ? std::partial_ordering::less : order;
}

struct NumberComparison {
  std::partial_ordering operator()(Integer a, Integer b) const { return a <=> b; }
  std::partial_ordering operator()(Unsigned a, Unsigned b) const { return a <=> b; }
  std::partial_ordering operator()(double a, double b) const { return a <=> b; }
  std::partial_ordering operator()(Integer a, Unsigned b) const {
    return a < 0 ? std::partial_ordering::less : std::partial_ordering(static_cast<Unsigned>(a) <=> b);
  }
  std::partial_ordering operator()(Unsigned a, Integer b) const { return opposite((*this)(b, a)); }
  std::partial_ordering operator()(Integer a, double b) const { return compareExactly(a, b); }
  std::partial_ordering operator()(Unsigned a, double b) const { return compareExactly(a, b); }
  std::partial_ordering operator()(double a, Integer b) const { return opposite(compareExactly(b, a)); }
  std::partial_ordering operator()(double a, Unsigned b) const { return opposite(compareExactly(b, a)); }
};

Integer cutToInteger(double real) {
  if (std::isnan(real)) return 0;
  if (real >= kTwoTo63) return kIntegerMax;
  if (real <= -kTwoTo63) return kIntegerMin;
  return static_cast<Integer>(real);
}

Integer parseInteger(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  Unsigned magnitude = 0;
  if (text.empty() || text.front() < '0' || text.front() > '9') return 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  constexpr Unsigned kPastMax = Unsigned{1} << 63U;
  if (parsed.ec != std::errc() || magnitude >= kPastMax) return negative ? kIntegerMin : kIntegerMax;
  return negative ? -static_cast<Integer>(magnitude) : static_cast<Integer>(magnitude);
}

/// Writes a value the way the old-style property list reads.
class Printer {
 public:
  void print(const Value& value, std::size_t level) {
    switch (value.kind()) {
      case Value::Kind::null:
        text_ += "<null>";
        return;
      case Value::Kind::boolean:
        text_ += *value.asBool() ? '1' : '0';
        return;
      case Value::Kind::integer:
        printNumber(*value.asInteger());
        return;
      case Value::Kind::unsignedInteger:
        printNumber(*value.asUnsigned());
        return;
      case Value::Kind::real:
        printNumber(*value.asReal());
        return;
      case Value::Kind::date:
        text_ += value.asDate()->description();
        return;
      case Value::Kind::string:
        printString(*value.asString());
        return;
      case Value::Kind::data:
        printData(*value.asData());
        return;
      case Value::Kind::array:
        printArray(*value.asArray(), level);
        return;
      case Value::Kind::dictionary:
        printDictionary(*value.asDictionary(), level);
        return;
    }
  }

  std::string take() { return std::move(text_); }

 private:
  static constexpr std::size_t kMostLevels = 32;

  template <class T>
  void printNumber(T number) {
    std::array<char, 32> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    text_.append(digits.data(), end);
  }

  static bool needsNoQuotes(std::string_view text) {
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./$:-";
    return !text.empty() && text.find_first_not_of(kPlain) == std::string_view::npos;
  }

  void printString(std::string_view text) {
    if (needsNoQuotes(text)) {
      text_ += text;
      return;
    }
    text_ += '"';
    for (const char character : text)
      printEscaped(character);
    text_ += '"';
  }

  void printEscaped(char character) {
    switch (character) {
      case '"':
        text_ += "\\\"";
        return;
      case '\\':
        text_ += "\\\\";
        return;
      case '\n':
        text_ += "\\n";
        return;
      case '\r':
        text_ += "\\r";
        return;
      case '\t':
        text_ += "\\t";
        return;
      default:
        break;
    }
    const auto code = static_cast<unsigned char>(character);
    if (code >= 0x20 && code != 0x7F) {
      text_ += character;
      return;
    }
    text_ += "\\U00";
    printHexadecimal(code);
  }

  void printHexadecimal(unsigned char byte) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    text_ += {kDigits[byte >> 4U], kDigits[byte & 0xFU]};
  }

  void printData(const Data& data) {
    text_ += '<';
    for (const char byte : data.bytes())
      printHexadecimal(static_cast<unsigned char>(byte));
    text_ += '>';
  }

  void printArray(const Array& array, std::size_t level) {
    if (level == kMostLevels) {
      text_ += "(...)";
      return;
    }
    text_ += "(\n";
    for (std::size_t i = 0; i < array.size(); ++i) {
      indent(level + 1);
      print(array[i], level + 1);
      text_ += i + 1 < array.size() ? ",\n" : "\n";
    }
    indent(level);
    text_ += ')';
  }

  void printDictionary(const Dictionary& dictionary, std::size_t level) {
    if (level == kMostLevels) {
      text_ += "{...}";
      return;
    }
    text_ += "{\n";
    for (const auto& [key, value] : dictionary) {
      indent(level + 1);
      printString(key);
      text_ += " = ";
      print(value, level + 1);
      text_ += ";\n";
    }
    indent(level);
    text_ += '}';
  }

  void indent(std::size_t level) { text_.append(4 * level, ' '); }

  std::string text_;
};

}  // namespace

Value::Value(unsigned long value) : Value(static_cast<unsigned long long>(value)) {}

Value::Value(unsigned long long value) {
  if (value <= static_cast<Unsigned>(kIntegerMax)) {
    storage_ = static_cast<Integer>(value);
  } else {
    storage_ = Unsigned{value};
  }
}

Value::Value(const String& value) {
  if (value) storage_ = *value;
}

Integer Value::integerValue() const {
  if (const auto* text = asString()) return parseInteger(*text);
  if (const auto* boolean = asBool()) return Integer{*boolean};
  if (const auto* integer = asInteger()) return *integer;
  if (asUnsigned() != nullptr) return kIntegerMax;
  if (const auto* real = asReal()) return cutToInteger(*real);
  return 0;
}

double Value::doubleValue() const {
  const auto number = numberOf(*this);
  return number ? std::visit([](auto n) { return static_cast<double>(n); }, *number) : 0;
}

bool Value::boolValue() const {
  const auto number = numberOf(*this);
  return number && std::visit([](auto n) { return n != 0; }, *number);
}

String Value::stringValue() const {
  const auto* text = asString();
  return text != nullptr ? String(*text) : std::nullopt;
}

std::string Value::description() const {
  Printer printer;
  printer.print(*this, 0);
  return printer.take();
}

bool operator==(const Value& a, const Value& b) {
  if (a.kind() == b.kind()) return a.storage_ == b.storage_;
  return compareNumbers(a, b) == std::partial_ordering::equivalent;
}

std::partial_ordering compareNumbers(const Value& a, const Value& b) {
  const auto first = numberOf(a);
  const auto second = numberOf(b);
  if (!first || !second) return std::partial_ordering::unordered;
  return std::visit(NumberComparison{}, *first, *second);
}

bool isValidUTF8(std::string_view text) {
  if (unicode::isASCII(text)) return true;
  for (std::size_t position = 0; position < text.size();) {
    if (unicode::decodeUTF8(text, position) == unicode::kIllFormed) return false;
  }
  return true;
}

}  // namespace qx
