#pragma once

#include <initializer_list>

#include "Logging/PLVLogArgument.h"
#include "Logging/PLVLogCallContext.h"
#include "Logging/PLVLogCategoryDescriptor.h"
#include "Logging/PLVLogType.h"

/// Writes a log line: PLVLog(descriptor, PLVLogType::Info, "Count [%lu]", count). `descriptor` is a static,
/// writable PLVLogCategoryDescriptor, the format in os_log syntax. The arguments are evaluated only when the
/// line is sent. Never fails and never waits; any thread.
#ifdef PLV_LOG_COMPILED_OUT  // for measuring what the calls cost
#define PLVLog(descriptor, type, format, ...)                                     \
  do {                                                                            \
    if constexpr (false) {                                                        \
      static_cast<void>(std::initializer_list<::qx::log::Argument>{__VA_ARGS__}); \
    }                                                                             \
  } while (false)
#else
#define PLVLog(descriptor, type, format, ...)                                               \
  do {                                                                                      \
    if (const PLVLogCallContext plvLogContext(descriptor, type); plvLogContext) {           \
      plvLogContext.send({__FILE__, __LINE__, __PRETTY_FUNCTION__}, format, {__VA_ARGS__}); \
    }                                                                                       \
  } while (false)
#endif
