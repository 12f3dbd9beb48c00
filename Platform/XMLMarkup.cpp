// A parser may or may not look for quotes when it searches the end of a tag. Markup with unbalanced quotes up
// to its first end is refused, so that both ways of reading find the same tags, and the depth counted here is
// the depth met there. Syntax: Extensible Markup Language (XML) 1.0, sections 2.4 to 3.1; the spelling of the
// scalars: PropertyList-1.0.dtd.

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <vector>

#include <Platform/XMLMarkup.h>
#include <QXEventStoring/Platform/Date.h>

namespace qx {
namespace {

constexpr std::string_view kSpaces = " \t\r\n";
constexpr std::size_t kMostOpenElements = kMostXMLPropertyListLevels + 2;  // <plist> around, a scalar within

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(kSpaces);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpaces) + 1 - first);
}

template <class Number, class... Format>
bool isAll(std::string_view text, Format... format) {
  Number number{};
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number, format...);
  return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size();
}

bool isInteger(std::string_view text) {
  if (text.starts_with('-')) return isAll<std::int64_t>(text, 10);
  if (text.starts_with('+')) text.remove_prefix(1);
  if (text.starts_with("0x") || text.starts_with("0X")) return isAll<std::uint64_t>(text.substr(2), 16);
  return isAll<std::uint64_t>(text, 10);
}

bool isReal(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  return isAll<double>(text, std::chars_format::general);
}

bool isDate(std::string_view text) {
  constexpr std::string_view kForm = "2001-01-01T00:00:00Z";
  return text.size() == kForm.size() && text.back() == 'Z' && Date::fromRFC3339(text).has_value();
}

bool isBase64(std::string_view text) {
  std::size_t digits = 0;
  std::size_t padding = 0;
  for (const char c : text) {
    if (kSpaces.find(c) != std::string_view::npos) continue;
    const bool isDigit =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
    if (c == '=' ? ++padding > 2 : !isDigit || padding > 0) return false;
    ++digits;
  }
  return digits % 4 == 0;
}

struct Spelling {
  std::string_view element;
  bool (*isRight)(std::string_view text);
};

constexpr Spelling kSpellings[] = {
    {"integer", isInteger}, {"real", isReal}, {"date", isDate}, {"data", isBase64}};

class MarkupCheck {
 public:
  explicit MarkupCheck(std::string_view text) : text_(text) {}

  std::optional<std::string> run() {
    while (problem_.empty()) {
      position_ = text_.find('<', position_);
      if (position_ == std::string_view::npos) break;
      checkMarkup();
    }
    if (problem_.empty() && !open_.empty()) refuse("an element that is not closed");
    if (problem_.empty()) return std::nullopt;
    return problem_ + " at offset " + std::to_string(std::min(position_, text_.size()));
  }

 private:
  struct Element {
    std::string_view name;
    std::size_t children = 0;
  };

  bool refuse(std::string_view problem) {
    problem_ = problem;
    return false;
  }

  bool startsWith(std::string_view expected) const { return text_.substr(position_).starts_with(expected); }

  void checkMarkup() {
    std::string_view content;
    if (startsWith("<!--")) {
      take("<!--", "-->", content);
    } else if (startsWith("<![CDATA[")) {
      take("<![CDATA[", "]]>", content);
    } else if (startsWith("<?")) {
      takeQuoted("<?", "?>", content);
    } else if (startsWith("<!DOCTYPE")) {
      if (takeQuoted("<!DOCTYPE", ">", content) && content.find('[') != std::string_view::npos) {
        refuse("declarations of its own");
      }
    } else if (startsWith("<!")) {
      refuse("unknown markup");
    } else if (startsWith("</")) {
      if (takeQuoted("</", ">", content)) close(trimmed(content));
    } else if (takeQuoted("<", ">", content)) {
      checkStart(content);
    }
  }

  /// Moves behind the next `end`; `content` is what stands before it.
  bool take(std::string_view start, std::string_view end, std::string_view& content) {
    const auto from = position_ + start.size();
    const auto to = text_.find(end, from);
    if (to == std::string_view::npos) return refuse("markup that does not end");
    content = text_.substr(from, to - from);
    position_ = to + end.size();
    return true;
  }

  bool takeQuoted(std::string_view start, std::string_view end, std::string_view& content) {
    const auto from = position_;
    if (!take(start, end, content)) return false;
    char quote = 0;
    for (const char c : content) {
      if (c != '"' && c != '\'') continue;
      if (quote == 0) {
        quote = c;
      } else if (quote == c) {
        quote = 0;
      }
    }
    if (quote == 0 && content.find('<') == std::string_view::npos) return true;
    position_ = from;
    return refuse("markup that is not closed");
  }

  void checkStart(std::string_view content) {
    const bool isEmpty = content.ends_with('/');
    if (isEmpty) content.remove_suffix(1);
    const auto name = content.substr(0, content.find_first_of(kSpaces));
    if (!isExpected(name)) return;
    if (!isEmpty && open_.size() == kMostOpenElements) {
      refuse("more than " + std::to_string(kMostXMLPropertyListLevels) + " levels");
      return;
    }
    const std::string_view spelt =
        isEmpty ? std::string_view() : text_.substr(position_, text_.find('<', position_) - position_);
    if (!isSpeltRight(name, spelt)) return;
    if (!isEmpty) open_.push_back({name});
  }

  /// Whether an element of that name may stand here: dictionaries hold keys and values in turn.
  bool isExpected(std::string_view name) {
    const bool inDictionary = !open_.empty() && open_.back().name == "dict";
    const bool keyIsDue = inDictionary && open_.back().children % 2 == 0;
    if (!open_.empty()) ++open_.back().children;
    if (keyIsDue && name != "key") return refuse("a value without a key");
    if (!keyIsDue && name == "key") return refuse("a key without a value");
    return true;
  }

  /// The text of a number, date or data goes up to its own end tag.
  bool isSpeltRight(std::string_view name, std::string_view text) {
    const auto* spelling = std::find_if(std::begin(kSpellings), std::end(kSpellings),
                                        [name](const Spelling& s) { return s.element == name; });
    if (spelling == std::end(kSpellings) || spelling->isRight(trimmed(text))) return true;
    return refuse("no valid " + std::string(name));
  }

  void close(std::string_view name) {
    if (open_.empty() || open_.back().name != name) {
      refuse("an end tag without its start tag");
    } else if (name == "dict" && open_.back().children % 2 != 0) {
      refuse("a key without a value");
    } else {
      open_.pop_back();
    }
  }

  std::string_view text_;
  std::size_t position_ = 0;
  std::vector<Element> open_;
  std::string problem_;
};

}  // namespace

std::optional<std::string> problemInXMLPropertyList(std::string_view text) {
  return MarkupCheck(text).run();
}

}  // namespace qx
