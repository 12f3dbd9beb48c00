#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <QXEventStoring/Platform/Predicate.h>

#include "ObjectStore/ManagedObject.h"

// What the parts of QXStoreCoordinator share.
namespace qx::coordinator {

inline PredicatePtr equals(std::string_view attribute, Value value) {
  return Predicate::comparison(Expression::keyPath(attribute), Predicate::Operator::equal,
                               Expression::constant(std::move(value)));
}

inline PredicatePtr differs(std::string_view attribute, Value value) {
  return Predicate::comparison(Expression::keyPath(attribute), Predicate::Operator::notEqual,
                               Expression::constant(std::move(value)));
}

inline PredicatePtr both(PredicatePtr first, PredicatePtr second) {
  return Predicate::conjunction({std::move(first), std::move(second)});
}

/// The attribute of every row that has one, in the rows' order.
inline std::vector<std::string> strings(const ManagedObjects& rows, std::string_view attribute) {
  std::vector<std::string> result;
  result.reserve(rows.size());
  for (const ManagedObjectPtr& row : rows) {
    if (const std::string* const text = row->value(attribute).asString()) result.push_back(*text);
  }
  return result;
}

// Numbers as the store's readers see them: cut to 32 bits.
inline std::int64_t signed32(const Value& value) {
  return static_cast<std::int32_t>(static_cast<std::uint64_t>(value.integerValue()));
}
inline std::uint64_t unsigned32(const Value& value) {
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(value.integerValue()));
}

}  // namespace qx::coordinator
