#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace qx::log {

/// A method's full name as log lines show it, "-[QXDatabaseAccessor initPrivately]" ("+[...]" for a static
/// one), from what __PRETTY_FUNCTION__ says of it; the plain name of a function that is no class's, and of
/// the function around a lambda. What the compiler says itself when it has another form.
///
/// `size`: of the literal. Made when the code is compiled.
template <std::size_t size>
class MethodName {
 public:
  constexpr explicit MethodName(const char (&prettyFunction)[size]) {
    const std::string_view text(prettyFunction, size - 1);
    std::string_view qualified = text.substr(0, parametersOf(text));
    const auto function = takeLastName(qualified);
    const auto owner = takeLastName(qualified);
    if (function.empty()) {
      append(text);
    } else if (owner.empty() || owner[0] < 'A' || owner[0] > 'Z') {
      append(function);  // classes begin with a capital letter here, namespaces do not
    } else {
      append(text.starts_with("static ") ? "+[" : "-[");
      append(owner);
      append(" ");
      append(function);
      append("]");
    }
  }

  constexpr const char* text() const { return name_.data(); }

 private:
  static constexpr bool isNameCharacter(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '_' || character == '~';
  }

  /// Where the first parameter list begins that is not inside template brackets; what clang calls an unnamed
  /// namespace is none.
  static constexpr std::size_t parametersOf(std::string_view text) {
    int depth = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
      if (text[at] == '<') ++depth;
      if (text[at] == '>') --depth;
      if (text[at] == '(' && depth == 0 && !text.substr(at).starts_with("(anonymous namespace)")) return at;
    }
    return 0;
  }

  /// The last name in `text`, which is then cut off with the "::" before it; empty when there is none.
  static constexpr std::string_view takeLastName(std::string_view& text) {
    auto begin = text.size();
    while (begin > 0 && isNameCharacter(text[begin - 1]))
      --begin;
    const auto name = text.substr(begin);
    text = text.substr(0, begin);
    text.remove_suffix(text.ends_with("::") ? 2 : text.size());
    return name;
  }

  constexpr void append(std::string_view text) {
    for (const char character : text)
      name_[end_++] = character;
  }

  // A class, a blank and a method are no longer than with the "::" between them; brackets and sign are new.
  std::array<char, size + 4> name_{};
  std::size_t end_ = 0;
};

}  // namespace qx::log
