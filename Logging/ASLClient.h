#pragma once

#include <cstdint>
#include <string_view>

#include "Logging/ASLMessage.h"
#include "Logging/PLVLogType.h"

namespace qx::log {

class LogTransport;

inline constexpr std::string_view kSyslogSocketPath = "/dev/log";

/// A sender to the system log, and to standard error. Any thread.
class ASLClient {
 public:
  /// Levels, as of syslog(3).
  static constexpr int kCritical = 2;
  static constexpr int kError = 3;
  static constexpr int kWarning = 4;
  static constexpr int kNotice = 5;

  /// Bit of evaluateSend(): somebody wants the message.
  static constexpr std::uint32_t kWanted = 0x20000;

  /// Lets only the levels pass whose bit (1 << level) is set; 255, the initial value, lets all pass.
  void setFilter(std::uint32_t mask) { filter_ = mask; }

  /// What would become of a message at `level`.
  std::uint32_t evaluateSend(int level) const { return (filter_ & (1U << level)) != 0 ? kWanted : 0; }

  /// Sends `text` with the keys of `message`, when `evaluation` says that it is wanted. Never waits; see
  /// LogTransport and writeToStandardError().
  void send(std::uint32_t evaluation, const ASLMessage& message, int level, std::string_view text) const;

  /// The process's socket, for waiting until all has been sent.
  static LogTransport& transport();

 private:
  std::uint32_t filter_ = 255;
};

/// The level at which a message of `type` is sent: Info and Debug as notice, Error as error, Fault as
/// critical, all others as warning.
int levelOfLogType(PLVLogType type);

}  // namespace qx::log
