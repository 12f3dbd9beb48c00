#include "Logging/UnifiedLogging.h"

#include "Logging/JournalLog.h"
#include "Logging/KeptErrno.h"
#include "Platform/Host.h"

namespace qx::log {

bool unifiedLogging() {
  static const bool unified = [] {
    const KeptErrno kept;
    const auto& host = Host::current();
    return host.fileExists(host.resolve(kJournalSocketPath));
  }();
  return unified;
}

}  // namespace qx::log
