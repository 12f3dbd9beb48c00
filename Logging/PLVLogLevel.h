#pragma once

#include <string_view>

#include <QXEventStoring/PLVLogLevels.h>
#include <QXEventStoring/Platform/Value.h>

#include "Platform/UserDefaults.h"

/// The preference key of every level that is not a category's own.
inline constexpr std::string_view kPLVLogLevelKey = "PLVLogLevel";

/// The level that a preference's text names: "default", "info" or "debug" in any case, all else Inherit.
PLVLogLevel com_qx_eventstoring_logLevelWithString(const qx::String& text);

/// The level that `key` has in `defaults` now.
PLVLogLevel com_qx_eventstoring_logLevelForKey(const qx::UserDefaults& defaults, std::string_view key);
