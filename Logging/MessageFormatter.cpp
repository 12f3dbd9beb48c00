// A format reaches us as text and its arguments as typed values, so nothing is trusted to agree: each
// conversion is taken apart, and only a printf format rebuilt from known parts, with the one type that
// belongs to it, is ever handed to snprintf.
#include "Logging/MessageFormatter.h"

#include <locale.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <utility>
#include <variant>

#include "Logging/FormatSpecification.h"
#include "Platform/Unicode.h"

namespace qx::log {
namespace {

constexpr char32_t kReplacementCharacter = 0xFFFD;
constexpr std::string_view kNull = "(null)";
constexpr std::string_view kIntegerConversions = "diuoxX";
constexpr std::string_view kNumberConversions = "diuoxXfFeEgGaA";

/// How the value of one conversion is laid out.
struct Field {
  FormatFlags flags;
  int width = 0;  // 0 to kWidestField
  std::optional<int> precision = std::nullopt;

  bool isPlain() const { return flags.empty() && width == 0 && !precision; }
};

/// Digits as a number; no digits are 0, too many the largest.
int saturated(std::string_view digits) {
  int number = 0;
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return result.ec == std::errc::result_out_of_range ? std::numeric_limits<int>::max() : number;
}

/// The size in bytes of the integers that a conversion with these length modifiers shows.
std::size_t sizeForLength(std::string_view length) {
  if (length.empty()) return sizeof(int);
  if (length.find_first_not_of('h') != std::string_view::npos) return sizeof(std::int64_t);
  return length.size() == 1 ? sizeof(short) : sizeof(char);
}

/// The integer, as C passes one of its type where `size` bytes are read; nothing when it is larger than that.
std::optional<std::uint64_t> integerBits(const Argument& argument, std::size_t size) {
  const std::size_t passed = std::max(size, sizeof(int));
  if (const auto* number = std::get_if<Argument::SignedInteger>(&argument.storage())) {
    if (number->size <= passed) return static_cast<std::uint64_t>(number->value);
  }
  if (const auto* number = std::get_if<Argument::UnsignedInteger>(&argument.storage())) {
    if (number->size <= passed) return number->value;
  }
  return std::nullopt;
}

std::optional<int> intArgument(const Argument& argument) {
  const auto bits = integerBits(argument, sizeof(int));
  if (!bits) return std::nullopt;
  return static_cast<int>(*bits);
}

std::int64_t signExtended(std::uint64_t bits, std::size_t size) {
  const auto unused = static_cast<unsigned>(64 - 8 * size);
  return static_cast<std::int64_t>(bits << unused) >> unused;
}

std::uint64_t truncated(std::uint64_t bits, std::size_t size) {
  return bits & std::numeric_limits<std::uint64_t>::max() >> (64 - 8 * size);
}

char32_t decodeUTF16(std::u16string_view text, std::size_t& position) {
  const char32_t unit = text[position++];
  if (unit < 0xD800 || unit > 0xDFFF) return unit;
  const bool isPair = unit < 0xDC00 && position < text.size() && (text[position] & 0xFC00U) == 0xDC00;
  if (!isPair) return unicode::kIllFormed;
  return 0x10000 + ((unit & 0x3FFU) << 10U | (text[position++] & 0x3FFU));
}

int sizeInUTF8(char32_t point) {
  return point < 0x80 ? 1 : point < 0x800 ? 2 : point < 0x10000 ? 3 : 4;
}

int sizeInUTF16(char32_t point) {
  return point < 0x10000 ? 1 : 2;
}

/// The arguments of a message, which a format takes either one after the other or by their positions.
class ArgumentList {
 public:
  explicit ArgumentList(std::span<const Argument> arguments) : arguments_(arguments) {}

  /// The argument at `position` (digits, from 1 on), or the next one when that is empty; null when there is
  /// none or the other way was taken before.
  const Argument* take(std::string_view position) {
    const Way way = position.empty() ? Way::inOrder : Way::byPosition;
    if (way_ != Way::undecided && way_ != way) return nullptr;
    way_ = way;
    const std::size_t index =
        position.empty() ? next_++ : static_cast<std::size_t>(saturated(position)) - std::size_t{1};
    return index < arguments_.size() ? &arguments_[index] : nullptr;
  }

