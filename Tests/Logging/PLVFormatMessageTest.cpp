#include "Logging/PLVFormatMessage.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "Logging/MessageFormatter.h"
#include "Logging/ValueDecoders.h"

namespace {

using qx::log::Argument;
using Arguments = std::vector<Argument>;
using Text = std::optional<std::string>;

struct Case {
  std::string_view format;
  Arguments arguments;
  Text text;
};

void check(const std::vector<Case>& cases) {
  for (const auto& [format, arguments, text] : cases)
    EXPECT_EQ(PLVFormatMessage(format, arguments), text) << format;
}

/// The text of one value.
template <typename... Values>
Text formatted(std::string_view format, const Values&... values) {
  return PLVFormatMessage(format, Arguments{Argument(values)...});
}

constexpr std::array<unsigned char, 16> kBytes = {0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02, 0x03, 0x04,
                                                  0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C};
constexpr std::string_view kUUID = "DEADBEEF-0102-0304-0506-0708090A0B0C";
constexpr auto kNone = std::nullopt;

TEST(FormatMessage, HidesTextsAndBytesUnlessTheyArePublic) {
  check({
      {"%@", {"secret"}, "<private>"},
      {"%s %S %.4P|", {"secret", u"secret", kBytes}, "<private> <private> <private>|"},
      {"%{public}@ %{public}s %{public}S", {"a", "b", u"ü€𝄞"}, "a b ü€𝄞"},
      {"%{public}@ %{public}s %{public}S", {nullptr, nullptr, nullptr}, "(null) (null) (null)"},
      {"%d %{private}d %{public}d", {1, 2, 3}, "1 <private> 3"},
      {"%{ public ,private}d %{private, public}d", {1, 2}, "<private> <private>"},
      {"%{private, errno}d %{private,errno,public}d", {2, 2}, "<private> [2: No such file or directory]"},
      {"%{}@ %{Public}@ %{}d %{nothing known}d", {"a", "b", 1, 2}, "<private> <private> 1 2"},
      {"%s", {"its ) ends it"}, "<private> ends it)"},
      {"% s and %5-s", {"secret"}, "% s and <private>"},
      {"%5$%s % %s", {"secret"}, kNone},
      {"%5%s % %s", {"secret"}, "%5%s % <private>"},
      {"no conversion, 100%%", {"left over"}, "no conversion, 100%"},
      {"", {}, ""},
  });
}

TEST(FormatMessage, DecodesAnnotatedValues) {
  check({
      {"%{errno}d %{darwin.errno}d", {2, 13}, "[2: No such file or directory] [13: Permission denied]"},
      {"%{errno}d %{errno}5d", {-1, 2}, "[-1: Unknown error -1] <unknown>"},
      {"%{errno}ld", {99999999999L}, "[2147483647: Unknown error 2147483647]"},
      {"%{bool}d %{bool}d %{BOOL}d %{BOOL}3d", {0, true, 3, 0}, "false true YES NO"},
      {"%{bool,public}s %{public BOOL}@", {"maybe", ""}, "<unknown> <unknown>"},
      {"%{public,uuid_t}.16P", {kBytes}, std::string(kUUID)},
      {"%{uuid_t}.16P %{public,uuid_t}.*P.", {kBytes, 16, kBytes}, "<private> " + std::string(kUUID) + "."},
      {"%{public}.4P, %{public}.1P", {kBytes, kBytes}, "'DE AD BE EF', 'DE'"},
      {"%{public}.*P %d", {2, kBytes, 7}, "'DE AD' 7"},
      {"%{public}*.*P %d", {8, 3, kBytes, 7}, "'DE AD BE' 7"},
      {"%{public}*.*P %d", {-8, 3, kBytes, 7}, "'DE AD BE' 7"},
      {"%2${public}.*1$P %1$d", {2, kBytes}, "'DE AD' 2"},
      {"%{public}P %{public}.0P %{public}.*P", {kBytes, kBytes, -1, kBytes}, "<unknown> <unknown> <unknown>"},
  });
}

TEST(FormatMessage, ReadsOnlyMemoryThatItsArgumentsVouchFor) {
  const auto address = reinterpret_cast<std::uintptr_t>(kBytes.data());
  std::array<char, 64> hostile{};
  std::snprintf(hostile.data(), hostile.size(), "0x%zx", address);
  const std::string marker = "__PLVLog__binary_data_2(" + std::string(hostile.data()) + ")";
  const void* bare = kBytes.data();
  const std::span<const std::byte> eight = std::as_bytes(std::span(kBytes)).first(8);
  check({
      {"%{public,uuid_t}@ %{public,uuid_t}s", {hostile.data(), "0x10"}, "<unknown> <unknown>"},
      {"%{public,uuid_t}@", {"ffffffffffffffff"}, "<unknown>"},
      {"%{public}.4P %{uuid_t}p", {bare, bare}, "<unknown> <unknown>"},
      {"%{public}.8P %{public}.9P %{public,uuid_t}P",
       {eight, eight, eight},
       "'DE AD BE EF 01 02 03 04' <unknown> <unknown>"},
      {"%{public}@%{private}d", {marker, 1}, "<unknown><private>"},
      {"%{public}@%{public}.3P", {marker, kBytes}, "'DE AD''DE AD BE'"},
      {"%{public}.2P", {nullptr}, "<unknown>"},
  });
}

TEST(ReadableMemory, FindsTheRangeThatHoldsAllBytes) {
  const auto all = std::as_bytes(std::span(kBytes));
  const auto start = reinterpret_cast<std::uintptr_t>(all.data());
  qx::log::ReadableMemory memory;
  EXPECT_FALSE(memory.at(start, 1));
  for (const auto& [offset, length] : {std::pair{3, 1}, {4, 4}, {2, 4}, {2, 6}, {5, 2}, {10, 0}, {9, 3}})
    memory.add(all.subspan(offset, length));  // 2 to 7 and 9 to 11 in the end
  for (const auto& [offset, length, isReadable] : {std::tuple{2, 6, true},
                                                   {3, 3, true},
                                                   {5, 3, true},
                                                   {7, 1, true},
                                                   {9, 3, true},
                                                   {11, 1, true},
                                                   {1, 2, false},
                                                   {7, 3, false},
                                                   {8, 1, false},
                                                   {10, 3, false},
                                                   {12, 1, false},
                                                   {5, -1, false}}) {
    const auto found = memory.at(start + offset, static_cast<std::size_t>(length));
    EXPECT_EQ(found.has_value(), isReadable) << offset << ", " << length;
    EXPECT_TRUE(!found || found->data() == all.data() + offset) << offset << ", " << length;
  }
}

TEST(FormatMessage, TakesTheFirstMarkerThatTheFormatDoesNotContain) {
  check({
      {"__PLVLog__ %@", {"a"}, "__PLVLog__ <private>"},
      {"__PLVLog__ %{public}@ %@", {"__PLVLog__x(y)", "b"}, "__PLVLog__ __PLVLog__x(y) <private>"},
      {"__PLVLog____PLVLog1__PLVLog3__ %{public}@ %@",
       {"__PLVLog2__(y)", "b"},
       "__PLVLog____PLVLog1__PLVLog3__ <unknown> <private>"},
      {"__PLVLog__ __PLVLog01__ %{public}@ %@",
       {"__PLVLog1__private(y)", "b"},
       "__PLVLog__ __PLVLog01__ <private> <private>"},
      {"%{public}@",
       {"__PLVLog__ is text where no value is replaced"},
       "__PLVLog__ is text where no value is replaced"},
      {"%{public}@ %d %@", {"__PLVLog__", 1, "b"}, "<unknown>"},
      {"%@ %{public}@", {"b", "__PLVLog__"}, kNone},
      {"%@ %{public}@", {"b", "__PLVLog__private(c"}, kNone},
  });
}

TEST(FormatMessage, RefusesWhatIsNoFormat) {
  check({
      {"50%", {}, kNone},
      {"%5", {1}, kNone},
      {"%ll", {1}, kNone},
      {"%.", {1}, kNone},
      {"%{public", {nullptr}, kNone},
      {"%{public}", {1}, kNone},
      {"%{public}y", {1}, kNone},
      {"%{public}%", {1}, kNone},
      {"%{public}1$d", {1}, kNone},
      {"%{public}d 50%, %d", {1, 2}, kNone},
      {"%{public}d % d", {1, 2}, kNone},
      {"50%, %5% %y % d %d", {1, 2}, "50%, %5% %y  1 2"},
      {"100% sure % %d % 5d % +d", {1, 2, 3}, "100% sure % 1     2 +3"},
      {"%{public}d %n", {1, 2}, kNone},
      {"%n", {nullptr}, kNone},
      {"%d %d", {1}, kNone},
      {"%*d", {1}, kNone},
  });
}

TEST(FormatMessage, TakesArgumentsByTheirPositions) {
  check({
      {"%2$d %1${public}@ %2$d", {"a", 5}, "5 a 5"},
      {"%1$*2$.*3$f|%1$-*2$.0f|", {2.5, 6, 2}, "  2.50|2     |"},
      {"%{public}@ %d %%", {"a", 5}, "a 5 %"},
      {"%1$d %d", {1, 2}, kNone},
      {"%1$@ %@", {"a", "b"}, kNone},
      {"%1$d 50%, sure", {1}, kNone},
      {"%1$*d", {1, 2}, kNone},
      {"%1$.*d", {1, 2}, kNone},
      {"%d %1$d", {1, 2}, kNone},
      {"%0$d", {1}, kNone},
      {"%2$d", {1}, kNone},
      {"%99999999999999999999$d", {1}, kNone},
  });
}

TEST(FormatMessage, LaysOutEachKindOfValue) {
  check({
      {"[%{public}5s|%{public}-5s|%{public}.2s]", {"ab", "ab", "abc"}, "[   ab|ab   |ab]"},
      {"[%{public}.3s|%{public}5s|%{public}.2@|%{public}.3@]", {"ü€", "ü€", "a𝄞", "a𝄞"}, "[ü|ü€|a|a𝄞]"},
      {"[%{public}.2S|%{public}4S|%{public}.0S]", {u"a𝄞", u"𝄞", u"a"}, "[a|  𝄞|]"},
      {"%{public}s %{public}S",
       {"a\xC3 \xED\xA0\x80", u"\xD800x\xDC00\xDC00"},
       "a\uFFFD \uFFFD \uFFFDx\uFFFD\uFFFD"},
      {"[%c%c|%3c|%-3C|%C%C]", {'a', '\xFC', 'b', 0x20AC, 0xD800, 0x110000}, "[aü|  b|€  |\uFFFD\uFFFD]"},
      {"%p %8p| %-4p|", {nullptr, reinterpret_cast<void*>(0x1f), nullptr}, "0x0     0x1f| 0x0 |"},
      {"[%*d|%-*d|%*d|%.*d|%.*f]", {4, 1, 3, 2, -3, 3, 3, 4, -1, 0.5}, "[   1|2  |3  |004|0.500000]"},
      {"%05d %-05d| %+.2e %#x %#o", {42, 42, 1234.5, 255, 8U}, "00042 42   | +1.23e+03 0xff 010"},
      {"%hd %hhd %hhu %hx", {70000, 200, -1, -1}, "4464 -56 255 ffff"},
      {"%u %lu %llx %zd",
       {-1, -1, -1, 4294967295U},
       "4294967295 18446744073709551615 ffffffffffffffff 4294967295"},
      {"%d %ld %jd", {4294967295U, 1U, true}, "-1 1 1"},
      {"%{public}.*s", {-1, "whole"}, "whole"},
      {"%{public}@", {qx::Value(qx::Array{1, "b"})}, qx::Value(qx::Array{1, "b"}).description()},
      {"%{public}@", {qx::Error::make("D", 4)}, qx::Error::make("D", 4)->summary()},
  });
}

TEST(FormatMessage, RefusesAnArgumentOfAnotherKind) {
  enum Unscoped { first, second };
  const Argument text = "a", utf16 = u"a", real = 1.0, small = 1, large = 1L, unscoped = second,
                 none = nullptr, bytes = kBytes, address = static_cast<const void*>(kBytes.data());
  const std::vector<Argument> all = {text, utf16, real, small, large, unscoped, none, bytes, address};
  // Which of them, in that order, a conversion takes.
  for (const auto& [conversion, taken] :
       std::initializer_list<std::pair<std::string, std::string>>{{"d", "...x.x..."},
                                                                  {"hhu", "...x.x..."},
                                                                  {"lx", "...xxx..."},
                                                                  {"zd", "...xxx..."},
                                                                  {"Lo", "...xxx..."},
                                                                  {"f", "..x......"},
                                                                  {"LA", "..x......"},
                                                                  {"c", "...x.x..."},
                                                                  {"C", "...x.x..."},
                                                                  {"s", "x.....x.."},
                                                                  {"@", "x.....x.."},
                                                                  {"S", ".x....x.."},
                                                                  {".1P", "......xxx"},
                                                                  {"p", "......xxx"},
                                                                  {"n", "........."}}) {
    std::string found;
    for (const Argument& argument : all)
      found += PLVFormatMessage("%{public}" + conversion, Arguments{argument}) ? 'x' : '.';
    EXPECT_EQ(found, taken) << conversion;
    const bool takesInt = PLVFormatMessage("%{private}" + conversion, Arguments{small}).has_value();
    EXPECT_EQ(takesInt, taken[3] == 'x') << conversion;
  }
  EXPECT_EQ(formatted("%*d", 5L, 1), kNone);
  EXPECT_EQ(formatted("%.*f", 2.0, 1.0), kNone);
}

TEST(FormatMessage, StaysSmallWhateverItsFormatAsksFor) {
  constexpr std::size_t kWidest = qx::log::kWidestField;
  for (const auto* format : {"%99999d", "%-2147483648d", "%.99999999999d", "%99999999999999999999d"})
    EXPECT_EQ(formatted(format, 1).value().size(), kWidest) << format;
  for (const int width : {std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
    EXPECT_EQ(formatted("%*d", width, 1).value().size(), kWidest) << width;
  EXPECT_LE(formatted("%'.99999f", std::numeric_limits<double>::max()).value().size(), 2 * kWidest);

  std::string wide, markers;
  for (int i = 0; i < 1000; ++i) {
    wide += "%1$4000d";
    markers += "%1${public}.16000P";
  }
  EXPECT_EQ(formatted(wide, 1), kNone);
  const std::vector<std::byte> bytes(16000);
  EXPECT_EQ(formatted(markers, std::span<const std::byte>(bytes)), kNone);
  const std::string longest(qx::log::kLongestMessage, 'a');
  EXPECT_EQ(formatted("%{public}@", longest), longest);
  for (const auto* format : {"%{public}@.", "%{public}s%5d", "%{public}.2000000s ", "%{public}.1048560s%20c"})
    EXPECT_EQ(formatted(format, longest, 1), kNone) << format;
  EXPECT_EQ(formatted("%{public}.2s", longest + longest), "aa");
}

TEST(FormatMessage, ShowsNumbersAsTheCLibraryDoes) {
  std::mt19937_64 random(20240229);
  const auto below = [&random](std::size_t bound) { return random() % bound; };
  for (int round = 0; round < 5000; ++round) {
    std::string layout = "%";
    for (const char flag : std::string_view("-+0 ")) {
      if (below(4) == 0) layout += flag;
    }
    if (below(2) == 0) layout += std::to_string(1 + below(30));
    if (below(2) == 0) layout += '.' + (below(4) == 0 ? "" : std::to_string(below(20)));
    const std::uint64_t bits = random() >> below(64);
    const auto compare = [&](std::string_view length, std::string_view conversions, auto number) {
      const std::string format = layout + std::string(length) + conversions[below(conversions.size())];
      std::array<char, 512> expected{};
      std::snprintf(expected.data(), expected.size(), format.c_str(), number);
      ASSERT_EQ(formatted(format, number), expected.data()) << format;
    };
    compare("", "diuoxX", static_cast<int>(bits));
    compare("h", "diuoxX", static_cast<int>(bits));
    compare("hh", "diuoxX", static_cast<unsigned>(bits));
    compare("l", "diuoxX", static_cast<long>(bits));
    compare("ll", "diuoxX", ~0ULL - bits);
    double real = 0;
    std::memcpy(&real, &bits, sizeof(real));
    compare("", "fFeEgGaA", below(2) == 0 ? real : static_cast<double>(bits) / 1024);
  }
}

}  // namespace
