#pragma once

#include "Logging/PLVLog.h"

/// The library's one category.
inline constinit PLVLogCategoryDescriptor kEventStoreLog{"com.qx.device.monitoring", "event-store"};

/// A line of the library's category, at Info type.
#define QXLogInfo(format, ...) PLVLog(kEventStoreLog, PLVLogType::Info, format __VA_OPT__(, ) __VA_ARGS__)
