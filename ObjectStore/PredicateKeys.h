#pragma once

#include <string>
#include <vector>

#include <QXEventStoring/Platform/Predicate.h>

namespace qx {

using KeyPath = std::vector<std::string>;

/// The part of a key path before its first operator (@count...): what an object answers itself.
KeyPath withoutOperators(const KeyPath& components);

/// The keys that an expression or a predicate asks its subject for, each once and without operators;
/// an empty one is SELF. What is asked of variables is not among them.
std::vector<KeyPath> keysOf(const Expression& expression);
std::vector<KeyPath> keysOf(const Predicate& predicate);

}  // namespace qx
