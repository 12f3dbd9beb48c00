// What the text operators do. Folding is that of The Unicode Standard, 3.13: default full case folding of
// the canonically decomposed text; the result is composed again, so that equivalent texts become the same
// bytes. ASCII text, which is nearly all there is, never reaches ICU.

#include <Platform/TextPattern.h>

#include <unicode/normalizer2.h>
#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <limits>
#include <utility>

#include <Platform/Unicode.h>
#include <Platform/WildcardPattern.h>

namespace qx::detail {

namespace {

thread_local bool givenUp = false;

/// What a match that was given up gives.
bool giveUp() {
  givenUp = true;
  return false;
}

using Operator = Predicate::Operator;
using Options = Predicate::Options;

/// ICU takes quadratic time to read an expression.
constexpr std::size_t kLongestExpression = 32768;
constexpr std::size_t kLongestText = std::numeric_limits<std::int32_t>::max() / 4;

bool folds(Options options) {
  return !options.normalized && (options.caseInsensitive || options.diacriticInsensitive);
}

char lowered(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Marks are sorted when a text is decomposed, in quadratic time: no run of them may grow long. The
/// joiner after every thirtieth is the "Stream-Safe Text Format" of Unicode Standard Annex #15, 12.
icu::UnicodeString withoutLongRunsOfMarks(icu::UnicodeString text) {
  constexpr std::int32_t kShortText = 1024;
  constexpr int kLongestRun = 30;
  constexpr UChar32 kGraphemeJoiner = 0x034F;
  if (text.length() <= kShortText) return text;
  icu::UnicodeString result;
  int run = 0;
  for (std::int32_t at = 0; at < text.length(); at = text.moveIndex32(at, 1)) {
    const UChar32 point = text.char32At(at);
    run = u_getCombiningClass(point) != 0 ? run + 1 : 0;
    if (run > kLongestRun) {
      result.append(kGraphemeJoiner);
      run = 1;
    }
    result.append(point);
  }
  return result;
}

icu::UnicodeString withoutMarks(const icu::UnicodeString& text) {
  icu::UnicodeString result;
  for (std::int32_t at = 0; at < text.length(); at = text.moveIndex32(at, 1)) {
    const UChar32 point = text.char32At(at);
    if (u_charType(point) != U_NON_SPACING_MARK) result.append(point);
  }
  return result;
}

/// Decomposed, folded and composed. Without case folding when `keepsCase`, whatever the options.
icu::UnicodeString foldedByICU(icu::UnicodeString text, Options options, bool keepsCase = false) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* const decomposition = icu::Normalizer2::getNFDInstance(status);
  const icu::Normalizer2* const composition = icu::Normalizer2::getNFCInstance(status);
  if (U_FAILURE(status)) return text;
  text = decomposition->normalize(withoutLongRunsOfMarks(std::move(text)), status);
  if (options.diacriticInsensitive) text = withoutMarks(text);
  if (options.caseInsensitive && !keepsCase) text.foldCase();
  return composition->normalize(text, status);
}

icu::UnicodeString unicodeString(std::string_view text) {
  const std::string_view taken = text.substr(0, kLongestText);
  return icu::UnicodeString::fromUTF8({taken.data(), static_cast<std::int32_t>(taken.size())});
}

/// The folded text: `text` itself, or what was put into `storage`.
std::string_view fold(std::string_view text, Options options, std::string& storage) {
  if (!folds(options)) return text;
  if (!unicode::isASCII(text)) {
    foldedByICU(unicodeString(text), options).toUTF8String(storage);
    return storage;
  }
  if (!options.caseInsensitive) return text;
  storage.resize(text.size());
  std::transform(text.begin(), text.end(), storage.begin(), lowered);
  return storage;
}

constexpr std::size_t kBytesPerStep = 64;

void charge(std::size_t* steps, std::size_t count) {
  if (steps != nullptr) *steps += count;
}

/// CONTAINS, BEGINSWITH, ENDSWITH, and IN a string.
class PartPattern : public TextPattern {
 public:
  PartPattern(Operator op, std::string_view pattern, Options options)
      : operator_(op), options_(options), pattern_(foldedText(pattern, options)) {}

