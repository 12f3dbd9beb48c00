#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Predicate.h>

namespace qx::detail {

/// `text` as the options compare it: case folded, marks removed. The text itself when there is nothing to do.
/// Malformed UTF-8 is compared as replacement characters once something is to be folded.
std::string foldedText(std::string_view text, Predicate::Options options);

/// The right side of a text operator, prepared once and matched often. Immutable; any thread.
class TextPattern {
 public:
  /// For like, matches, contains, beginsWith, endsWith, and `in` (is the subject a part of `pattern`?).
  /// Never null; a regular expression that cannot be read matches nothing.
  static std::shared_ptr<const TextPattern> make(Predicate::Operator op, std::string_view pattern,
                                                 Predicate::Options options);
  virtual ~TextPattern() = default;
  /// Bounded in time and stack whatever the pattern: a match that takes too long counts as none.
  virtual bool matches(std::string_view subject) const = 0;
};

/// Why `pattern` is no regular expression, with the offset; empty when it is one.
std::string regularExpressionProblem(std::string_view pattern);

}  // namespace qx::detail
