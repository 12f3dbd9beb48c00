#include "Logging/ASLClient.h"

#include <ctime>
#include <string>

#include "Logging/LogTransport.h"
#include "Logging/StandardError.h"
#include "Logging/SyslogProtocol.h"
#include "Platform/Host.h"

namespace qx::log {
namespace {

std::string lostMessage(std::uint64_t count) {
  return syslogLine(ASLClient::kError, ASLMessage(),
                    std::to_string(count) + " log messages were lost: the system log did not take them",
                    std::time(nullptr));
}

}  // namespace

LogTransport& ASLClient::transport() {
  // Never destroyed: threads may log while the process ends.
  static LogTransport& systemLog =
      *new LogTransport(Host::current().resolve(kSyslogSocketPath), LogTransport::Oversize::cut, lostMessage);
  return systemLog;
}

void ASLClient::send(std::uint32_t evaluation, const ASLMessage& message, int level,
                     std::string_view text) const {
  if ((evaluation & kWanted) == 0) return;
  const auto now = std::time(nullptr);
  transport().send(syslogLine(level, message, text, now));
  writeToStandardError(standardErrorLine(level, text, now));
}

int levelOfLogType(PLVLogType type) {
  switch (type) {
    case PLVLogType::Info:
    case PLVLogType::Debug:
      return ASLClient::kNotice;
    case PLVLogType::Error:
      return ASLClient::kError;
    case PLVLogType::Fault:
      return ASLClient::kCritical;
    default:
      return ASLClient::kWarning;
  }
}

}  // namespace qx::log
