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

/// CONTAINS, BEGINSWITH, ENDSWITH, and IN a string.
class PartPattern : public TextPattern {
 public:
  PartPattern(Operator op, std::string_view pattern, Options options)
      : operator_(op), options_(options), pattern_(foldedText(pattern, options)) {}

  bool matches(std::string_view subject) const override {
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

  bool matches(std::string_view subject) const override {
    if (!pattern_.isASCII() || !unicode::isASCII(subject))
      return pattern_.matches(foldedCharactersOf(subject, options_));
    std::string storage;
    return pattern_.matches(fold(subject, options_, storage));
  }

 private:
  Options options_;
  WildcardPattern pattern_;
};

class RegularExpression : public TextPattern {
 public:
  RegularExpression(std::string_view pattern, Options options) : options_(options) {
    if (pattern.size() > kLongestExpression) return;
    UErrorCode status = U_ZERO_ERROR;
    UParseError position;
    const bool ignoresCase = options.caseInsensitive && !options.normalized;
    const std::uint32_t flags = ignoresCase ? UREGEX_CASE_INSENSITIVE : 0;
    std::unique_ptr<icu::RegexPattern> compiled(
        icu::RegexPattern::compile(normalized(pattern), flags, position, status));
    if (U_SUCCESS(status)) pattern_ = std::move(compiled);
  }

  bool matches(std::string_view subject) const override {
    if (pattern_ == nullptr || subject.size() > kLongestText) return false;
    const icu::UnicodeString text = normalized(subject);
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::RegexMatcher> matcher(pattern_->matcher(text, status));
    if (U_FAILURE(status)) return false;
    matcher->setTimeLimit(kTimeLimit + text.length() / kCharactersPerTimeUnit, status);
    matcher->setStackLimit(std::min(text.length(), kCharactersOnStack) * kBytesPerCharacter + kStackBytes,
                           status);
    const bool found = static_cast<bool>(matcher->matches(status));
    return found && U_SUCCESS(status);
  }

 private:
  // ICU counts the steps of its matcher, not seconds: the answer is the same on every machine.
  static constexpr std::int32_t kTimeLimit = 100;
  static constexpr std::int32_t kCharactersPerTimeUnit = 1000;
  // Its own stack of places to go back to: enough for one or two of them at each character.
  static constexpr std::int32_t kStackBytes = 8'000'000;
  static constexpr std::int32_t kBytesPerCharacter = 64;
  static constexpr std::int32_t kCharactersOnStack = 2'000'000;

  /// The expression folds case by itself.
  icu::UnicodeString normalized(std::string_view text) const {
    icu::UnicodeString result = unicodeString(text);
    return folds(options_) && !unicode::isASCII(text) ? foldedByICU(std::move(result), options_, true)
                                                      : result;
  }

  Options options_;
  std::unique_ptr<const icu::RegexPattern> pattern_;  // null when the text is no expression
};

}  // namespace

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

std::string regularExpressionProblem(std::string_view pattern) {
  if (pattern.size() > kLongestExpression)
    return "it is longer than " + std::to_string(kLongestExpression) + " bytes";
  const icu::UnicodeString text = unicodeString(pattern);
  UErrorCode status = U_ZERO_ERROR;
  UParseError position;
  const std::unique_ptr<icu::RegexPattern> compiled(icu::RegexPattern::compile(text, 0, position, status));
  if (U_SUCCESS(status)) return {};
  std::string before;
  text.tempSubStringBetween(0, std::max(position.offset, 0)).toUTF8String(before);
  return std::string(u_errorName(status)) + " at byte " + std::to_string(before.size());
}

}  // namespace qx::detail
