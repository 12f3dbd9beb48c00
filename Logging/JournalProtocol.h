#pragma once

#include <string>
#include <string_view>

#include "Logging/PLVLogType.h"

namespace qx::log {

/// A line for the journal.
struct JournalEntry {
  PLVLogType type;
  std::string_view origin;  // as journalOrigin() makes it
  PLVLogSource source;
  std::string_view text;
};

/// The fields that all lines of a category have: SUBSYSTEM, CATEGORY, and SYSLOG_IDENTIFIER, the program's
/// short name.
std::string journalOrigin(std::string_view subsystem, std::string_view category);

/// The datagram for journald: MESSAGE, PRIORITY (Debug 7, Info 6, Default 5, Error 3, Fault 2), MESSAGE_TYPE
/// (its name), the origin's fields, CODE_FILE, CODE_LINE, CODE_FUNC, and TID, the thread. Values may hold any
/// bytes. Appended to `datagram`. Format: "Native Journal Protocol" of systemd. Any thread.
void appendJournalEntry(const JournalEntry& entry, std::string* datagram);

}  // namespace qx::log
