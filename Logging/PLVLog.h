#pragma once

#include <initializer_list>

#include "Logging/MethodName.h"
#include "Logging/PLVLogArgument.h"
#include "Logging/PLVLogCallContext.h"
#include "Logging/PLVLogCategoryDescriptor.h"
#include "Logging/PLVLogType.h"

/// Writes a log line: PLVLog(descriptor, PLVLogType::Info, "Count [%lu]", count). `descriptor` is a static,
/// writable PLVLogCategoryDescriptor, the format in os_log syntax; one that does not fit the arguments does
/// not compile (those with positions are not checked before they are used). The arguments are evaluated only
/// when the line is sent. Never fails and never waits; any thread.
#ifdef PLV_LOG_COMPILED_OUT  // for measuring what the calls cost
#define PLVLog(descriptor, type, format, ...)                                     \
  do {                                                                            \
    if constexpr (false) {                                                        \
      static_cast<void>(std::initializer_list<::qx::log::Argument>{__VA_ARGS__}); \
    }                                                                             \
  } while (false)
#else
#define PLVLog(descriptor, type, format, ...)                                                           \
  do {                                                                                                  \
    if (const PLVLogCallContext plvLogContext(descriptor, type); plvLogContext) {                       \
      static constexpr ::qx::log::MethodName plvLogMethod(__PRETTY_FUNCTION__);                         \
      plvLogContext.send({__FILE__, __LINE__, plvLogMethod.text()}, format __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                                                   \
  } while (false)
#endif
