#include <cmath>
#include <limits>
#include <set>

#include <gtest/gtest.h>

#include <Platform/UUID.h>
#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Value.h>

namespace {

using namespace std::string_literals;
using qx::Array;
using qx::Data;
using qx::Date;
using qx::Dictionary;
using qx::Value;

constexpr auto kInt64Min = std::numeric_limits<std::int64_t>::min();
constexpr auto kInt64Max = std::numeric_limits<std::int64_t>::max();
constexpr auto kUInt64Max = std::numeric_limits<std::uint64_t>::max();
constexpr double kTwoTo53 = 9007199254740992.0;
constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::partial_ordering opposite(std::partial_ordering order) {
  if (std::is_lt(order)) return std::partial_ordering::greater;
  return std::is_gt(order) ? std::partial_ordering::less : order;
}

TEST(Value, ComparesNumbersByValueWhateverTheirKind) {
  const auto less = std::partial_ordering::less;
  const auto equal = std::partial_ordering::equivalent;
  const auto unordered = std::partial_ordering::unordered;
  const struct {
    Value a, b;
    std::partial_ordering order;
  } cases[] = {
      {true, 1, equal},
      {true, 1.0, equal},
      {false, -0.0, equal},
      {1, 1.5, less},
      {-1.5, -1, less},
      {kTwoTo53, 9007199254740993, less},  // a double cannot tell them apart
      {kInt64Max, kTwoTo63, less},
      {kInt64Min, -kTwoTo63, equal},
      {kInt64Max, std::uint64_t{1} << 63U, less},
      {std::uint64_t{1} << 63U, kTwoTo63, equal},
      {kUInt64Max, 2 * kTwoTo63, less},
      {-1, kUInt64Max, less},
      {-0.5, kUInt64Max, less},
      {kUInt64Max, kInfinity, less},
      {-kInfinity, kInt64Min, less},
      {std::nan(""), 0, unordered},
      {std::nan(""), std::nan(""), unordered},
      {"1", 1, unordered},
      {nullptr, 0, unordered},
  };
  for (const auto& [a, b, order] : cases) {
    EXPECT_TRUE(qx::compareNumbers(a, b) == order) << a.description() << " and " << b.description();
    EXPECT_TRUE(qx::compareNumbers(b, a) == opposite(order)) << b.description() << " and " << a.description();
    EXPECT_EQ(a == b, order == equal) << a.description() << " and " << b.description();
  }
}

TEST(Value, EqualsByContentAndKind) {
  EXPECT_EQ(Value(Array{1, true, "x"}), Value(Array{1.0, 1, "x"}));
  EXPECT_EQ(Value(Data("a\0b"s)), Value(Data("a\0b"s)));
  EXPECT_EQ(Value(), Value(nullptr));
  EXPECT_EQ(Value(qx::String()), Value());
  EXPECT_NE(Value(Date{1}), Value(1));
  EXPECT_NE(Value(Data("a")), Value("a"));
  EXPECT_NE(Value(Array{}), Value(Dictionary{}));
  EXPECT_EQ(Value(std::uint64_t{7}).kind(), Value::Kind::integer);
  EXPECT_EQ(Value(kUInt64Max).kind(), Value::Kind::unsignedInteger);
}

TEST(Value, ReadsAnyNumberAsAnInteger) {
  const struct {
    Value value;
    std::int64_t integer;
  } cases[] = {
      {true, 1},
      {-2.9, -2},
      {1e300, kInt64Max},
      {-1e300, kInt64Min},
      {std::nan(""), 0},
      {kUInt64Max, kInt64Max},
      {"42", 42},
      {" \t-7 pages", -7},
      {"+5", 5},
      {"- 5", 0},
      {"+-5", 0},
      {"x1", 0},
      {"", 0},
      {"9223372036854775807", kInt64Max},
      {"9223372036854775808", kInt64Max},
      {"-9223372036854775808", kInt64Min},
      {"-99999999999999999999999", kInt64Min},
      {Date{5}, 0},
      {Array{1}, 0},
      {nullptr, 0},
  };
  for (const auto& [value, integer] : cases)
    EXPECT_EQ(value.integerValue(), integer) << value.description();
  EXPECT_EQ(Value(kUInt64Max).doubleValue(), 2 * kTwoTo63);
  EXPECT_TRUE(Value(0.1).boolValue());
  EXPECT_FALSE(Value("1").boolValue());
}

TEST(Value, PrintsItselfAsAnOldStylePropertyList) {
  const Value value = Dictionary{
      {"Event: Color", "Cyan"},
      {"a", Array{1, true, 1.5, nullptr, Array{}}},
      {"b", Dictionary{{"date", Date{0}}, {"data", Data("\x01\xAB")}, {"text", "say \"hi\"\n"}}},
      {"c", ""},
  };
  EXPECT_EQ(value.description(),
            "{\n"
            "    \"Event: Color\" = Cyan;\n"
            "    a = (\n"
            "        1,\n"
            "        1,\n"
            "        1.5,\n"
            "        <null>,\n"
            "        (\n"
            "        )\n"
            "    );\n"
            "    b = {\n"
            "        data = <01ab>;\n"
            "        date = 2001-01-01 00:00:00 +0000;\n"
            "        text = \"say \\\"hi\\\"\\n\";\n"
            "    };\n"
            "    c = \"\";\n"
            "}");
  Value deep = 1;
  for (int i = 0; i < 500; ++i)
    deep = Array{std::move(deep)};
  EXPECT_LT(deep.description().size(), 8000U);
}

TEST(Dictionary, KeepsItsEntriesInKeyOrder) {
  Dictionary dictionary{{"b", 1}, {"a", 2}, {"b", 3}, {"\xC3\xA9", 4}, {"Z", 5}};
  dictionary.set("c", 6);
  dictionary["aa"] = 7;
  dictionary["a"] = 8;
  std::string walked;
  for (const auto& [key, value] : dictionary)
    walked += key + std::to_string(value.integerValue()) + ' ';
  EXPECT_EQ(walked,
            "Z5 a8 aa7 b3 c6 \xC3\xA9"
            "4 ");
}

TEST(Dictionary, MergesByReplacingAndAdding) {
  Dictionary dictionary{{"a", 1}, {"c", 1}, {"e", 1}};
  const Dictionary other{{"", 2}, {"b", 2}, {"c", 2}, {"f", 2}};
  dictionary.merge(other);
  EXPECT_EQ(dictionary, (Dictionary{{"", 2}, {"a", 1}, {"b", 2}, {"c", 2}, {"e", 1}, {"f", 2}}));
  dictionary.merge(dictionary);
  EXPECT_EQ(dictionary.size(), 6U);
  Dictionary empty;
  empty.merge(other);
  EXPECT_EQ(empty, other);
}

TEST(Dictionary, FindsAndErases) {
  Dictionary dictionary{{"a", 1}, {"b", nullptr}};
  EXPECT_TRUE(dictionary.contains("b"));
  EXPECT_EQ(dictionary.find("ab"), nullptr);
  EXPECT_EQ(dictionary.find("c"), nullptr);
  EXPECT_FALSE(dictionary.erase("c"));
  EXPECT_TRUE(dictionary.erase("a"));
  EXPECT_EQ(dictionary, (Dictionary{{"b", nullptr}}));
  dictionary.clear();
  EXPECT_TRUE(dictionary.empty());
}

TEST(UTF8, IsValidOnlyWhenWellFormed) {
  for (const auto& text :
       {""s, "plain ASCII, long enough for words"s, "\0"s, "\x7F"s, "\xC2\x80"s, "\xDF\xBF"s, "\xE0\xA0\x80"s,
        "\xED\x9F\xBF"s, "\xEE\x80\x80"s, "\xEF\xBF\xBF"s, "\xF0\x90\x80\x80"s, "\xF4\x8F\xBF\xBF"s}) {
    EXPECT_TRUE(qx::isValidUTF8(text)) << Value(Data(text)).description();
  }
  for (const auto& text :
       {"\x80"s, "\xBF"s, "\xC0\x80"s, "\xC1\xBF"s, "\xC2"s, "\xC2\x41"s, "\xE0\x9F\xBF"s, "\xE2\x82"s,
        "\xED\xA0\x80"s, "\xED\xBF\xBF"s, "\xF0\x8F\xBF\xBF"s, "\xF4\x90\x80\x80"s, "\xF5\x80\x80\x80"s,
        "\xF0\x90\x80"s, "\xFF"s, "plain ASCII, then\xFE"s, "\xFE plain ASCII after it"s}) {
    EXPECT_FALSE(qx::isValidUTF8(text)) << Value(Data(text)).description();
  }
}

TEST(Date, ReadsRFC3339) {
  const struct {
    std::string_view text;
    double seconds;
  } cases[] = {
      {"2001-01-01T00:00:00Z", 0},
      {"2001-01-01t00:00:00z", 0},
      {"2001-01-01T00:00:00.25Z", 0.25},
      {"2000-12-31T23:59:59.5Z", -0.5},
      {"2001-01-01T02:30:00+02:30", 0},
      {"2000-12-31T23:00:00-01:00", 0},
      {"2000-12-31T16:00:00-08:00", 0},
      {"1970-01-01T00:00:00-00:00", -Date::kReferenceDateSince1970},
      {"2026-11-02T05:23:26.387Z", 815289806.387},
      {"2024-02-29T00:00:00Z", 730857600},
      {"2000-02-29T00:00:00Z", -26524800},
      {"2016-12-31T23:59:60Z", 504921600},
      {"2016-12-31T15:59:60.5-08:00", 504921600.5},
      {"0001-01-01T00:00:00Z", -63113904000},
      {"9999-12-31T23:59:59Z", 252423993599},
      {"2001-01-01T00:00:00.0000000000000000000000000000000000001Z", 0},
  };
  for (const auto& [text, seconds] : cases) {
    const auto date = Date::fromRFC3339(text);
    ASSERT_TRUE(date) << text;
    EXPECT_NEAR(date->secondsSinceReferenceDate, seconds, 1e-7) << text;
  }
}

TEST(Date, RefusesWhatIsNotRFC3339) {
  for (const std::string_view text : {"",
                                      "2001",
                                      "2001-01-01",
                                      "2001-01-01T00:00:00",
                                      "2001-01-01 00:00:00Z",
                                      "2001-02-30T00:00:00Z",
                                      "2001-02-29T00:00:00Z",
                                      "1900-02-29T00:00:00Z",
                                      "2001-13-01T00:00:00Z",
                                      "2001-00-01T00:00:00Z",
                                      "2001-01-00T00:00:00Z",
                                      "2001-04-31T00:00:00Z",
                                      "2001-01-01T24:00:00Z",
                                      "2001-01-01T00:60:00Z",
                                      "2001-01-01T00:00:61Z",
                                      "2001-01-01T12:30:60Z",
                                      "12001-01-01T00:00:00Z",
                                      "0000-01-01T00:00:00Z",
                                      "-001-01-01T00:00:00Z",
                                      "2001-1-1T00:00:00Z",
                                      "2001-01-01T00:00Z",
                                      "2001-01-01T00:00:00.Z",
                                      "2001-01-01T00:00:00,5Z",
                                      "2001-01-01T00:00:00+0100",
                                      "2001-01-01T00:00:00+24:00",
                                      "2001-01-01T00:00:00+01:60",
                                      "2001-01-01T00:00:00Z ",
                                      "2001-01-01T00:00:00ZZ",
                                      " 2001-01-01T00:00:00Z",
                                      "2001-01-01T00:00:00.1e5Z",
                                      "0001-01-01T00:00:00+01:00",
                                      "9999-12-31T23:59:59-01:00",
                                      "+001-01-01T00:00:00Z"}) {
    EXPECT_FALSE(Date::fromRFC3339(text)) << text;
  }
}

TEST(Date, PrintsToTheMillisecondAndReadsThatBack) {
  const struct {
    double seconds;
    std::string_view text;
  } cases[] = {
      {0, "2001-01-01T00:00:00.000Z"},
      {-0.0004, "2001-01-01T00:00:00.000Z"},
      {-0.001, "2000-12-31T23:59:59.999Z"},
      {86399.9996, "2001-01-02T00:00:00.000Z"},
      {815289806.387, "2026-11-02T05:23:26.387Z"},
      {-63113904000, "0001-01-01T00:00:00.000Z"},
      {252423993599.9999, "9999-12-31T23:59:59.999Z"},  // nothing to be rounded up to
      {1e300, "seconds since 2001: 1e+300"},
      {-kInfinity, "seconds since 2001: -inf"},
      {std::nan(""), "seconds since 2001: nan"},
  };
  for (const auto& [seconds, text] : cases)
    EXPECT_EQ(Date{seconds}.toRFC3339(), text);
  for (int millisecond = 0; millisecond < 1000; ++millisecond) {
    const std::string text = "2026-11-02T05:23:26." + std::to_string(1000 + millisecond).substr(1) + "Z";
    EXPECT_EQ(Date::fromRFC3339(text)->toRFC3339(), text);
  }
  EXPECT_EQ(Date{815289806.987}.description(), "2026-11-02 05:23:26 +0000");
  EXPECT_EQ(Date{1e12}.description(), "seconds since 2001: 1e+12");
  EXPECT_GT(Date::now(), *Date::fromRFC3339("2024-01-01T00:00:00Z"));
}

TEST(Error, CarriesItsDetailsIntoItsUserInfo) {
  qx::Error::Details details;
  details.description = "The disk is full.";
  details.suggestion = "Free some space.";
  details.recoveryOptions = {"Try Again", "Cancel"};
  details.underlying = qx::Error::make(qx::kPOSIXErrorDomain, 28, "No space left on device");
  const auto error = qx::Error::make("Domain", -993, details);
  EXPECT_EQ(error->summary(), "Error Domain=Domain Code=-993 \"The disk is full.\"");
  EXPECT_EQ(error->userInfo(),
            (Dictionary{{"NSLocalizedDescription", "The disk is full."},
                        {"NSLocalizedRecoverySuggestion", "Free some space."},
                        {"NSLocalizedRecoveryOptions", Array{"Try Again", "Cancel"}},
                        {"NSUnderlyingError",
                         "Error Domain=NSPOSIXErrorDomain Code=28 \"No space left on device\""}}));
  const auto bare = qx::Error::make("Domain", 7);
  EXPECT_EQ(bare->localizedDescription(), "The operation could not be completed. (Domain error 7.)");
  EXPECT_TRUE(bare->userInfo().empty());
}

TEST(UUID, IsNewEachTimeAndInCanonicalForm) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string uuid = qx::makeUUID();
    EXPECT_TRUE(qx::isUUID(uuid)) << uuid;
    EXPECT_EQ(uuid.find_first_of("abcdef"), std::string::npos) << uuid;
    EXPECT_EQ(uuid[14], '4') << uuid;
    EXPECT_NE(std::string_view("89AB").find(uuid[19]), std::string_view::npos) << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 1000U);
}

