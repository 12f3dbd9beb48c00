#include "Logging/JournalProtocol.h"

#include <errno.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>

namespace qx::log {
namespace {

/// Their names, and syslog(3)'s numbers.
std::string_view fieldsOf(PLVLogType type) {
  switch (type) {
    case PLVLogType::Debug:
      return "MESSAGE_TYPE=Debug\nPRIORITY=7\n";
    case PLVLogType::Info:
      return "MESSAGE_TYPE=Info\nPRIORITY=6\n";
    case PLVLogType::Error:
      return "MESSAGE_TYPE=Error\nPRIORITY=3\n";
    case PLVLogType::Fault:
      return "MESSAGE_TYPE=Fault\nPRIORITY=2\n";
    case PLVLogType::Default:
      break;
  }
  return "MESSAGE_TYPE=Default\nPRIORITY=5\n";
}

void appendNumber(std::string_view nameAndSign, std::uint64_t number, std::string& datagram) {
  std::array<char, 20 + 1> digits;
  char* const end = std::to_chars(digits.data(), digits.data() + 20, number).ptr;
  *end = '\n';
  datagram.append(nameAndSign).append(digits.data(), end + 1);
}

/// "NAME=VALUE"; a value of several lines is told by its length instead.
void appendText(std::string_view name, std::string_view value, std::string& datagram) {
  datagram += name;
  if (value.find('\n') == std::string_view::npos) {
    datagram += '=';
  } else {
    datagram += '\n';
    for (unsigned shift = 0; shift < 64; shift += 8)
      datagram += static_cast<char>(std::uint64_t{value.size()} >> shift & 0xFFU);
  }
  datagram.append(value) += '\n';
}

thread_local pid_t knownThread = 0;

/// Only a forked child's one thread has another number than its thread had before.
const bool forgetsThreadInChild = ::pthread_atfork(nullptr, nullptr, [] { knownThread = 0; }) == 0;

pid_t currentThread() {
  if (knownThread == 0 || !forgetsThreadInChild) knownThread = ::gettid();
  return knownThread;
}

}  // namespace

std::string journalOrigin(std::string_view subsystem, std::string_view category) {
  std::string fields;
  appendText("SUBSYSTEM", subsystem, fields);
  appendText("CATEGORY", category, fields);
  appendText("SYSLOG_IDENTIFIER", program_invocation_short_name, fields);
  return fields;
}

void appendJournalEntry(const JournalEntry& entry, std::string* datagram) {
  std::string& fields = *datagram;
  fields += fieldsOf(entry.type);
  fields += entry.origin;
  if (entry.source.file != nullptr) {
    appendText("CODE_FILE", entry.source.file, fields);
    appendNumber("CODE_LINE=", entry.source.line, fields);
  }
  if (entry.source.function != nullptr) appendText("CODE_FUNC", entry.source.function, fields);
  appendNumber("TID=", static_cast<std::uint64_t>(currentThread()), fields);
  appendText("MESSAGE", entry.text, fields);
}

}  // namespace qx::log
