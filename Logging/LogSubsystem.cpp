#include "Logging/LogSubsystem.h"
#include "Platform/Preferences.h"

LogSubsystem::LogSubsystem(const char* name)
    : name_(name),
      userDefaults_(userDefaultsSuiteName()),
      level_([this] { return levelForKey(kPLVLogLevelKey); },
             [this](const std::function<void()>& changed) { return userDefaults_.observe(changed); }) {}

std::string LogSubsystem::userDefaultsSuiteName() const {
  return std::string(name_) + ".logging";
}

PLVLogLevel LogSubsystem::levelForKey(std::string_view key) const {
  const auto suite = userDefaultsSuiteName();
  auto level = PLVLogLevel::Inherit;
  for (const auto scope : qx::kPreferenceScopes) {
    const auto value = qx::preferenceValue(key, suite, scope);
    level = com_qx_eventstoring_logLevelWithString(value ? value->stringValue() : std::nullopt);
    if (level != PLVLogLevel::Inherit) break;
  }
  return level;
}

void LogSubsystem::abandonLevels() {
  level_.abandon();
  for (const auto& [name, category] : categories_)
    category->abandonLevel();
}
