#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qx::detail {

/// A text as the characters that a wildcard counts. Folding can make several units of one character.
struct CharacterText {
  std::u32string units;
  std::vector<bool> continues;  // per unit: part of the character before it; empty when none is
};

/// A pattern of `?` (one character), `*` (any run of them, none included), `\` (the next one is meant
/// literally) and literal characters, for whole texts. Immutable; any thread.
///
/// A match looks for one piece between two stars after the other and never goes back over them: its time
/// is at most that of the text times the longest piece, and bounded, past which it counts as none.
class WildcardPattern {
 public:
  explicit WildcardPattern(const std::u32string& pattern);

  /// Whether all of its literal characters are ASCII.
  bool isASCII() const { return isASCII_; }
  /// `compared` is set to how many comparisons of characters it took.
  bool matches(const CharacterText& text, std::size_t& compared) const;
  /// For ASCII text and an ASCII pattern.
  bool matches(std::string_view text, std::size_t& compared) const;

 private:
  struct Piece {
    std::u32string units;
    std::string bytes;  // the same, of a piece that is ASCII and has no wildcard; else empty
  };
  void add(std::u32string units);

  std::vector<Piece> pieces_;  // between stars; the first and the last may be empty
  bool isASCII_ = true;
};

/// Position of `part` in `text` from `from` on, or npos. Linear, whatever the texts.
std::size_t findBytes(std::string_view text, std::string_view part, std::size_t from = 0);

}  // namespace qx::detail
