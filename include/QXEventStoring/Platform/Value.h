#pragma once

#include <compare>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <QXEventStoring/Platform/Date.h>
#include <QXEventStoring/Platform/Export.h>

namespace qx {

/// "Null or a string".
using String = std::optional<std::string>;

class Value;

/// An array of values.
using Array = std::vector<Value>;

/// Immutable bytes; a copy shares them. Compares by content. Any thread.
class QX_EXPORT Data {
 public:
  Data() = default;
  explicit Data(std::string bytes);

  std::string_view bytes() const { return bytes_ ? std::string_view(*bytes_) : std::string_view(); }
  std::size_t size() const { return bytes().size(); }
  bool empty() const { return bytes().empty(); }

  friend bool operator==(const Data& a, const Data& b) { return a.bytes() == b.bytes(); }

 private:
  std::shared_ptr<const std::string> bytes_;
};

/// A dictionary from string to value, ordered by key (by bytes), so that equal contents are walked, and
/// written, in the same order.
///
/// A sorted vector: look-up is a binary search, appending in key order is cheap. References into it are
/// good until the next change. One thread at a time when one of them writes.
class QX_EXPORT Dictionary {
 public:
  using Entry = std::pair<std::string, Value>;

  Dictionary();
  Dictionary(std::initializer_list<Entry> entries);  // the last of equal keys wins
  /// Of entries in any order; the last of equal keys wins. Linear when they come in key order.
  static Dictionary fromEntries(std::vector<Entry> entries);
  Dictionary(const Dictionary&);
  Dictionary(Dictionary&&) noexcept;
  Dictionary& operator=(const Dictionary&);
  Dictionary& operator=(Dictionary&&) noexcept;
  ~Dictionary();

  /// The value under `key`, or null when there is none.
  const Value* find(std::string_view key) const;
  Value* find(std::string_view key);
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  /// Adds or replaces.
  void set(std::string key, Value value);
  /// The value under `key`, made (a null marker) when there is none.
  Value& operator[](std::string_view key);
  /// Whether there was such an entry.
  bool erase(std::string_view key);
  void clear();
  /// Adds or replaces every entry of `other`; removes none.
  void merge(const Dictionary& other);

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  void reserve(std::size_t count);

  const Entry* begin() const;
  const Entry* end() const;

  friend QX_EXPORT bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  std::vector<Entry> entries_;  // sorted by key, keys unique
};

/// A property-list value, or the null marker.
///
/// Numbers compare by value, whatever their kind: true == 1 == 1.0. The null marker equals only itself
/// and is what "cannot be held by a property list" means. A plain value; one thread at a time when one
/// of them writes.
class QX_EXPORT Value {
 public:
  enum class Kind { null, boolean, integer, unsignedInteger, real, date, string, data, array, dictionary };

  Value() = default;  // the null marker
  Value(std::nullptr_t) {}
  Value(bool value) : storage_(value) {}
  Value(int value) : storage_(std::int64_t{value}) {}
  Value(long value) : storage_(std::int64_t{value}) {}
  Value(long long value) : storage_(std::int64_t{value}) {}
  Value(unsigned value) : storage_(std::int64_t{value}) {}
  Value(unsigned long value);       // kept as `integer` when it fits
  Value(unsigned long long value);  // kept as `integer` when it fits
  Value(double value) : storage_(value) {}
  Value(Date value) : storage_(value) {}
  Value(std::string value) : storage_(std::move(value)) {}
  Value(std::string_view value) : storage_(std::string(value)) {}
  Value(const char* value) : storage_(std::string(value)) {}
  Value(const String& value);  // a missing string becomes the null marker
  Value(Data value) : storage_(std::move(value)) {}
  Value(Array value) : storage_(std::move(value)) {}
  Value(Dictionary value) : storage_(std::move(value)) {}

  Kind kind() const { return static_cast<Kind>(storage_.index()); }
  bool isNull() const { return kind() == Kind::null; }
  bool isNumber() const { return kind() >= Kind::boolean && kind() <= Kind::real; }

  // The content when it is of that kind, else null.
  const bool* asBool() const { return std::get_if<bool>(&storage_); }
  const std::int64_t* asInteger() const { return std::get_if<std::int64_t>(&storage_); }
  const std::uint64_t* asUnsigned() const { return std::get_if<std::uint64_t>(&storage_); }
  const double* asReal() const { return std::get_if<double>(&storage_); }
  const Date* asDate() const { return std::get_if<Date>(&storage_); }
  const std::string* asString() const { return std::get_if<std::string>(&storage_); }
  const Data* asData() const { return std::get_if<Data>(&storage_); }
  const Array* asArray() const { return std::get_if<Array>(&storage_); }
  Array* asArray() { return std::get_if<Array>(&storage_); }
  const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&storage_); }
  Dictionary* asDictionary() { return std::get_if<Dictionary>(&storage_); }

  /// Any number as a signed 64-bit integer: fractions cut towards zero, values past a limit held at it,
  /// no-number 0. A string is read as a number the way `integerValue` of the platform's strings does:
  /// leading white space, sign, digits, the rest ignored; 0 when there are none; held at the limits.
  /// Everything else is 0.
  std::int64_t integerValue() const;
  /// Any number as a double; everything else 0.
  double doubleValue() const;
  /// A number other than zero; everything else false.
  bool boolValue() const;
  /// The string, or nothing for every other kind.
  String stringValue() const;

  /// A readable form for logs and descriptions, as the platform prints collections: strings that need
  /// it in quotes, arrays in (), dictionaries in {}. Bounded in depth.
  std::string description() const;

  friend QX_EXPORT bool operator==(const Value& a, const Value& b);

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, Date, std::string, Data, Array,
               Dictionary>
      storage_;
};

/// Orders two numbers by value, exactly (an integer is never rounded to a double for it); unordered when
/// one of them is no number or is not-a-number.
QX_EXPORT std::partial_ordering compareNumbers(const Value& a, const Value& b);

/// Whether `text` is well-formed UTF-8 (no surrogates, nothing past U+10FFFF, no overlong form).
QX_EXPORT bool isValidUTF8(std::string_view text);

}  // namespace qx
