#include "Logging/JournalProtocol.h"

#include <errno.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>

namespace qx::log {
namespace {

/// syslog(3)'s numbers.
std::string_view priority(PLVLogType type) {
  switch (type) {
    case PLVLogType::Debug:
      return "7";
    case PLVLogType::Info:
      return "6";
    case PLVLogType::Error:
      return "3";
    case PLVLogType::Fault:
      return "2";
    case PLVLogType::Default:
      break;
  }
  return "5";
}

void appendLength(std::uint64_t length, std::string& datagram) {
  for (unsigned shift = 0; shift < 64; shift += 8)
    datagram += static_cast<char>(length >> shift & 0xFFU);
}

/// "NAME=VALUE"; a value of several lines is told by its length instead.
void appendField(std::string_view name, std::string_view value, std::string& datagram) {
  datagram += name;
  if (value.find('\n') == std::string_view::npos) {
    datagram += '=';
  } else {
    datagram += '\n';
    appendLength(value.size(), datagram);
  }
  datagram += value;
  datagram += '\n';
}

void appendField(std::string_view name, std::uint64_t number, std::string& datagram) {
  std::array<char, 20> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  appendField(name, {digits.data(), static_cast<std::size_t>(end - digits.data())}, datagram);
}

}  // namespace

void appendJournalEntry(const JournalEntry& entry, std::string* datagram) {
  std::string& fields = *datagram;
  appendField("MESSAGE", entry.text, fields);
  appendField("PRIORITY", priority(entry.type), fields);
  appendField("SYSLOG_IDENTIFIER", program_invocation_short_name, fields);
  appendField("SUBSYSTEM", entry.subsystem, fields);
  appendField("CATEGORY", entry.category, fields);
  appendField("MESSAGE_TYPE", nameOfLogType(entry.type), fields);
  if (entry.source.file != nullptr) {
    appendField("CODE_FILE", entry.source.file, fields);
    appendField("CODE_LINE", entry.source.line, fields);
  }
  if (entry.source.function != nullptr) appendField("CODE_FUNC", entry.source.function, fields);
  // Asked anew each time: it is cheap beside the sending, and a forked child's thread has another one.
  appendField("TID", static_cast<std::uint64_t>(::gettid()), fields);
}

}  // namespace qx::log
