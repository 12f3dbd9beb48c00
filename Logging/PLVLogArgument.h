#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx::log {

/// What an integer conversion can take: the integer types and unscoped enumerations.
template <typename Number>
concept LoggableInteger = sizeof(Number) <= sizeof(std::uint64_t) &&
                          (std::integral<Number> ||
                           (std::is_enum_v<Number> && std::convertible_to<Number, std::int64_t>));

/// One argument of a log line with its kind, so that a conversion of another kind is found and refused and
/// cannot read what is not there. Texts and bytes are not copied: what an argument was made from lives until
/// the call that it is given to returns.
class Argument {
 public:
  struct None {};  // a null object or null C string
  struct SignedInteger {
    std::int64_t value;
    std::size_t size;  // of its type, in bytes; at least that of int
  };
  struct UnsignedInteger {
    std::uint64_t value;
    std::size_t size;
  };
  struct Address {  // shown by "%p", never read
    const void* address;
  };
  using Bytes = std::span<const std::byte>;  // memory that "%P" and "%p" may show
  using Storage = std::variant<None, SignedInteger, UnsignedInteger, double, std::string, std::string_view,
                               std::u16string_view, Address, Bytes>;

  Argument(std::nullptr_t) : storage_(None{}) {}

  /// Of the type that the integer promotions make of it: int for bool, char and short.
  template <LoggableInteger Number>
  Argument(Number number) : storage_(promoted(+number)) {}
  template <std::floating_point Number>
  Argument(Number number) : storage_(static_cast<double>(number)) {}

  /// Text in UTF-8, or UTF-16; a null pointer is None, another points to text that ends with a NUL.
  Argument(const char* text) {
    if (text != nullptr) storage_ = std::string_view(text);
  }
  Argument(std::string_view text) : storage_(text) {}
  Argument(const std::string& text) : storage_(std::string_view(text)) {}
  Argument(std::string&& text) : storage_(std::move(text)) {}
  Argument(const String& text) {
    if (text) storage_ = std::string_view(*text);
  }
  Argument(String&& text) {
    if (text) storage_ = *std::move(text);
  }
  Argument(std::u16string_view text) : storage_(text) {}
  Argument(const char16_t* text) {
    if (text != nullptr) storage_ = std::u16string_view(text);
  }

  /// The error's summary(); None for a null pointer.
  Argument(const ErrorPtr& error);
  /// The value's description().
  Argument(const Dictionary& values);
  Argument(const Value& value);

  Argument(const void* address) : storage_(Address{address}) {}
  Argument(Bytes bytes) : storage_(bytes) {}
  template <std::size_t size>
  Argument(const std::array<unsigned char, size>& bytes) : storage_(std::as_bytes(std::span(bytes))) {}
  template <std::size_t size>
  Argument(const unsigned char (&bytes)[size]) : storage_(Bytes(std::as_bytes(std::span(bytes)))) {}

  const Storage& storage() const { return storage_; }

 private:
  template <std::integral Number>
  static Storage promoted(Number number) {
    if constexpr (std::is_signed_v<Number>) return SignedInteger{number, sizeof(number)};
    if constexpr (std::is_unsigned_v<Number>) return UnsignedInteger{number, sizeof(number)};
  }

  Storage storage_;
};

}  // namespace qx::log
