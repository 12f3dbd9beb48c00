// What is sent, byte by byte: journal fields, syslog lines, lines for standard error.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Logging/ASLMessage.h"
#include "Logging/JournalProtocol.h"
#include "Logging/SyslogProtocol.h"
#include "Tests/Support/LogSocket.h"

namespace qx::log {
namespace {

using namespace std::string_literals;
using test::journalFields;

constexpr std::time_t kMoment = 1762000441;  // 2025-11-01 12:34:01 UTC

std::string program() {
  return program_invocation_short_name + "["s + std::to_string(::getpid()) + "]";
}

void setTimeZone(const char* zone) {
  ::setenv("TZ", zone, 1);
  ::tzset();
}

TEST(JournalProtocol, CarriesTheLineAndItsOrigin) {
  std::string datagram;
  appendJournalEntry(
      {PLVLogType::Error, journalOrigin("com.qx.a", "b"), {"Sources/A.cpp", 17, "-[A b]"}, "text = 1"},
      &datagram);
  const std::map<std::string, std::string> expected{
      {"MESSAGE", "text = 1"},        {"PRIORITY", "3"},
      {"SUBSYSTEM", "com.qx.a"},      {"CATEGORY", "b"},
      {"MESSAGE_TYPE", "Error"},      {"SYSLOG_IDENTIFIER", program_invocation_short_name},
      {"CODE_FILE", "Sources/A.cpp"}, {"CODE_LINE", "17"},
      {"CODE_FUNC", "-[A b]"},        {"TID", std::to_string(::gettid())}};
  EXPECT_EQ(journalFields(datagram), expected);

  datagram.clear();
  appendJournalEntry({PLVLogType::Info, {}, {nullptr, 0, nullptr}, {}}, &datagram);
  const auto fields = journalFields(datagram);
  EXPECT_EQ(fields.at("MESSAGE"), "");
  EXPECT_EQ(fields.count("CODE_FILE") + fields.count("CODE_LINE") + fields.count("CODE_FUNC"), 0U);
}

TEST(JournalProtocol, CarriesAnyBytesAsTheyAre) {
  const std::string texts[] = {
      "two\nlines", "\n", "ends\n", "a\0b"s, "\nPRIORITY=0\n", "\xFF\xFE=", std::string(70000, '\n')};
  for (const auto& text : texts) {
    std::string datagram;
    appendJournalEntry({PLVLogType::Default, journalOrigin("s", text), {"f\nile", 1, "x"}, text}, &datagram);
    const auto fields = journalFields(datagram);
    EXPECT_EQ(fields.at("MESSAGE"), text);
    EXPECT_EQ(fields.at("CATEGORY"), text);
    EXPECT_EQ(fields.at("CODE_FILE"), "f\nile");
    EXPECT_EQ(fields.at("PRIORITY"), "5");
  }
}

TEST(JournalProtocol, MapsTypesToPriorities) {
  const std::tuple<PLVLogType, const char*, const char*> cases[] = {
      {PLVLogType::Debug, "7", "Debug"},     {PLVLogType::Info, "6", "Info"},
      {PLVLogType::Default, "5", "Default"}, {PLVLogType::Error, "3", "Error"},
      {PLVLogType::Fault, "2", "Fault"},     {static_cast<PLVLogType>(99), "5", "Default"}};
  for (const auto& [type, priority, name] : cases) {
    std::string datagram;
    appendJournalEntry({type, {}, {}, {}}, &datagram);
    EXPECT_EQ(journalFields(datagram).at("PRIORITY"), priority);
    EXPECT_EQ(journalFields(datagram).at("MESSAGE_TYPE"), name);
  }
}

TEST(SyslogProtocol, TellsTextFromKeysAndKeepsRoomForThem) {
  ASLMessage message;
  message.set("Key", "value");
  const auto lineOf = [&](const std::string& text) {
    const auto line = syslogLine(5, message, text, kMoment);
    return line.substr(line.find("]: ") + 3);
  };
  EXPECT_EQ(lineOf("a [PLV Key=\"false\"] [PLVx"), "a #133PLV Key=\"false\"] #133PLVx [PLV Key=\"value\"]");
  EXPECT_EQ(lineOf("\xC2\x9B"
                   "31m \xC2\xA0"),
            "#302#23331m \xC2\xA0 [PLV Key=\"value\"]");
  std::string large = "x";
  while (large.size() < 3 * kLongestSyslogText)
    large += "\xE2\x82\xAC";
  const auto line = lineOf(large);
  EXPECT_TRUE(line.ends_with("\xE2\x82\xAC... [PLV Key=\"value\"]"));
  EXPECT_LT(line.size(), kLongestSyslogText + 50);
}

TEST(SyslogProtocol, WritesOneLineWithAllKeys) {
  setTimeZone("EST5");
  ASLMessage message;
  EXPECT_EQ(syslogLine(2, message, "text", kMoment), "<10>Nov  1 07:34:01 " + program() + ": text");
  message.set("PLVSource.line", "1");
  message.set("Key =]", "quote\" back\\ bracket] line\nend\x7F");
  message.set("PLVSource.line", "17\0rest"s);
  EXPECT_EQ(syslogLine(5, message, "a\tb\nc\0d \xC3\xA9"s, kMoment),
            "<13>Nov  1 07:34:01 " + program() +
                ": a#011b#012c#000d \xC3\xA9 [PLV PLVSource.line=\"17\" "
                "Key___=\"quote\\\" back\\\\ bracket\\] line#012end#177\"]");
}

TEST(SyslogProtocol, NamesTheHostAndTheLevelOnStandardError) {
  setTimeZone("UTC0");
  std::array<char, 256> host{};
  ASSERT_EQ(::gethostname(host.data(), host.size() - 1), 0);
  std::string name = host.data();
  name.resize(std::min(name.find('.'), name.size()));
  const std::pair<int, const char*> levels[] = {{2, "Critical"}, {3, "Error"}, {4, "Warning"}, {5, "Notice"}};
  for (const auto& [level, levelName] : levels) {
    EXPECT_EQ(standardErrorLine(level, "tab\tline\n\x1B[31m", kMoment),
              "Nov  1 12:34:01 " + name + " " + program() + " <" + levelName + ">: tab\tline#012#033[31m\n");
  }
}

TEST(ASLMessage, KeepsKeysInTheOrderOfTheirFirstSetting) {
  ASLMessage message;
  message.set("b", "1");
  message.set("a", "2");
  message.set("b", "3\0cut"s);
  EXPECT_EQ(message.entries(), (std::vector<ASLMessage::Entry>{{"b", "3"}, {"a", "2"}}));
  EXPECT_EQ(*message.find("b"), "3");
  EXPECT_EQ(message.find("c"), nullptr);
}

}  // namespace
}  // namespace qx::log
