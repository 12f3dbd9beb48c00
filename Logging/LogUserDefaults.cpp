#include "Logging/LogUserDefaults.h"

#include <utility>

namespace {

qx::log::CachedLogLevel levelOf(const qx::UserDefaults& defaults) {
  return {[&defaults] { return com_qx_eventstoring_logLevelForKey(defaults, kPLVLogLevelKey); },
          [&defaults](std::function<void()> changed) { return defaults.observe(std::move(changed)); }};
}

}  // namespace

LogUserDefaults::LogUserDefaults() : level_(levelOf(*this)) {}

LogUserDefaults::LogUserDefaults(std::string suite)
    : UserDefaults(std::move(suite)), level_(levelOf(*this)) {}

LogUserDefaults& LogUserDefaults::applicationUserDefaults() {
  static LogUserDefaults& application = *new LogUserDefaults;
  return application;
}

LogUserDefaults& LogUserDefaults::loggingUserDefaults() {
  static LogUserDefaults& maker = *new LogUserDefaults(std::string(kLoggingSuite));
  return maker;
}
