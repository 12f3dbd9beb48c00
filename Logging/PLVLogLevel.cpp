#include "Logging/PLVLogLevel.h"

#include <algorithm>

PLVLogLevel com_qx_eventstoring_logLevelWithString(const qx::String& text) {
  if (!text) return PLVLogLevel::Inherit;
  // Of ASCII alone: in a locale, "INFO" need not be "info" in capitals.
  const auto lower = [](char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
  };
  const auto is = [&](std::string_view name) {
    return std::equal(text->begin(), text->end(), name.begin(), name.end(),
                      [&](char left, char right) { return lower(left) == right; });
  };
  if (is("debug")) return PLVLogLevel::Debug;
  if (is("info")) return PLVLogLevel::Info;
  if (is("default")) return PLVLogLevel::Default;
  return PLVLogLevel::Inherit;
}

PLVLogLevel com_qx_eventstoring_logLevelForKey(const qx::UserDefaults& defaults, std::string_view key) {
  return com_qx_eventstoring_logLevelWithString(defaults.stringForKey(key));
}