 private:
  enum class Way : std::uint8_t { undecided, inOrder, byPosition };

  const std::span<const Argument> arguments_;
  std::size_t next_ = 0;
  Way way_ = Way::undecided;
};

/// The text under way. What adds to it returns false when it would become too long.
class MessageText {
 public:
  void reserve(std::size_t size) { text_.reserve(std::min(size, kLongestMessage)); }

  bool append(std::string_view text) {
    if (text.size() > kLongestMessage - text_.size()) return false;
    text_ += text;
    return true;
  }

  /// snprintf of one number; `length` and `conversion` are those of a `Number`.
  template <typename Number>
  bool appendNumber(const Field& field, std::string_view length, char conversion, Number number);

  /// `decode` and `sizeOf` give the code points of `text` and what each counts in widths and precisions.
  template <typename Text, typename Decode>
  bool appendText(const Field& field, Text text, Decode decode, int (*sizeOf)(char32_t));

  bool appendUTF8(const Field& field, std::string_view text, int (*sizeOf)(char32_t)) {
    if (field.isPlain() && isValidUTF8(text)) return append(text);
    return appendText(field, text, unicode::decodeUTF8, sizeOf);
  }

  std::string take() { return std::move(text_); }

 private:
  bool pad(const Field& field, std::size_t start, int size);

  std::string text_;
};

/// Without the flags that have no meaning for `conversion`, for which printf's behaviour is undefined.
std::array<char, 16> printfPattern(const Field& field, std::string_view length, char conversion) {
  std::array<char, 16> pattern{};
  char* end = pattern.data();
  *end++ = '%';
  for (const char flag : FormatFlags::kCharacters) {
    if (!field.flags.has(flag)) continue;
    if (flag == '#' && !isOneOf(conversion, "oxXfFeEgGaA")) continue;
    if (flag == '\'' && !isOneOf(conversion, "dufFgG")) continue;
    *end++ = flag;
  }
  end = std::copy_n("*.*", 3, end);
  end = std::copy(length.begin(), length.end(), end);
  *end = conversion;
  return pattern;
}

/// Numbers look the same whatever locale the program has chosen.
class PlainNumbers {
 public:
  PlainNumbers() {
    static const locale_t plain = ::newlocale(LC_ALL_MASK, "C", nullptr);  // null is what uselocale() ignores
    previous_ = ::uselocale(plain);
  }
  PlainNumbers(const PlainNumbers&) = delete;
  PlainNumbers& operator=(const PlainNumbers&) = delete;
  ~PlainNumbers() { ::uselocale(previous_); }

 private:
  locale_t previous_;
};

template <typename Number>
bool MessageText::appendNumber(const Field& field, std::string_view length, char conversion, Number number) {
  const auto pattern = printfPattern(field, length, conversion);
  const int precision = std::min(field.precision.value_or(-1), kWidestField);  // -1 counts as none
  const PlainNumbers plain;
  const auto print = [&](char* buffer, std::size_t capacity) {
    return std::snprintf(buffer, capacity, pattern.data(), field.width, precision, number);
  };
  std::array<char, 512> buffer;
  const int result = print(buffer.data(), buffer.size());
  if (result < 0) return false;
  const auto size = static_cast<std::size_t>(result);
  if (size < buffer.size()) return append({buffer.data(), size});
  std::string text(size + 1, '\0');
  print(text.data(), text.size());
  return append({text.data(), size});
}

template <typename Text, typename Decode>
bool MessageText::appendText(const Field& field, Text text, Decode decode, int (*sizeOf)(char32_t)) {
  const std::size_t start = text_.size();
  const int limit = field.precision.value_or(std::numeric_limits<int>::max());
  int size = 0;
  for (std::size_t position = 0; position < text.size();) {
    char32_t point = decode(text, position);
    if (point == unicode::kIllFormed) point = kReplacementCharacter;
    if (sizeOf(point) > limit - size) break;
    if (text_.size() + sizeof(char32_t) > kLongestMessage) return false;
    size += sizeOf(point);
    unicode::appendUTF8(text_, point);
  }
  return pad(field, start, size);
}

/// Fills the field that begins at `start` and holds a text of `size`.
bool MessageText::pad(const Field& field, std::size_t start, int size) {
  if (size >= field.width) return true;
  const auto missing = static_cast<std::size_t>(field.width - size);
  if (missing > kLongestMessage - text_.size()) return false;
  text_.insert(field.flags.has('-') ? text_.size() : start, missing, ' ');
  return true;
}

/// Walks a format and puts the arguments in place.
class MessageFormatter {
 public:
  MessageFormatter(std::string_view format, std::span<const Argument> arguments)
      : format_(format), arguments_(arguments) {}

