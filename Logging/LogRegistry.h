#pragma once

#include <cstdint>
#include <mutex>

#include "Logging/LogSubsystem.h"

namespace qx::log {

/// What the images of a process that carry this layer share: every subsystem that was ever logged to. Each
/// image has a record in its static storage; that of the first image to be loaded is used by all.
///
/// The images are therefore linked with "-z nodelete": names, code and records that others use stay.
struct LogRegistry {
  /// Of this record and of all that it leads to; to be raised when any of that changes. Images of different
  /// layouts do not share.
  static constexpr std::uint32_t kLayout = 1;

  const std::uint32_t layout = kLayout;
  std::mutex lock;
  NameTable<LogSubsystem> subsystems;  // guarded by lock
};

/// The record in use.
LogRegistry& sharedLogRegistry();

}  // namespace qx::log
