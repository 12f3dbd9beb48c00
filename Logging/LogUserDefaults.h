#pragma once

#include <string>
#include <string_view>

#include "Logging/CachedLogLevel.h"
#include "Logging/PLVLogLevel.h"
#include "Platform/UserDefaults.h"

/// The suite with the level of every program of this maker.
inline constexpr std::string_view kLoggingSuite = "com.qx.device.logging";

/// User defaults with a log level, the one that they have at "PLVLogLevel". Any thread.
class LogUserDefaults : public qx::UserDefaults {
 public:
  /// The running application's.
  LogUserDefaults();
  explicit LogUserDefaults(std::string suite);

  /// Of this image, never destroyed: the application's level, and the maker-wide one.
  static LogUserDefaults& applicationUserDefaults() {
    return application_ != nullptr ? *application_ : made(application_);
  }
  static LogUserDefaults& loggingUserDefaults() { return logging_ != nullptr ? *logging_ : made(logging_); }

  PLVLogLevel logLevel() const { return level_.get(); }
  /// Until the preference changes; NotLoaded reads it again.
  void setLogLevel(PLVLogLevel level) { level_.set(level); }
  /// Without unified logging: reads the level again in a minute, if somebody asks for it by then.
  void scheduleLogLevelSynchronization() { level_.scheduleSynchronization(); }

  /// For the child of a fork.
  void abandonLevel() { level_.abandon(); }

 private:
  /// Makes both; `which` is one of them.
  static LogUserDefaults& made(LogUserDefaults* const& which);

  static constinit LogUserDefaults* application_;
  static constinit LogUserDefaults* logging_;
  qx::log::CachedLogLevel level_;
};
