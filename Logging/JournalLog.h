#pragma once

#include <string>
#include <string_view>

#include "Logging/PLVLogType.h"

class LogCategory;

namespace qx::log {

class LogTransport;

inline constexpr std::string_view kJournalSocketPath = "/run/systemd/journal/socket";

/// A category's line to journald. Any thread.
class JournalLog {
 public:
  explicit JournalLog(const LogCategory& category);

  /// Whether the journal wants lines of `type`. It has no levels of its own for those who write to it, and
  /// keeps what it gets on the disk, so Info and Debug are wanted only once a level has been set somewhere.
  bool isTypeEnabled(PLVLogType type) const noexcept;

  /// Never waits; see LogTransport.
  void send(PLVLogType type, const PLVLogSource& source, std::string_view text) const;

  /// The process's socket, for waiting until all has been sent.
  static LogTransport& transport();

 private:
  const LogCategory& category_;
  const std::string origin_;  // the fields of the category
};

}  // namespace qx::log
