#include "Sources/StringUUID.h"

#include <algorithm>
#include <cstddef>

#include "Platform/UUID.h"

namespace NSStringUUID {
namespace {

std::string replaceAll(std::string text, std::string_view pattern, std::string_view replacement) {
  std::size_t found = pattern.empty() ? std::string::npos : text.find(pattern);
  if (found == std::string::npos) return text;
  std::string result;
  std::size_t copied = 0;
  for (; found != std::string::npos; found = text.find(pattern, copied)) {
    result.append(text, copied, found - copied).append(replacement);
    copied = found + pattern.size();
  }
  return result.append(text, copied);
}

}  // namespace

std::string stringWithUUID() {
  return qx::makeUUID();
}

std::string replaceArray(std::string text, std::span<const std::string_view> array,
                         std::span<const std::string_view> withArray) {
  const std::size_t count = std::min(array.size(), withArray.size());
  for (std::size_t i = 0; i < count; ++i)
    text = replaceAll(std::move(text), array[i], withArray[i]);
  return text;
}

}  // namespace NSStringUUID
