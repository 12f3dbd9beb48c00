#pragma once

#include <cstddef>

#include <QXEventStoring/Platform/Expression.h>
#include <QXEventStoring/Platform/Predicate.h>

namespace qx::detail {

/// Whether the printed text has parentheses round the member of that number of `parent`.
bool isParenthesised(const Expression& parent, std::size_t member);

/// How deeply the printed text nests what the parser counts: brackets of each kind, NOT and minus signs.
/// It can have parentheses that the text it was read from did without, so this decides whether it can be
/// read again.
int printedNesting(const Predicate& predicate);

}  // namespace qx::detail