  bool matches(std::string_view subject, std::size_t* steps) const override {
    charge(steps, subject.size() / kBytesPerStep + stepsToFold(subject, options_));
    std::string storage;
    const std::string_view text = fold(subject, options_, storage);
    if (operator_ == Operator::in) return isPart(text, pattern_);
    if (operator_ == Operator::contains) return isPart(pattern_, text);
    if (pattern_.empty()) return false;
    return operator_ == Operator::beginsWith ? text.starts_with(pattern_) : text.ends_with(pattern_);
  }

 private:
  static bool isPart(std::string_view part, std::string_view whole) {
    return !part.empty() && findBytes(whole, part) != std::string_view::npos;
  }

  Operator operator_;
  Options options_;
  std::string pattern_;
};

/// The code points of `text`; a byte that is part of none stands for itself, apart from them.
CharacterText charactersOf(std::string_view text) {
  constexpr char32_t kFirstStrayByte = 0x110000;
  CharacterText result;
  result.units.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t start = at;
    char32_t point = unicode::decodeUTF8(text, at);
    if (point == unicode::kIllFormed) {
      point = kFirstStrayByte + static_cast<unsigned char>(text[start]);
      at = start + 1;
    }
    result.units += point;
  }
  return result;
}

/// Adds one character of composed text, which folding may make several of.
void appendFolded(CharacterText& text, UChar32 point) {
  if (!static_cast<bool>(u_hasBinaryProperty(point, UCHAR_CHANGES_WHEN_CASEFOLDED))) {
    text.units += static_cast<char32_t>(point);
    text.continues.push_back(false);
    return;
  }
  Options options;
  options.caseInsensitive = true;
  const icu::UnicodeString folded = foldedByICU(icu::UnicodeString(point), options);
  for (std::int32_t at = 0; at < folded.length(); at = folded.moveIndex32(at, 1)) {
    text.units += static_cast<char32_t>(folded.char32At(at));
    text.continues.push_back(at > 0);
  }
}

CharacterText foldedCharactersOf(std::string_view text, Options options) {
  if (!folds(options)) return charactersOf(text);
  const icu::UnicodeString composed = foldedByICU(unicodeString(text), options, true);
  CharacterText result;
  for (std::int32_t at = 0; at < composed.length(); at = composed.moveIndex32(at, 1)) {
    const UChar32 point = composed.char32At(at);
    if (options.caseInsensitive)
      appendFolded(result, point);
    else
      result.units += static_cast<char32_t>(point);
  }
  return result;
}

class LikePattern : public TextPattern {
 public:
  LikePattern(std::string_view pattern, Options options)
      : options_(options), pattern_(foldedCharactersOf(pattern, options).units) {}

  bool matches(std::string_view subject, std::size_t* steps) const override {
    std::size_t compared = 0;
    const bool found = matchesCounting(subject, compared);
    charge(steps, (subject.size() + compared) / kComparisonsPerStep + stepsToFold(subject, options_));
    return found;
  }

 private:
  static constexpr std::size_t kComparisonsPerStep = 8;

  bool matchesCounting(std::string_view subject, std::size_t& compared) const {
    if (!pattern_.isASCII() || !unicode::isASCII(subject))
      return pattern_.matches(foldedCharactersOf(subject, options_), compared);
    std::string storage;
    return pattern_.matches(fold(subject, options_, storage), compared);
  }

