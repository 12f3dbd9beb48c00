#pragma once

#include <utility>

#include <QXEventStoring/Platform/Expression.h>

namespace qx::detail {

/// What a missing expression counts as.
inline ExpressionPtr orNil(ExpressionPtr expression) {
  return expression != nullptr ? std::move(expression) : Expression::constant(Value());
}

}  // namespace qx::detail
