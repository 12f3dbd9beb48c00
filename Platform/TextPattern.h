#pragma once

#include <cstddef>
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
  /// Never null; a regular expression that cannot be used matches nothing, and problem() says why.
  static std::shared_ptr<const TextPattern> make(Predicate::Operator op, std::string_view pattern,
                                                 Predicate::Options options);
  virtual ~TextPattern() = default;

  /// Whether the pattern fits. Bounded in stack, and in time: linear in the subject but for a regular
  /// expression or a wildcard that goes back and forth, which counts as not fitting after some 10 ms; so
  /// does, at once, a regular expression whose single steps are long for that text (a reference back to a
  /// group in a text of more than some 15,000 characters). Steps are counted and no time is taken, so the
  /// answer is the same everywhere. *steps (when given) grows by what it took, in those of EvaluationBudget.
  virtual bool matches(std::string_view subject, std::size_t* steps = nullptr) const = 0;

  /// Why nothing can match, with the offset in the expression (as the options make it); empty for the rest.
  const std::string& problem() const { return problem_; }

 protected:
  std::string problem_;
};

/// Whether a match of this thread was given up for its time since this was last asked.
bool wasMatchGivenUp();

/// The steps of EvaluationBudget that making a pattern of so many bytes takes.
std::size_t stepsToMake(Predicate::Operator op, std::size_t bytes);
/// Those that folding a text takes.
std::size_t stepsToFold(std::string_view text, Predicate::Options options);

}  // namespace qx::detail
