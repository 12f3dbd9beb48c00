#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/PreferenceScope.h>
#include <QXEventStoring/Platform/Value.h>

// How much the library logs, seen from outside: preferences that every process which uses the library reads,
// and follows while it runs.

/// A configured level.
enum class PLVLogLevel : std::uint8_t {
  NotLoaded = 0,  // not read yet
  Inherit = 1,    // not set
  Default = 2,    // neither Info nor Debug messages
  Info = 3,
  Debug = 4,
};

/// What has a level: the category of the library's lines, its subsystem (counts when the category has none),
/// an application, and all programs of this maker (these two can only raise it).
enum class PLVLogLevelOwner { category, subsystem, application, maker };

/// Where a level is set.
struct PLVLogLevelPlace {
  PLVLogLevelOwner owner = PLVLogLevelOwner::category;
  qx::PreferenceScope scope = qx::PreferenceScope::currentUserAnyHost;
  std::string application = {};  // bundle identifier, for PLVLogLevelOwner::application
};

struct PLVLogLevelSetting {
  PLVLogLevelPlace place;
  std::string file;
  PLVLogLevel level = PLVLogLevel::Inherit;
  qx::ErrorPtr problem = nullptr;  // why the file could not be used
};

struct PLVLogLevelStatus {
  std::vector<PLVLogLevelSetting> settings;      // those that are set, or have a problem: as they are asked
  PLVLogLevel effective = PLVLogLevel::Inherit;  // what they come to
  bool unified = false;                          // lines go to journald; else to syslog and standard error
};

/// How much a process of this user logs, for the application with that bundle identifier (none: one without).
/// Any thread.
QX_EXPORT PLVLogLevelStatus PLVLogLevelsFor(const qx::String& application);

/// Sets a level, or takes it back (Inherit); running processes follow at once on a machine with journald,
/// otherwise within a minute. False, with *error set, when it could not be written; the place is named. Any
/// thread.
QX_EXPORT bool PLVSetLogLevel(PLVLogLevel level, const PLVLogLevelPlace& place,
                              qx::ErrorPtr* error = nullptr);

/// "none", "default", "info", "debug". Any thread.
QX_EXPORT std::string_view PLVNameOfLogLevel(PLVLogLevel level);
