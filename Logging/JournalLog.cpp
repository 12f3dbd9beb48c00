#include "Logging/JournalLog.h"

#include <string>

#include "Logging/JournalProtocol.h"
#include "Logging/LogCategory.h"
#include "Logging/LogSubsystem.h"
#include "Logging/LogTransport.h"
#include "Platform/Host.h"

namespace qx::log {
namespace {

constexpr const char* kOwnSubsystem = "com.qx.device.logging";

std::string lostMessage(std::uint64_t count) {
  std::string datagram;
  const std::string text = std::to_string(count) + " log messages were lost: the journal did not take them";
  appendJournalEntry(
      {PLVLogType::Error, journalOrigin(kOwnSubsystem, "transport"), {__FILE__, __LINE__, __func__}, text},
      &datagram);
  return datagram;
}

}  // namespace

JournalLog::JournalLog(const LogCategory& category)
    : category_(category), origin_(journalOrigin(category.subsystem().name(), category.name())) {}

LogTransport& JournalLog::transport() {
  // Never destroyed: threads may log while the process ends.
  static LogTransport& journal = *new LogTransport(Host::current().resolve(kJournalSocketPath),
                                                   LogTransport::Oversize::memoryFile, lostMessage);
  return journal;
}

void JournalLog::send(PLVLogType type, const PLVLogSource& source, std::string_view text) const {
  std::string datagram;
  datagram.reserve(text.size() + 512);
  appendJournalEntry({type, origin_, source, text}, &datagram);
  transport().send(datagram);
}

}  // namespace qx::log
