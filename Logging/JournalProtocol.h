#pragma once

#include <string>
#include <string_view>

#include "Logging/PLVLogType.h"

namespace qx::log {

/// A line for the journal. What it refers to lives as long as the call that gets it.
struct JournalEntry {
  PLVLogType type;
  std::string_view subsystem;
  std::string_view category;
  PLVLogSource source;  // a null file or function is left out
  std::string_view text;
};

/// The datagram for journald: MESSAGE, PRIORITY (Debug 7, Info 6, Default 5, Error 3, Fault 2),
/// SYSLOG_IDENTIFIER (the program's short name), SUBSYSTEM, CATEGORY, MESSAGE_TYPE (its name), CODE_FILE,
/// CODE_LINE, CODE_FUNC, TID. Values may hold any bytes. Format: "Native Journal Protocol" of systemd.
/// Appends to `datagram`, which keeps its capacity. Throws nothing but std::bad_alloc. Any thread.
void appendJournalEntry(const JournalEntry& entry, std::string* datagram);

}  // namespace qx::log
