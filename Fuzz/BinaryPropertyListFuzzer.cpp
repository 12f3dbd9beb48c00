// Whatever decodes must encode, and what was encoded must come back the same: equal as a value (unless a
// not-a-number is in it, which equals nothing) and equal byte for byte when encoded again.

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <Platform/PropertyList.h>

namespace {

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

bool hasNotANumber(const qx::Value& value) {
  if (const auto* real = value.asReal()) return std::isnan(*real);
  if (const auto* date = value.asDate()) return std::isnan(date->secondsSinceReferenceDate);
  if (const auto* array = value.asArray()) {
    for (const auto& item : *array) {
      if (hasNotANumber(item)) return true;
    }
  }
  if (const auto* dictionary = value.asDictionary()) {
    for (const auto& [key, item] : *dictionary) {
      if (hasNotANumber(item)) return true;
    }
  }
  return false;
}

/// Small enough that a run spends its time on new inputs; the encoded form stays within the usual limits.
constexpr qx::PropertyListLimits kLimits{
    .depth = 512, .bytes = 1U << 16U, .expandedValues = 1U << 12U, .expandedBytes = 1U << 16U};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  qx::ErrorPtr error;
  const auto value =
      qx::readBinaryPropertyList({reinterpret_cast<const char*>(bytes), size}, &error, kLimits);
  require(value.has_value() == (error == nullptr), "a result or an error");
  if (!value) return 0;

  const auto encoded = qx::writeBinaryPropertyList(*value);
  require(encoded.has_value(), "what was read can be written");
  const auto again = qx::readBinaryPropertyList(*encoded);
  require(again.has_value(), "what was written can be read");
  require(*again == *value || hasNotANumber(*value), "the value comes back");
  require(qx::writeBinaryPropertyList(*again) == encoded, "the bytes come back");
  require(!value->description().empty(), "every value has a description");
  return 0;
}