  Options options_;
  WildcardPattern pattern_;
};

/// What a malformed expression is called in a message.
const char* describe(UErrorCode status) {
  switch (status) {
    case U_REGEX_BAD_ESCAPE_SEQUENCE:
      return "an unknown escape";
    case U_REGEX_PROPERTY_SYNTAX:
      return "an unknown property";
    case U_REGEX_MISMATCHED_PAREN:
      return "a parenthesis or bracket without its other half";
    case U_REGEX_BAD_INTERVAL:
    case U_REGEX_MAX_LT_MIN:
    case U_REGEX_NUMBER_TOO_BIG:
      return "a malformed repetition {...}";
    case U_REGEX_INVALID_BACK_REF:
      return "a reference to no group";
    case U_REGEX_LOOK_BEHIND_LIMIT:
      return "a look-behind without bounds";
    case U_REGEX_SET_CONTAINS_STRING:
    case U_REGEX_MISSING_CLOSE_BRACKET:
    case U_REGEX_INVALID_RANGE:
    case U_ILLEGAL_ARGUMENT_ERROR:
      return "a malformed set [...]";
    case U_REGEX_RULE_SYNTAX:
      return "malformed";
    default:
      return u_errorName(status);
  }
}

/// How long a step of ICU's matcher takes, which copies the places of all groups and compares one run of
/// literal characters; in nanoseconds, as measured.
class StepDuration {
 public:
  static constexpr std::size_t kMostGroups = 1000;

  StepDuration() = default;
  StepDuration(std::string_view pattern, bool ignoresCase)
      : ignoresCase_(ignoresCase || pattern.find("(?") != std::string_view::npos) {
    const bool runsAreHidden =
        pattern.find("\\Q") != std::string_view::npos || pattern.find('#') != std::string_view::npos;
    std::size_t run = 0;
    for (std::size_t at = 0; at < pattern.size(); ++at) {
      const char c = pattern[at];
      const char next = at + 1 < pattern.size() ? pattern[at + 1] : '\0';
      run = std::string_view("|()[]{}*+?.").find(c) == std::string_view::npos ? run + 1 : 0;
      longestRun_ = std::max(longestRun_, runsAreHidden ? pattern.size() : run);
      const bool isNamed = pattern.substr(at).starts_with("(?<");
      if (c == '(' && (next != '?' || isNamed)) ++groups_;
      if (c == '\\' && (next == 'k' || (next >= '1' && next <= '9'))) refersBack_ = true;
    }
  }

  std::size_t groups() const { return groups_; }

  std::int64_t nanoseconds(std::size_t textLength) const {
    const std::size_t compared = std::min(longestRun_, textLength) * (ignoresCase_ ? 10 : 1) / 5;
    const std::size_t referred = refersBack_ ? textLength / 3 : 0;
    return static_cast<std::int64_t>(50 + 4 * groups_ + compared + referred);
  }

 private:
  bool ignoresCase_ = false;
  bool refersBack_ = false;
  std::size_t groups_ = 0;
  std::size_t longestRun_ = 0;
};

class RegularExpression : public TextPattern {
 public:
  RegularExpression(std::string_view pattern, Options options) : options_(options) {
    if (pattern.size() > kLongestExpression) {
      problem_ = "it is longer than " + std::to_string(kLongestExpression) + " bytes";
      return;
    }
    const bool ignoresCase = options.caseInsensitive && !options.normalized;
    duration_ = StepDuration(pattern, ignoresCase);
    if (duration_.groups() > StepDuration::kMostGroups) {
      problem_ = "it has more than " + std::to_string(StepDuration::kMostGroups) + " groups";
      return;
    }
    compile(normalized(pattern), ignoresCase);
  }

  bool matches(std::string_view subject, std::size_t* steps) const override {
    if (pattern_ == nullptr) return false;
    if (subject.size() > kLongestText) return giveUp();
    const icu::UnicodeString text = normalized(subject);
    const std::int64_t unit = kStepsPerUnit * duration_.nanoseconds(subject.size());
    charge(steps, static_cast<std::size_t>(unit) / kUnitsOfShortMatch / kNanosecondsPerStep +
                      subject.size() / 4 + stepsToFold(subject, options_));
    const std::int64_t longer = kLongerPerCharacter * text.length();
    if (unit > kLongestUnit + longer) return giveUp();
    const std::int64_t units = std::max<std::int64_t>(1, (kLongest + longer) / unit);
    std::int32_t taken = 0;
    const bool found = run(text, static_cast<std::int32_t>(units), taken);
    charge(steps, static_cast<std::size_t>(taken * unit / kNanosecondsPerStep));
    return found;
  }

