#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Table.h"
#include "Text.h"

namespace qxevents {
namespace {

TEST(Text, ShowsWhatATerminalMustNotReceive) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Étage 3 – 打印", "Étage 3 – 打印"},
      {"\x1B[31m", "\\u001B[31m"},
      {"a\tb\r\nc", "a\\tb\\r\\nc"},
      {std::string("a\0b", 3), "a\\u0000b"},
      {"\x7F\xC2\x9B", "\\u007F\\u009B"},
      {"\xE2\x80\xAEtxt", "\\u202Etxt"},
      {"\xE2\x80\xA8", "\\u2028"},
      {"\xF3\xA0\x81\x81", "\\u{E0041}"},
      {"\xC3(\xED\xA0\xBD", "\\xC3(\\xED\\xA0\\xBD"},
      {"👩\xE2\x80\x8D🔬", "👩\xE2\x80\x8D🔬"},
  };
  for (const auto& [text, expected] : cases)
    EXPECT_EQ(printable(text), expected);
}

TEST(Text, CountsColumnsNotBytes) {
  EXPECT_EQ(displayWidth("abc"), 3U);
  EXPECT_EQ(displayWidth("é"), 1U);
  EXPECT_EQ(displayWidth("e\xCC\x81"), 1U);
  EXPECT_EQ(displayWidth("打印"), 4U);
  EXPECT_EQ(displayWidth("🔬"), 2U);
  EXPECT_EQ(displayWidth("\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB"),
            2U);  // one Korean syllable in three letters
}

TEST(Text, CutsBetweenCharactersAtEitherEnd) {
  EXPECT_EQ(fitted("abc", 3), "abc");
  EXPECT_EQ(fitted("abcd", 3), "ab…");
  EXPECT_EQ(fitted("abcd", 3, Cut::start), "…cd");
  EXPECT_EQ(fitted("打印中", 4), "打…");
  EXPECT_EQ(fitted("打印中", 4, Cut::start), "…中");
  EXPECT_EQ(fitted("abe\xCC\x81x", 2, Cut::start), "…x");
  EXPECT_EQ(fitted("abcd", 0), "");
  EXPECT_LE(displayWidth(excerpt(std::string(100000, 'x'))), 60U);
}

TEST(Base64, ReadsBackWhatItWritesAndNothingElse) {
  const std::vector<std::pair<std::string, std::string>> vectors = {
      // RFC 4648, section 10
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xFB\xFF", "+/8="}};
  for (const auto& [bytes, text] : vectors) {
    EXPECT_EQ(base64(bytes), text);
    EXPECT_EQ(bytesFromBase64(text), bytes);
  }
  for (const auto* text :
       {"Zg", "Zg=", "Zg===", "Zh==", "Z===", "====", "Zm 9", "Zm9v\n", "-_8=", "Zg==Zg=="}) {
    EXPECT_FALSE(bytesFromBase64(text)) << text;
  }
}

TEST(UUID, KnowsItsCanonicalForm) {
  EXPECT_TRUE(isUUID("D9C35628-AE8B-4666-B5DC-E0F2F92E0099"));
  EXPECT_TRUE(isUUID("d9c35628-ae8b-4666-b5dc-e0f2f92e0099"));
  for (const auto* text :
       {"", "event-4711", "D9C35628AE8B4666B5DCE0F2F92E0099", "{D9C35628-AE8B-4666-B5DC-E0F2F92E0}",
        "G9C35628-AE8B-4666-B5DC-E0F2F92E0099", "D9C35628-AE8B-4666-B5DC-E0F2F92E00999"}) {
    EXPECT_FALSE(isUUID(text)) << text;
  }
}

TEST(Table, FitsTheTerminalByCuttingColumnsInTheirOrder) {
  Table table({{"ID", 4, 2}, {"NAME", 3, 1, Cut::start}, {"N", 0, 0, Cut::end, true}});
  table.addRow({"identifier", "打印 name", "7"}, "31");
  table.addRow({"x", "\x1B[2J", "123"});
  const auto printed = [&table](std::size_t width, bool colored) {
    testing::internal::CaptureStdout();
    Output output;
    table.print(output, width, colored);
    EXPECT_EQ(output.finish(), kDone);
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ(printed(0, false),
            "ID          NAME         N\n"
            "identifier  打印 name    7\n"
            "x           \\u001B[2J  123\n");
  EXPECT_EQ(printed(20, false),
            "ID          NA…    N\n"
            "identifier  …me    7\n"
            "x           …2J  123\n");
  EXPECT_EQ(printed(5, true), "\x1b[1mID  …\x1b[0m\n\x1b[31mide……\x1b[0m\nx   …\n");
}

}  // namespace
}  // namespace qxevents
