#include "Logging/LogUserDefaults.h"

#include <utility>

namespace {

qx::log::CachedLogLevel levelOf(const qx::UserDefaults& defaults) {
  return {[&defaults] { return com_qx_eventstoring_logLevelForKey(defaults, kPLVLogLevelKey); },
          [&defaults](const std::function<void()>& changed) { return defaults.observe(changed); }};
}

}  // namespace

LogUserDefaults::LogUserDefaults() : level_(levelOf(*this)) {}

LogUserDefaults::LogUserDefaults(std::string suite)
    : UserDefaults(std::move(suite)), level_(levelOf(*this)) {}

// Set when the image is loaded, before it has threads.
constinit LogUserDefaults* LogUserDefaults::application_ = nullptr;
constinit LogUserDefaults* LogUserDefaults::logging_ = nullptr;

LogUserDefaults& LogUserDefaults::made(LogUserDefaults* const& which) {
  if (application_ == nullptr) application_ = new LogUserDefaults;
  if (logging_ == nullptr) logging_ = new LogUserDefaults(std::string(kLoggingSuite));
  return *which;
}
