#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <QXEventStoring/Platform/Value.h>

#include "Platform/PredicateLexer.h"

namespace qx::detail {

/// The values that stand for the % conversions of a predicate text, handed out from left to right. They
/// must outlive it.
class PredicateArguments {
 public:
  explicit PredicateArguments(const std::vector<Value>& values) : values_(values) {}

  /// The next value, as the conversion in `token` wants it; lists in it may be nested `levels` deep.
  /// Nothing when it is missing or does not fit; *problem then says so.
  std::optional<Value> take(const PredicateToken& token, int levels, std::string* problem);

 private:
  const std::vector<Value>& values_;
  std::size_t next_ = 0;
};

}  // namespace qx::detail
