// Arguments of predicate texts are checked here and become constants of the tree; none is ever formatted
// into the text.

#include "Platform/PredicateArguments.h"

#include <algorithm>
#include <cmath>

namespace qx::detail {

namespace {

/// Whether `value` is a list of lists past `levels`.
bool nestsDeeperThan(const Value& value, int levels) {
  const Array* const members = value.asArray();
  if (members == nullptr) return false;
  if (levels == 0) return true;
  return std::any_of(members->begin(), members->end(),
                     [levels](const Value& member) { return nestsDeeperThan(member, levels - 1); });
}

/// What in `value` the language has no text for; null when it can be printed and read back.
const char* unwritablePart(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::real:
      return std::isnan(*value.asReal()) ? "not a number" : nullptr;
    case Value::Kind::date:
      return std::isfinite(value.asDate()->secondsSinceReferenceDate) ? nullptr : "a date without a moment";
    case Value::Kind::array:
      for (const Value& member : *value.asArray()) {
        if (const char* const part = unwritablePart(member)) return part;
      }
      return nullptr;
    default:
      return nullptr;
  }
}

/// Why `value` cannot stand for a conversion; null when it can.
const char* misfit(const Value& value, PredicateToken::Argument conversion, int levels) {
  const Value::Kind kind = value.kind();
  switch (conversion) {
    case PredicateToken::Argument::key:
      if (kind != Value::Kind::string) return "is no string";
      return value.asString()->empty() ? "is an empty key" : nullptr;
    case PredicateToken::Argument::integer:
      return value.isNumber() && kind != Value::Kind::real ? nullptr : "is no integer";
    case PredicateToken::Argument::real:
      return value.isNumber() ? nullptr : "is no number";
    case PredicateToken::Argument::string:
      return kind == Value::Kind::string ? nullptr : "is no string";
    case PredicateToken::Argument::object:
      return nestsDeeperThan(value, levels) ? "is nested too deeply" : nullptr;
  }
  return nullptr;
}

}  // namespace

std::optional<Value> PredicateArguments::take(const PredicateToken& token, int levels, std::string* problem) {
  const auto refuse = [&](std::string_view reason) {
    *problem = "argument " + std::to_string(next_ + 1) + " for " + std::string(token.text);
    *problem += reason;
    return std::nullopt;
  };
  if (next_ >= values_.size()) return refuse(" is missing");
  const Value& value = values_[next_];
  if (const char* const reason = misfit(value, token.argument, levels)) {
    return refuse(std::string(" ") + reason);
  }
  if (const char* const part = unwritablePart(value)) {
    return refuse(std::string(" has no text form: ") + part);
  }
  ++next_;
  return token.argument == PredicateToken::Argument::real ? Value(value.doubleValue()) : value;
}

}  // namespace qx::detail
