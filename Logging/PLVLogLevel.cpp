#include "Logging/PLVLogLevel.h"

#include <strings.h>

PLVLogLevel com_qx_eventstoring_logLevelWithString(const qx::String& text) {
  if (!text) return PLVLogLevel::Inherit;
  const auto is = [&](const char* name) { return ::strcasecmp(text->c_str(), name) == 0; };
  if (is("debug")) return PLVLogLevel::Debug;
  if (is("info")) return PLVLogLevel::Info;
  if (is("default")) return PLVLogLevel::Default;
  return PLVLogLevel::Inherit;
}

PLVLogLevel com_qx_eventstoring_logLevelForKey(const qx::UserDefaults& defaults, std::string_view key) {
  return com_qx_eventstoring_logLevelWithString(defaults.stringForKey(key));
}
