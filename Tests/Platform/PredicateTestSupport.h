#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Predicate.h>

namespace qx::test {

inline std::string message(const ErrorPtr& error) {
  return error != nullptr ? error->localizedDescription() : "none";
}

/// The predicate of `format` as it is printed, or why there is none.
inline std::string printed(std::string_view format, const std::vector<Value>& arguments = {}) {
  ErrorPtr error;
  const PredicatePtr predicate = Predicate::withFormat(format, arguments, &error);
  return predicate != nullptr ? predicate->predicateFormat() : message(error);
}

inline std::string repeated(std::size_t count, std::string_view part) {
  std::string text;
  text.reserve(count * part.size());
  for (std::size_t i = 0; i < count; ++i)
    text += part;
  return text;
}

/// A subject without any values.
class EmptySubject : public PredicateSubject {
 public:
  Value valueForKeyPath(const std::vector<std::string>&) const override { return {}; }
};

}  // namespace qx::test
