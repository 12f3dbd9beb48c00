#include "Logging/LogCategory.h"

#include "Logging/LogSubsystem.h"
#include "Logging/LogUserDefaults.h"
#include "Logging/UnifiedLogging.h"

LogCategory::LogCategory(const char* name, LogSubsystem& subsystem)
    : name_(name),
      subsystem_(subsystem),
      log_(*this),
      level_([this] { return subsystem_.levelForKey(preferenceKey()); },
             [this](const std::function<void()>& changed) {
               return subsystem_.userDefaults().observe(changed);
             }) {}

bool LogCategory::logsType(PLVLogType type) const noexcept {
  if (type != PLVLogType::Info && type != PLVLogType::Debug) return true;
  const auto letsThrough = [type](PLVLogLevel level) {
    return level == PLVLogLevel::Debug || (level == PLVLogLevel::Info && type == PLVLogType::Info);
  };
  auto effective = level();
  if (effective == PLVLogLevel::Inherit) effective = subsystem_.level();
  if (letsThrough(effective)) return true;

  const auto raises = [&](const LogUserDefaults& defaults) {
    const auto level = defaults.logLevel();
    if (effective >= level) return false;
    effective = level;
    return letsThrough(level);
  };
  if (raises(LogUserDefaults::applicationUserDefaults())) return true;
  if (raises(LogUserDefaults::loggingUserDefaults())) return true;
  return effective == PLVLogLevel::Inherit && qx::log::unifiedLogging();
}

// Every log call comes here, and most go no further.
[[gnu::flatten]] bool LogCategory::isWanted(PLVLogType type) const noexcept {
  return (!qx::log::unifiedLogging() || log_.isTypeEnabled(type)) && logsType(type);
}

bool LogCategory::isConfigured() const noexcept {
  const auto isSet = [](PLVLogLevel level) { return level != PLVLogLevel::Inherit; };
  return isSet(level()) || isSet(subsystem_.level()) ||
         isSet(LogUserDefaults::applicationUserDefaults().logLevel()) ||
         isSet(LogUserDefaults::loggingUserDefaults().logLevel());
}

namespace qx::log {

bool JournalLog::isTypeEnabled(PLVLogType type) const noexcept {
  return (type != PLVLogType::Info && type != PLVLogType::Debug) || category_.isConfigured();
}

}  // namespace qx::log
