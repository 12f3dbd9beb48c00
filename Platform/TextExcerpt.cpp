#include "Platform/TextExcerpt.h"

#include <algorithm>

#include <QXEventStoring/Platform/Value.h>

namespace qx::detail {

namespace {

bool isContinuationByte(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

}  // namespace

std::string excerpt(std::string_view text, std::size_t position, std::size_t reach) {
  std::size_t begin = position > reach ? position - reach : 0;
  std::size_t end = std::min(text.size(), position + reach);
  while (begin < position && isContinuationByte(text[begin]))
    ++begin;
  while (end > position && end < text.size() && isContinuationByte(text[end]))
    --end;

  const std::string_view part = text.substr(begin, end - begin);
  const bool escapeAll = !isValidUTF8(part);
  constexpr std::string_view kHex = "0123456789abcdef";
  std::string out = begin > 0 ? "…" : "";
  for (const char c : part) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F && (byte < 0x80 || !escapeAll)) {
      out += c;
      continue;
    }
    out += "\\x";
    out += kHex[byte >> 4];
    out += kHex[byte & 0xF];
  }
  if (end < text.size()) out += "…";
  return out;
}

}  // namespace qx::detail
