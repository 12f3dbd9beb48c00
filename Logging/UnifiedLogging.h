#pragma once

namespace qx::log {

/// Whether lines go to journald, by its own protocol: its socket ("/run/systemd/journal/socket" under the
/// volume root) was there when this was first asked. Otherwise they go to syslog and standard error. Any
/// thread.
bool unifiedLogging();

}  // namespace qx::log