  std::optional<std::string> run();

 private:
  bool appendSpecification(std::size_t& position);
  bool appendConversion(const FormatSpecification& specification);
  std::optional<Field> fieldOf(const FormatSpecification& specification);
  std::optional<int> numberOf(const FormatNumber& number);
  bool appendValue(const FormatSpecification& specification, const Field& field, const Argument& argument);
  bool appendInteger(const FormatSpecification& specification, const Field& field, const Argument& argument);
  bool appendReal(char conversion, const Field& field, const Argument& argument);
  bool appendCharacter(bool isByte, const Field& field, const Argument& argument);
  bool appendText(const Field& field, const Argument& argument, int (*sizeOf)(char32_t));
  bool appendUTF16(const Field& field, const Argument& argument);
  bool appendAddress(const Field& field, const Argument& argument);

  const std::string_view format_;
  ArgumentList arguments_;
  MessageText text_;
};

std::optional<std::string> MessageFormatter::run() {
  text_.reserve(2 * format_.size());
  for (std::size_t position = 0; position < format_.size();) {
    const std::size_t percent = std::min(format_.find('%', position), format_.size());
    if (!text_.append(format_.substr(position, percent - position))) return std::nullopt;
    position = percent;
    if (position < format_.size() && !appendSpecification(position)) return std::nullopt;
  }
  return text_.take();
}

/// Takes the "%" at `position` and what belongs to it, and moves behind that.
bool MessageFormatter::appendSpecification(std::size_t& position) {
  if (format_.substr(position, 2) == "%%") {
    position += 2;
    return text_.append("%");
  }
  const auto specification = parseFormatSpecification(format_, position);
  if (!specification) return false;
  if (specification->conversion == ' ') {
    const auto blankFlagged = parseFormatSpecification(format_, position, true);
    if (blankFlagged && isOneOf(blankFlagged->conversion, kNumberConversions)) {
      position += blankFlagged->text.size();
      return appendConversion(*blankFlagged);
    }
  }
  position += specification->text.size();
  if (!specification->isConversion()) return text_.append(specification->text);
  return appendConversion(*specification);
}

bool MessageFormatter::appendConversion(const FormatSpecification& specification) {
  const auto field = fieldOf(specification);
  if (!field) return false;
  const Argument* argument = arguments_.take(specification.position);
  return argument != nullptr && appendValue(specification, *field, *argument);
}

std::optional<Field> MessageFormatter::fieldOf(const FormatSpecification& specification) {
  Field field{.flags = specification.flags};
  const auto width = numberOf(specification.width);
  if (!width) return std::nullopt;
  if (*width < 0) field.flags.set('-');
  field.width = std::abs(std::clamp(*width, -kWidestField, kWidestField));
  const auto precision = numberOf(specification.precision);
  if (!precision) return std::nullopt;
  const bool hasPrecision = specification.precision.kind != FormatNumber::Kind::none;
  if (hasPrecision && *precision >= 0) field.precision = *precision;
  return field;
}

/// 0 for none; nothing when its argument is missing or not an int.
std::optional<int> MessageFormatter::numberOf(const FormatNumber& number) {
  if (number.kind != FormatNumber::Kind::argument) return saturated(number.digits);
  const Argument* argument = arguments_.take(number.digits);
  if (argument == nullptr) return std::nullopt;
  return intArgument(*argument);
}

bool MessageFormatter::appendValue(const FormatSpecification& specification, const Field& field,
                                   const Argument& argument) {
  switch (specification.conversion) {
    case 's':
      return appendText(field, argument, sizeInUTF8);
    case '@':
      return appendText(field, argument, sizeInUTF16);
    case 'S':
      return appendUTF16(field, argument);
    case 'c':
    case 'C':
      return appendCharacter(specification.conversion == 'c', field, argument);
    case 'p':
      return appendAddress(field, argument);
    case 'n':
      return false;
    default:
      break;
  }
  if (isOneOf(specification.conversion, kIntegerConversions)) {
    return appendInteger(specification, field, argument);
  }
  return appendReal(specification.conversion, field, argument);
}

bool MessageFormatter::appendInteger(const FormatSpecification& specification, const Field& field,
                                     const Argument& argument) {
  const std::size_t size = sizeForLength(specification.length);
  const auto bits = integerBits(argument, size);
  if (!bits) return false;
  const char conversion = specification.conversion;
  if (isOneOf(conversion, "di")) {
    const std::int64_t number = signExtended(*bits, size);
    return field.isPlain() ? text_.append(std::to_string(number))
                           : text_.appendNumber(field, "ll", 'd', static_cast<long long>(number));
  }
  const std::uint64_t number = truncated(*bits, size);
  return field.isPlain() && conversion == 'u'
             ? text_.append(std::to_string(number))
             : text_.appendNumber(field, "ll", conversion, static_cast<unsigned long long>(number));
}

bool MessageFormatter::appendReal(char conversion, const Field& field, const Argument& argument) {
  const auto* number = std::get_if<double>(&argument.storage());
  return number != nullptr && text_.appendNumber(field, "", conversion, *number);
}

bool MessageFormatter::appendCharacter(bool isByte, const Field& field, const Argument& argument) {
  const auto number = intArgument(argument);
  if (!number) return false;
  auto point = isByte ? static_cast<unsigned char>(*number) : static_cast<char32_t>(*number);
  const bool isSurrogate = point >= 0xD800 && point <= 0xDFFF;
  if (point > 0x10FFFF || isSurrogate) point = kReplacementCharacter;
  std::string character;
  unicode::appendUTF8(character, point);
  const Field withoutPrecision{.flags = field.flags, .width = field.width};
  return text_.appendUTF8(withoutPrecision, character, sizeInUTF16);
}

bool MessageFormatter::appendText(const Field& field, const Argument& argument, int (*sizeOf)(char32_t)) {
  const auto& storage = argument.storage();
  if (const auto* text = std::get_if<std::string_view>(&storage))
    return text_.appendUTF8(field, *text, sizeOf);
  if (const auto* text = std::get_if<std::string>(&storage)) return text_.appendUTF8(field, *text, sizeOf);
  return std::holds_alternative<Argument::None>(storage) && text_.appendUTF8(field, kNull, sizeOf);
}

bool MessageFormatter::appendUTF16(const Field& field, const Argument& argument) {
  const auto& storage = argument.storage();
  if (const auto* text = std::get_if<std::u16string_view>(&storage)) {
    return text_.appendText(field, *text, decodeUTF16, sizeInUTF16);
  }
  return std::holds_alternative<Argument::None>(storage) && text_.appendUTF8(field, kNull, sizeInUTF16);
}

bool MessageFormatter::appendAddress(const Field& field, const Argument& argument) {
  const auto& storage = argument.storage();
  const void* address = nullptr;
  if (const auto* known = std::get_if<Argument::Address>(&storage)) {
    address = known->address;
  } else if (const auto* bytes = std::get_if<Argument::Bytes>(&storage)) {
    address = bytes->data();
  } else if (!std::holds_alternative<Argument::None>(storage)) {
    return false;
  }
  std::array<char, 24> text{'0', 'x'};
  const auto number = reinterpret_cast<std::uintptr_t>(address);
  const auto* end = std::to_chars(text.data() + 2, text.data() + text.size(), number, 16).ptr;
  const Field withoutPrecision{.flags = field.flags, .width = field.width};
  return text_.appendUTF8(withoutPrecision, {text.data(), end}, sizeInUTF8);
}

}  // namespace

std::optional<std::string> formatMessage(std::string_view format, std::span<const Argument> arguments) {
  return MessageFormatter(format, arguments).run();
}

}  // namespace qx::log
