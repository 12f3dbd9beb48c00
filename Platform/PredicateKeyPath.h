#pragma once

#include <string_view>

#include <QXEventStoring/Platform/Expression.h>

#include "Platform/PredicateLexer.h"

namespace qx::detail {

/// `path` without a SELF at its start.
inline std::string_view withoutSelf(std::string_view path) {
  const std::size_t dot = path.find('.');
  if (!isPredicateSelf(path.substr(0, dot))) return path;
  return dot == std::string_view::npos ? std::string_view() : path.substr(dot + 1);
}

/// The key of a path that is without its SELF: SELF itself when it is empty.
inline ExpressionPtr keyExpression(std::string_view path) {
  if (path.empty()) return Expression::self();
  return path.front() == '@' ? Expression::path(Expression::self(), path) : Expression::keyPath(path);
}

}  // namespace qx::detail
