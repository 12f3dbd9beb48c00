#pragma once

#include <string>

#include "Logging/CachedLogLevel.h"
#include "Logging/JournalLog.h"
#include "Logging/PLVLogLevel.h"
#include "Logging/PLVLogType.h"

class LogSubsystem;

/// The log lines of one part of a product. Any thread.
class LogCategory {
 public:
  /// `name` is not copied; `subsystem` outlives the category.
  LogCategory(const char* name, LogSubsystem& subsystem);

  const char* name() const { return name_; }
  LogSubsystem& subsystem() const { return subsystem_; }
  /// The key of the category's level in its subsystem's suite: its name.
  std::string preferenceKey() const { return name_; }

  /// The category's own level.
  PLVLogLevel level() const { return level_.get(); }
  /// Until the preference changes; NotLoaded reads it again.
  void setLevel(PLVLogLevel level) { level_.set(level); }
  /// Without unified logging: reads the level again in a minute, if somebody asks for it by then.
  void scheduleLevelSynchronization() { level_.scheduleSynchronization(); }

  /// Whether the four levels let a message of `type` through. The category's own level counts, else its
  /// subsystem's; the application's and the maker-wide one can raise it. Default, Error and Fault always
  /// pass; Info and Debug do where nothing is configured with unified logging, which then decides itself.
  bool logsType(PLVLogType type) const noexcept;

  /// Whether a message of `type` is to be sent: logsType(), and with unified logging the journal wants it
  /// too.
  bool isWanted(PLVLogType type) const noexcept;

  /// Whether any of the four levels is set.
  bool isConfigured() const noexcept;

  /// Where the category's lines go with unified logging.
  const qx::log::JournalLog& log() const { return log_; }

  /// For the child of a fork.
  void abandonLevel() { level_.abandon(); }

 private:
  const char* name_;
  LogSubsystem& subsystem_;
  qx::log::JournalLog log_;
  qx::log::CachedLogLevel level_;
};
