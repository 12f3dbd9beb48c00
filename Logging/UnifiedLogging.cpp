#include "Logging/UnifiedLogging.h"

#include "Logging/JournalLog.h"
#include "Logging/QuietCall.h"
#include "Platform/Host.h"

namespace qx::log {

bool decideLogSystem() {
  const QuietCall quiet;
  const auto& host = Host::current();
  const bool hasJournal = host.fileExists(host.resolve(kJournalSocketPath));
  // Of several threads that ask at once, the first decides.
  auto decided = LogSystem::undecided;
  const auto decision = hasJournal ? LogSystem::journal : LogSystem::syslog;
  if (decidedLogSystem.compare_exchange_strong(decided, decision)) decided = decision;
  return decided == LogSystem::journal;
}

}  // namespace qx::log