TEST(UUID, IsRecognisedInEitherCaseOnly) {
  EXPECT_TRUE(qx::isUUID("6b1f0e52-a3c7-4d0b-9c35-5de84772f19a"));
  for (const auto& text :
       {""s, "6b1f0e52a3c74d0b9c355de84772f19a"s, "{6b1f0e52-a3c7-4d0b-9c35-5de84772f19a}"s,
        "6b1f0e52-a3c7-4d0b-9c35-5de84772f19g"s, "6b1f0e52-a3c7-4d0b-9c355-de84772f19a"s,
        "6b1f0e52-a3c7-4d0b-9c35-5de84772f19"s, "6b1f0e52-a3c7-4d0b-9c35-5de84772f1\0a"s}) {
    EXPECT_FALSE(qx::isUUID(text)) << text;
  }
}

TEST(UUID, OfANameDependsOnTheNameAlone) {
  const std::string bytes = qx::nameUUIDBytes("device");
  EXPECT_EQ(bytes.size(), 16U);
  EXPECT_EQ(bytes, qx::nameUUIDBytes("device"));
  EXPECT_NE(bytes, qx::nameUUIDBytes("devicf"));
  EXPECT_NE(qx::nameUUIDBytes(""), qx::nameUUIDBytes("\0"s));
  EXPECT_EQ(static_cast<unsigned char>(bytes[6]) >> 4U, 5U);
}

}  // namespace
