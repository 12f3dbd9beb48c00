// The levels as an administrator sees and sets them.
#include <QXEventStoring/PLVLogLevels.h>

#include <algorithm>
#include <array>
#include <utility>

#include "Logging/EventStoreLog.h"
#include "Logging/LogUserDefaults.h"
#include "Logging/PLVLogLevel.h"
#include "Logging/UnifiedLogging.h"
#include "Platform/Preferences.h"

namespace {

using enum PLVLogLevelOwner;

std::string suiteOf(const PLVLogLevelPlace& place) {
  if (place.owner == application) return place.application;
  if (place.owner == maker) return std::string(kLoggingSuite);
  return std::string(kEventStoreLog.subsystemName()) + ".logging";
}

std::string_view keyOf(const PLVLogLevelPlace& place) {
  return place.owner == category ? std::string_view(kEventStoreLog.categoryName()) : kPLVLogLevelKey;
}

/// What is set there, and whether there is anything, a level or not.
std::pair<PLVLogLevelSetting, bool> read(const PLVLogLevelPlace& place) {
  PLVLogLevelSetting setting{place, qx::preferencesPath(suiteOf(place), place.scope).value_or("")};
  const auto value = qx::preferenceValue(keyOf(place), suiteOf(place), place.scope, &setting.problem);
  if (value) setting.level = com_qx_eventstoring_logLevelWithString(value->stringValue());
  return {std::move(setting), value.has_value()};
}

}  // namespace

PLVLogLevelStatus PLVLogLevelsFor(const qx::String& application) {
  static constexpr std::array kOwners{category, subsystem, PLVLogLevelOwner::application, maker};
  PLVLogLevelStatus status;
  status.unified = qx::log::unifiedLogging();
  std::array<PLVLogLevel, kOwners.size()> levels{};
  for (const auto owner : kOwners) {
    if (owner == PLVLogLevelOwner::application && !application) continue;
    auto& level = levels.at(static_cast<std::size_t>(owner));
    level = PLVLogLevel::Inherit;
    bool isDecided = false;
    for (const auto scope : qx::kPreferenceScopes) {
      auto [setting, hasKey] = read({owner, scope, application.value_or("")});
      const bool isSet = setting.level != PLVLogLevel::Inherit;
      if (!isDecided && isSet) level = setting.level;
      // User defaults give what they find first, be it a level or not; a subsystem looks for a level.
      const bool isOfDefaults = owner == PLVLogLevelOwner::application || owner == maker;
      isDecided = isDecided || isSet || (hasKey && isOfDefaults);
      if (isSet || setting.problem) status.settings.push_back(std::move(setting));
    }
  }
  const auto own = levels[0] != PLVLogLevel::Inherit ? levels[0] : levels[1];
  status.effective = std::max({own, levels[2], levels[3]});
  return status;
}

bool PLVSetLogLevel(PLVLogLevel level, const PLVLogLevelPlace& place, qx::ErrorPtr* error) {
  std::optional<qx::Value> value;
  if (level > PLVLogLevel::Inherit) value = std::string(PLVNameOfLogLevel(level));
  return qx::setPreferenceValue(value, keyOf(place), suiteOf(place), place.scope, error);
}

std::string_view PLVNameOfLogLevel(PLVLogLevel level) {
  switch (level) {
    case PLVLogLevel::Default:
      return "default";
    case PLVLogLevel::Info:
      return "info";
    case PLVLogLevel::Debug:
      return "debug";
    default:
      return "none";
  }
}
