#pragma once

#include <atomic>
#include <cstdint>

namespace qx::log {

enum class LogSystem : std::uint8_t { undecided, journal, syslog };
inline constinit std::atomic<LogSystem> decidedLogSystem = LogSystem::undecided;

/// Decides; see unifiedLogging(). Keeps errno.
bool decideLogSystem();

/// Whether lines go to journald, by its own protocol: its socket ("/run/systemd/journal/socket" under the
/// volume root) was there when this was first asked. Otherwise they go to syslog and standard error. Any
/// thread.
inline bool unifiedLogging() {
  const auto decided = decidedLogSystem.load(std::memory_order_relaxed);
  return decided != LogSystem::undecided ? decided == LogSystem::journal : decideLogSystem();
}

}  // namespace qx::log
