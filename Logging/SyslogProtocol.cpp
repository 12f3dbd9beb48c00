#include "Logging/SyslogProtocol.h"

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <mutex>

namespace qx::log {
namespace {

constexpr std::string_view kKeys = "[PLV";
constexpr int kUserFacility = 1;
constexpr int kLevelMask = 7;

constexpr std::array<const char*, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::array<const char*, 8> kLevels{"Emergency", "Alert",  "Critical", "Error",
                                             "Warning",   "Notice", "Info",     "Debug"};

// The C library guards its time zone by a lock that a child forked meanwhile would find locked for ever. So
// no thread of ours is inside when the process forks.
constinit std::mutex timeZoneMutex;
[[maybe_unused]] const int forksWait = ::pthread_atfork(
    [] { timeZoneMutex.lock(); }, [] { timeZoneMutex.unlock(); }, [] { timeZoneMutex.unlock(); });

std::tm localTime(std::time_t time) {
  std::tm result{};
  const std::lock_guard guard(timeZoneMutex);
  ::localtime_r(&time, &result);
  return result;
}

/// "Mmm dd hh:mm:ss", in English whatever the locale.
void appendTimestamp(std::time_t time, std::string& line) {
  const std::tm local = localTime(time);
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.3s %2d %02d:%02d:%02d",
                kMonths[static_cast<unsigned>(local.tm_mon) % kMonths.size()], local.tm_mday, local.tm_hour,
                local.tm_min, local.tm_sec);
  line += text.data();
}

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7F;
}

/// A control character as "#ooo".
void appendOctal(char character, std::string& line) {
  const auto byte = static_cast<unsigned char>(character);
  for (const unsigned shift : {6U, 3U, 0U}) {
    if (shift == 6U) line += '#';
    line += static_cast<char>('0' + (byte >> shift & 7U));
  }
}

/// Whether `text` begins with a control character of ISO 6429's second set, in UTF-8.
bool beginsWithC1(std::string_view text) {
  return text.size() > 1 && text[0] == '\xC2' && static_cast<unsigned char>(text[1]) >= 0x80 &&
         static_cast<unsigned char>(text[1]) < 0xA0;
}

void appendText(std::string_view text, bool keepsTabs, std::string& line) {
  line.reserve(line.size() + text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (beginsWithC1(text.substr(at))) {
      appendOctal(text[at], line);
      appendOctal(text[++at], line);
    } else if (isControl(text[at]) && !(keepsTabs && text[at] == '\t')) {
      appendOctal(text[at], line);
    } else {
      line += text[at];
    }
  }
}

/// The text of a line that keys follow: one that looks like keys does not pass for them, and one that is
/// very long leaves them room.
void appendTextBeforeKeys(std::string_view text, std::string& line) {
  const bool isCut = text.size() > kLongestSyslogText;
  std::size_t end = isCut ? kLongestSyslogText : text.size();
  while (isCut && end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80)
    --end;
  text = text.substr(0, end);
  for (std::size_t keys = text.find(kKeys); keys != std::string_view::npos; keys = text.find(kKeys)) {
    appendText(text.substr(0, keys), false, line);
    appendOctal(kKeys[0], line);
    text.remove_prefix(keys + 1);
  }
  appendText(text, false, line);
  if (isCut) line += "...";
}

/// A name without what would end it: blanks, control characters and those of `delimiters`.
void appendName(std::string_view name, std::string_view delimiters, std::string& line) {
  for (const char character : name) {
    const bool ends =
        isControl(character) || character == ' ' || delimiters.find(character) != std::string_view::npos;
    line += ends ? '_' : character;
  }
}

void appendProgram(std::string& line) {
  appendName(program_invocation_short_name, ":[]", line);
  line += '[';
  line += std::to_string(::getpid());
  line += ']';
}

void appendKey(const ASLMessage::Entry& entry, std::string& line) {
  line += ' ';
  appendName(entry.first, "=]\"", line);
  line += "=\"";
  for (const char character : entry.second) {
    if (character == '"' || character == '\\' || character == ']') line += '\\';
    appendText({&character, 1}, false, line);
  }
  line += '"';
}

void appendHost(std::string& line) {
  std::array<char, HOST_NAME_MAX + 1> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') name = {"localhost"};
  const std::string_view host = name.data();
  appendName(host.substr(0, host.find('.')), {}, line);
}

}  // namespace

std::string syslogLine(int level, const ASLMessage& message, std::string_view text, std::time_t now) {
  std::string line = "<" + std::to_string(kUserFacility << 3 | (level & kLevelMask)) + ">";
  appendTimestamp(now, line);
  line += ' ';
  appendProgram(line);
  line += ": ";
  appendTextBeforeKeys(text, line);
  if (message.entries().empty()) return line;
  line += ' ';
  line += kKeys;
  for (const auto& entry : message.entries())
    appendKey(entry, line);
  line += ']';
  return line;
}

std::string standardErrorLine(int level, std::string_view text, std::time_t now) {
  std::string line;
  appendTimestamp(now, line);
  line += ' ';
  appendHost(line);
  line += ' ';
  appendProgram(line);
  line += " <";
  line += kLevels[static_cast<unsigned>(level & kLevelMask)];
  line += ">: ";
  appendText(text, true, line);
  line += '\n';
  return line;
}

}  // namespace qx::log
