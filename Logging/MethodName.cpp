#include "Logging/MethodName.h"

#include <algorithm>

namespace qx::log {
namespace {

constexpr std::string_view kAnonymous[] = {"{anonymous}::", "(anonymous namespace)::"};

bool isNameCharacter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || character == '_' || character == '~';
}

/// Without the names of unnamed namespaces, whose brackets would be taken for parameters.
std::string withoutAnonymous(std::string_view text) {
  std::string result(text);
  for (const auto part : kAnonymous) {
    for (auto at = result.find(part); at != std::string::npos; at = result.find(part, at))
      result.erase(at, part.size());
  }
  return result;
}

/// Where the first parameter list begins that is not inside template brackets.
std::size_t parametersOf(std::string_view text) {
  int depth = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '<') ++depth;
    if (text[at] == '>') --depth;
    if (text[at] == '(' && depth == 0) return at;
  }
  return std::string_view::npos;
}

/// The last name in `text`, which is then cut off with the "::" before it; empty when there is none.
std::string_view takeLastName(std::string_view& text) {
  auto begin = text.size();
  while (begin > 0 && isNameCharacter(text[begin - 1]))
    --begin;
  const auto name = text.substr(begin);
  text = text.substr(0, begin);
  text.remove_suffix(text.ends_with("::") ? 2 : text.size());
  return name;
}

}  // namespace

std::string methodName(std::string_view prettyFunction) {
  const auto text = withoutAnonymous(prettyFunction);
  const auto parameters = parametersOf(text);
  if (parameters == std::string_view::npos) return std::string(prettyFunction);
  std::string_view qualified = std::string_view(text).substr(0, parameters);
  const auto function = takeLastName(qualified);
  const auto owner = takeLastName(qualified);
  if (function.empty()) return std::string(prettyFunction);
  // Classes begin with a capital letter here, namespaces do not.
  if (owner.empty() || owner[0] < 'A' || owner[0] > 'Z') return std::string(function);
  std::string result(text.starts_with("static ") ? "+[" : "-[");
  result.append(owner).append(" ").append(function).append("]");
  return result;
}

}  // namespace qx::log
