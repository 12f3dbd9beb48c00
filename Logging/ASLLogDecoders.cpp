// The words of an annotation that say how a value is to be shown: "%{public,errno}d".
#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "Logging/ASLLog.h"

namespace {

std::optional<std::string> truthWord(std::string_view value, const char* yes, const char* no) {
  const auto number = qx::log::scanInteger(qx::log::withoutLeadingBlanks(value));
  if (!number) return std::nullopt;
  return *number != 0 ? yes : no;
}

}  // namespace

std::optional<std::string> ASLLog::decodeValue_private(std::string_view /*value*/,
                                                       const qx::log::ReadableMemory& /*memory*/) {
  return "<private>";
}

std::optional<std::string> ASLLog::decodeValue_errno(std::string_view value,
                                                     const qx::log::ReadableMemory& /*memory*/) {
  const auto number = qx::log::scanInteger(value);
  if (!number) return std::nullopt;
  std::array<char, 128> buffer;
  const char* text = strerror_r(*number, buffer.data(), buffer.size());
  return '[' + std::to_string(*number) + ": " + text + ']';
}

std::optional<std::string> ASLLog::decodeValue_BOOL(std::string_view value,
                                                    const qx::log::ReadableMemory& /*memory*/) {
  return truthWord(value, "YES", "NO");
}

std::optional<std::string> ASLLog::decodeValue_bool(std::string_view value,
                                                    const qx::log::ReadableMemory& /*memory*/) {
  return truthWord(value, "true", "false");
}

// Text form: RFC 4122, section 3.
std::optional<std::string> ASLLog::decodeValue_uuid_t(std::string_view value,
                                                      const qx::log::ReadableMemory& memory) {
  constexpr std::size_t kSize = 16;
  const auto address = qx::log::scanAddress(qx::log::withoutLeadingBlanks(value));
  if (!address) return std::nullopt;
  const auto bytes = memory.at(*address, kSize);
  if (!bytes) return std::nullopt;
  std::string text;
  for (std::size_t i = 0; i < kSize; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    qx::log::appendHexadecimal(text, (*bytes)[i]);
  }
  return text;
}

qx::log::ValueDecoder ASLLog::valueDecodeSelectorForType(std::string_view type) {
  static constexpr std::array<std::pair<std::string_view, qx::log::ValueDecoder>, 6> kDecoders = {{
      {"private", decodeValue_private},
      {"errno", decodeValue_errno},
      {"darwin.errno", decodeValue_errno},
      {"BOOL", decodeValue_BOOL},
      {"bool", decodeValue_bool},
      {"uuid_t", decodeValue_uuid_t},
  }};
  const auto* found = std::find_if(kDecoders.begin(), kDecoders.end(),
                                   [type](const auto& decoder) { return decoder.first == type; });
  return found == kDecoders.end() ? nullptr : found->second;
}