 private:
  // ICU counts the steps of its matcher, not seconds, and asks after so many of them.
  static constexpr std::int64_t kStepsPerUnit = 10'000;
  // In nanoseconds.
  static constexpr std::int64_t kLongest = 10'000'000;
  static constexpr std::int64_t kLongerPerCharacter = 250;
  static constexpr std::int64_t kLongestUnit = 50'000'000;
  static constexpr std::int64_t kNanosecondsPerStep = 20;  // of an EvaluationBudget
  static constexpr std::size_t kUnitsOfShortMatch = 100;   // such a part of a unit
  // Its own stack of places to go back to: enough for one or two of them at each character.
  static constexpr std::int32_t kStackBytes = 8'000'000;
  static constexpr std::int32_t kBytesPerCharacter = 64;
  static constexpr std::int32_t kCharactersOnStack = 2'000'000;

  void compile(const icu::UnicodeString& expression, bool ignoresCase) {
    UErrorCode status = U_ZERO_ERROR;
    UParseError position;
    std::unique_ptr<icu::RegexPattern> compiled(
        icu::RegexPattern::compile(expression, ignoresCase ? UREGEX_CASE_INSENSITIVE : 0, position, status));
    if (U_SUCCESS(status)) {
      pattern_ = std::move(compiled);
      return;
    }
    std::string before;
    expression.tempSubStringBetween(0, std::max(position.offset, 0)).toUTF8String(before);
    problem_ = std::string(describe(status)) + " at byte " + std::to_string(before.size());
  }

  bool run(const icu::UnicodeString& text, std::int32_t units, std::int32_t& taken) const {
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::RegexMatcher> matcher(pattern_->matcher(text, status));
    if (U_FAILURE(status)) return false;
    const auto note = [](const void* context, std::int32_t count) -> UBool {
      **static_cast<std::int32_t* const*>(context) = count;
      return true;
    };
    std::int32_t* const counter = &taken;
    matcher->setMatchCallback(note, &counter, status);
    matcher->setTimeLimit(units, status);
    matcher->setStackLimit(std::min(text.length(), kCharactersOnStack) * kBytesPerCharacter + kStackBytes,
                           status);
    const bool found = static_cast<bool>(matcher->matches(status));
    if (status == U_REGEX_TIME_OUT || status == U_REGEX_STACK_OVERFLOW) return giveUp();
    return found && U_SUCCESS(status);
  }

  /// The expression folds case by itself.
  icu::UnicodeString normalized(std::string_view text) const {
    icu::UnicodeString result = unicodeString(text);
    return folds(options_) && !unicode::isASCII(text) ? foldedByICU(std::move(result), options_, true)
                                                      : result;
  }

  Options options_;
  StepDuration duration_;
  std::unique_ptr<const icu::RegexPattern> pattern_;  // null when there is a problem
};

}  // namespace

bool wasMatchGivenUp() {
  return std::exchange(givenUp, false);
}

std::string foldedText(std::string_view text, Predicate::Options options) {
  std::string storage;
  return std::string(fold(text, options, storage));
}

std::shared_ptr<const TextPattern> TextPattern::make(Predicate::Operator op, std::string_view pattern,
                                                     Predicate::Options options) {
  if (op == Operator::like) return std::make_shared<LikePattern>(pattern, options);
  if (op == Operator::matches) return std::make_shared<RegularExpression>(pattern, options);
  return std::make_shared<PartPattern>(op, pattern, options);
}

std::size_t stepsToMake(Predicate::Operator op, std::size_t bytes) {
  if (op != Operator::matches) return 10 + bytes;
  return 500 + (bytes > kLongestExpression ? 0 : bytes * bytes / 64);
}

std::size_t stepsToFold(std::string_view text, Predicate::Options options) {
  if (!folds(options)) return 0;
  return unicode::isASCII(text) ? text.size() / 16 : 4 * text.size();
}

}  // namespace qx::detail
