#pragma once

#include <string_view>
#include <utility>

#include <QXEventStoring/Platform/Predicate.h>

namespace qx {

/// A predicate under construction: `key(QXESAttributeEventSeverity) >= 2 && key("eventReadStatus") == false`.
/// A type of its own, so that && and ! on it never hide those of a pointer.
class QX_EXPORT Condition {
 public:
  explicit Condition(PredicatePtr predicate) : predicate_(std::move(predicate)) {}
  operator PredicatePtr() const { return predicate_; }  // NOLINT: the whole point

 private:
  PredicatePtr predicate_;
};

/// A key as the left side of a comparison.
class QX_EXPORT KeyBuilder {
 public:
  explicit KeyBuilder(std::string_view path) : expression_(Expression::keyPath(path)) {}
  Condition in(Array values) const;
  Condition compare(Predicate::Operator op, Value value) const;

 private:
  ExpressionPtr expression_;
};

/// `path` is split at its dots.
inline KeyBuilder key(std::string_view path) {
  return KeyBuilder(path);
}

QX_EXPORT Condition operator==(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator!=(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator<(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator<=(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator>(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator>=(const KeyBuilder& key, Value value);
QX_EXPORT Condition operator&&(const Condition& a, const Condition& b);
QX_EXPORT Condition operator||(const Condition& a, const Condition& b);
QX_EXPORT Condition operator!(const Condition& a);

}  // namespace qx
