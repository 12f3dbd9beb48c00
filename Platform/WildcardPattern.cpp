#include <Platform/WildcardPattern.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace qx::detail {

namespace {

/// Stands for a `?` in a piece; no character has this number.
constexpr char32_t kAnyCharacter = 0xFFFFFFFF;
constexpr std::size_t kNone = std::string_view::npos;
/// Comparisons of characters that one match may take.
constexpr std::size_t kMostSteps = 20'000'000;

/// Matches pieces of a pattern at places of one text.
template <class Unit>
class Matcher {
 public:
  Matcher(std::basic_string_view<Unit> text, const std::vector<bool>& continues)
      : text_(text), continues_(continues), end_(text.size()) {}

  /// Where the match of `piece` that begins at `from` ends.
  std::size_t forward(const std::u32string& piece, std::size_t from) {
    std::size_t at = from;
    for (const char32_t unit : piece) {
      if (at >= end_ || !step()) return kNone;
      if (unit != kAnyCharacter) {
        if (static_cast<char32_t>(text_[at++]) != unit) return kNone;
        continue;
      }
      if (isInside(at)) return kNone;
      do
        ++at;
      while (at < end_ && isInside(at));
    }
    return at;
  }

  /// Where the match of `piece` that ends with the text begins.
  std::size_t backward(const std::u32string& piece) {
    std::size_t at = end_;
    for (auto unit = piece.rbegin(); unit != piece.rend(); ++unit) {
      if (at == 0 || !step()) return kNone;
      if (*unit != kAnyCharacter) {
        if (static_cast<char32_t>(text_[--at]) != *unit) return kNone;
        continue;
      }
      if (at < text_.size() && isInside(at)) return kNone;
      do
        --at;
      while (at > 0 && isInside(at));
    }
    return at;
  }

  /// Where the first match of `piece` from `from` on ends.
  std::size_t find(const std::u32string& piece, std::size_t from) {
    for (; from < end_ && step(); ++from) {
      const std::size_t past = forward(piece, from);
      if (past != kNone) return past;
    }
    return kNone;
  }

  void setEnd(std::size_t end) { end_ = end; }
  std::size_t steps() const { return steps_; }

 private:
  bool isInside(std::size_t at) const { return !continues_.empty() && continues_[at]; }
  bool step() { return ++steps_ < kMostSteps; }

  std::basic_string_view<Unit> text_;
  const std::vector<bool>& continues_;
  std::size_t end_;
  std::size_t steps_ = 0;
};

}  // namespace

std::size_t findBytes(std::string_view text, std::string_view part, std::size_t from) {
  if (from > text.size()) return kNone;
  const void* found = memmem(text.data() + from, text.size() - from, part.data(), part.size());
  return found != nullptr ? static_cast<std::size_t>(static_cast<const char*>(found) - text.data()) : kNone;
}

WildcardPattern::WildcardPattern(const std::u32string& pattern) {
  std::u32string piece;
  for (std::size_t at = 0; at < pattern.size(); ++at) {
    if (pattern[at] == U'*') {
      add(std::exchange(piece, {}));
      continue;
    }
    if (pattern[at] == U'?') {
      piece += kAnyCharacter;
      continue;
    }
    if (pattern[at] == U'\\' && at + 1 < pattern.size()) ++at;
    piece += pattern[at];
  }
  add(std::move(piece));
}

void WildcardPattern::add(std::u32string units) {
  const auto isPlain = [](char32_t unit) { return unit < 0x80; };
  Piece piece{std::move(units), {}};
  if (std::all_of(piece.units.begin(), piece.units.end(), isPlain))
    piece.bytes.assign(piece.units.begin(), piece.units.end());
  else
    isASCII_ = isASCII_ && std::all_of(piece.units.begin(), piece.units.end(),
                                       [&](char32_t unit) { return unit == kAnyCharacter || isPlain(unit); });
  // Stars side by side are one.
  if (pieces_.size() > 1 && pieces_.back().units.empty()) pieces_.pop_back();
  pieces_.push_back(std::move(piece));
}

namespace {

template <class Pieces, class Unit, class Find>
bool matchesPieces(const Pieces& pieces, Matcher<Unit>& matcher, std::size_t textLength, Find&& findPiece) {
  std::size_t at = matcher.forward(pieces.front().units, 0);
  if (at == kNone || pieces.size() == 1) return at == textLength;
  const std::size_t end = matcher.backward(pieces.back().units);
  if (end == kNone || end < at) return false;
  matcher.setEnd(end);
  for (std::size_t i = 1; i + 1 < pieces.size() && at != kNone; ++i)
    at = findPiece(pieces[i], at, end);
  return at != kNone;
}

}  // namespace

bool WildcardPattern::matches(const CharacterText& text, std::size_t& compared) const {
  Matcher<char32_t> matcher(text.units, text.continues);
  const bool found = matchesPieces(
      pieces_, matcher, text.units.size(),
      [&](const Piece& piece, std::size_t from, std::size_t) { return matcher.find(piece.units, from); });
  compared = matcher.steps();
  return found;
}

bool WildcardPattern::matches(std::string_view text, std::size_t& compared) const {
  const std::vector<bool> none;
  Matcher<char> matcher(text, none);
  const bool found = matchesPieces(pieces_, matcher, text.size(),
                                   [&](const Piece& piece, std::size_t from, std::size_t end) {
                                     if (piece.bytes.empty()) return matcher.find(piece.units, from);
                                     const std::size_t at = findBytes(text.substr(0, end), piece.bytes, from);
                                     return at != kNone ? at + piece.bytes.size() : kNone;
                                   });
  compared = matcher.steps();
  return found;
}

}  // namespace qx::detail
