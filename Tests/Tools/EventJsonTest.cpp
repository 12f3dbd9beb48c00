#include <cmath>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "EventJson.h"
#include "JsonReader.h"

namespace qxevents {
namespace {

std::vector<std::string> linesOf(const char* path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);)
    lines.push_back(line);
  return lines;
}

std::string refusalOf(std::string_view line) {
  std::string refusal;
  return decodeEvent(line, refusal) ? "accepted" : refusal;
}

/// A line with `info` as its information.
std::string lineWith(const std::string& info) {
  return R"({"class":"c","handler":"h","triggerTime":"2026-11-02T00:00:00Z","source":{"id":"s","name":"n"},"info":)" +
         info + "}";
}

std::string encoded(const qx::Dictionary& info) {
  std::string json;
  encodeInfo(json, info);
  return json;
}

TEST(EventDecoder, RefusesEveryBadLineNamingItsPlace) {
  // What each line of the file must be told; nothing where the line is good by itself.
  const std::vector<std::string> expected = {"in info: ",
                                             "broken JSON",
                                             "broken JSON",
                                             "expected end of input",
                                             "must be a JSON object",
                                             "class: missing",
                                             "accepted",
                                             "triggerTime: missing",
                                             "source: missing",
                                             "source.name: missing",
                                             "class: must not be empty",
                                             "source.id: must not be empty",
                                             "id: must not be empty",
                                             "id: \"event-4711\"",
                                             "accepted",
                                             "source: must be an object",
                                             "severity: must be an integer",
                                             "severity: must be an integer",
                                             "severity: 9223372036854775808 does not fit",
                                             "in severity",
                                             "totalStates: -1 is outside",
                                             "state: the number 1e999 is too large",
                                             "read: must be true or false",
                                             "info: must be an object",
                                             "info, Event: Supply Part Number List, Cyan: null",
                                             "in info, Event: New Value",
                                             "triggerTime: \"2026-13-40",
                                             "triggerTime: \"2026-02-30",
                                             "triggerTime: \"+99999",
                                             "triggerTime: must be a string",
                                             "triggerTime: \"2026-11-16T08:31:00.000\"",
                                             "in source.name: invalid string: ill-formed UTF-8",
                                             "in source.name: invalid string: ill-formed UTF-8",
                                             "in info, Event: Input Bin: invalid string: surrogate",
                                             "source.name: holds a null character",
                                             "null byte at byte",
                                             "unknown members colour, source.serialNumber",
                                             "missing closing quote"};
  const auto lines = linesOf(QX_BAD_EVENTS);
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_NE(refusalOf(lines[i]).find(expected[i]), std::string::npos)
        << i + 1 << ": " << refusalOf(lines[i]);
  }
}

TEST(EventDecoder, RefusesWhatNoFileShows) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "broken JSON"},
      {"null", "null cannot be stored"},
      {"\xEF\xBB\xBF{}", "byte order mark"},
      {lineWith("{}") + std::string(1, '\0'), "null byte"},
      {lineWith(R"({"a":1,"b":2,"a":3})"), "info, a: given twice"},
      {R"({"class":"a","class":"b"})", "class: given twice"},
      {lineWith(R"({"a":{"":[1,null]}})"), "info, a, \"\"[1]: null"},
      {lineWith(R"({"a":18446744073709551616})"), "info, a: the integer 18446744073709551616 does not fit"},
      {lineWith(R"({"a":-9223372036854775809})"), "info, a: the integer -9223372036854775809 does not fit"},
      {lineWith(R"({"a":1e400})"), "info, a: the number 1e400 is too large"},
      {lineWith(R"({"a":{"$date":"2026-11-02"}})"), "info, a: \"2026-11-02\" is not"},
      {lineWith(R"({"a":{"$date":1}})"), "info, a: the value of \"$date\""},
      {lineWith(R"({"a":{"$data":"AB=="}})"), "info, a: the value of \"$data\""},
      {lineWith(R"({"a":{"$real":"1"}})"), "info, a: the value of \"$real\""},
      {lineWith("{\"a\":" + std::string(99, '[')), "more than 100 levels deep"},
      {R"({"severity":-0,)" + lineWith("{}").substr(1), "severity: must be an integer"},
      {R"({"severity":1.0,)" + lineWith("{}").substr(1), "severity: must be an integer"},
      {R"({"state":2147483648,)" + lineWith("{}").substr(1), "state: 2147483648 is outside"},
      {R"({"handler":"",)" + lineWith("{}").substr(1), "handler: given twice"},
      {"{\"a\\u001b[31m\":1,\"source\":{}}", "unknown member a\\u001B[31m"},
  };
  for (const auto& [line, expected] : cases) {
    EXPECT_NE(refusalOf(line).find(expected), std::string::npos) << line << ": " << refusalOf(line);
  }
}

TEST(EventDecoder, StopsAtDepthWithoutReadingOn) {
  const auto deep = lineWith("{\"a\":" + std::string(100000, '['));
  EXPECT_NE(refusalOf(deep).find("more than 100 levels"), std::string::npos);
  const auto allowed = "{\"a\":" + std::string(98, '[') + std::string(98, ']') + "}";
  EXPECT_EQ(refusalOf(lineWith(allowed)), "accepted");
}

TEST(EventDecoder, TakesLimitsAndOptionalMembers) {
  std::string refusal;
  const auto record = decodeEvent(
      R"({"severity":-9223372036854775808,"state":2147483647,"totalStates":4294967295,"solved":1,"blocked":"x",)"
      R"("version":{},"class":"c","triggerTime":"2026-11-02T01:00:00.5+01:00","source":{"id":"s","name":"n",)"
      R"("serviceID":""}})",
      refusal);
  ASSERT_TRUE(record) << refusal;
  EXPECT_EQ(record->severity, std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(record->state, kMaximumState);
  EXPECT_EQ(record->totalStates, kMaximumTotalStates);
  EXPECT_EQ(record->triggerTime.toRFC3339(), "2026-11-02T00:00:00.500Z");
  EXPECT_EQ(record->source.serviceID, "");
  EXPECT_FALSE(record->source.alternateName);
  EXPECT_TRUE(record->handler.empty());
  EXPECT_FALSE(record->read);
}

TEST(InfoJson, ReadsBackEveryKindOfValue) {
  using qx::Dictionary;
  const auto infinity = std::numeric_limits<double>::infinity();
  const auto mark = [](const char* key, qx::Value value) { return Dictionary{{key, std::move(value)}}; };
  const std::vector<std::pair<qx::Value, std::string>> cases = {
      {true, "true"},
      {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
      {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
      {1.0, "1.0"},
      {-0.0, "-0.0"},
      {0.1, "0.1"},
      {1e22, "1e+22"},
      {5e-324, "5e-324"},
      {infinity, R"({"$real":"inf"})"},
      {-infinity, R"({"$real":"-inf"})"},
      {qx::Date{1.5}, R"({"$date":"2001-01-01T00:00:01.500Z"})"},
      {qx::Date{1e20}, R"({"$date":"seconds since 2001: 1e+20"})"},
      {qx::Data(std::string("\0\xFF", 2)), R"({"$data":"AP8="})"},
      {qx::Data(), R"({"$data":""})"},
      {"", R"("")"},
      {std::string("\0\t\x7F\xC2\x85\xE2\x80\xA8\"\\é", 12), R"("\u0000\t\u007f\u0085\u2028\"\\é")"},
      {qx::Array{}, "[]"},
      {qx::Array{1, Dictionary{}}, "[1,{}]"},
      {Dictionary{{"", 1}, {"a", 2}}, R"({"":1,"a":2})"},
      {mark("$date", "x"), R"({"$$date":"x"})"},
      {mark("$$date", "x"), R"({"$$$date":"x"})"},
      {mark("$data", mark("$real", "nan")), R"({"$$data":{"$$real":"nan"}})"},
      {mark("$", 1), R"({"$":1})"},
      {mark("$other", 1), R"({"$other":1})"},
      {Dictionary{{"$date", "x"}, {"b", 1}}, R"({"$date":"x","b":1})"},
  };
  for (const auto& [value, json] : cases) {
    const Dictionary info{{"k", value}};
    EXPECT_EQ(encoded(info), "{\"k\":" + json + "}");
    std::string refusal;
    const auto record = decodeEvent(lineWith(encoded(info)), refusal);
    ASSERT_TRUE(record) << json << ": " << refusal;
    EXPECT_EQ(record->info, info) << json;
    EXPECT_EQ(record->info.find("k")->kind(), value.kind()) << json;
    EXPECT_EQ(encoded(record->info), encoded(info));
  }
  EXPECT_EQ(encoded({{"k", std::nan("")}}), R"({"k":{"$real":"nan"}})");
}

TEST(InfoJson, TakesTheInformationItselfForNoMark) {
  const qx::Dictionary info{{"$date", "x"}};
  EXPECT_EQ(encoded(info), R"({"$date":"x"})");
  std::string refusal;
  const auto record = decodeEvent(lineWith(encoded(info)), refusal);
  ASSERT_TRUE(record) << refusal;
  EXPECT_EQ(record->info, info);
}

TEST(InfoJson, ShowsInvalidStoredTextAsReplacementCharacters) {
  EXPECT_EQ(encoded({{"k", "a\xC3("}}), "{\"k\":\"a\xEF\xBF\xBD(\"}");
}

TEST(EventEncoder, WritesMembersInTheirOrderAndOnlyThoseThatAreThere) {
  QXEvent event(qx::String("D9C35628-AE8B-4666-B5DC-E0F2F92E0099"));
  std::string line;
  encodeEvent(line, event, false);
  EXPECT_EQ(
      line,
      R"({"id":"D9C35628-AE8B-4666-B5DC-E0F2F92E0099","severity":0,"state":0,"totalStates":0,"read":false,)"
      R"("solved":true,"blocked":false,"version":0,"info":{}})");
  const auto source = std::make_shared<QXEventSource>();
  source->setIdentifier("s");
  source->setName("n{");
  source->setServiceID("");
  event.setSource(source);
  event.setClassID("c");
  event.setHandler("h");
  event.setTriggerTime(qx::Date{0.0006});
  event.setStatus({1, 2});
  line.clear();
  encodeEvent(line, event, true);
  EXPECT_EQ(
      line,
      R"({"id":"D9C35628-AE8B-4666-B5DC-E0F2F92E0099","class":"c","severity":0,"handler":"h","state":1,)"
      R"("totalStates":2,"triggerTime":"2001-01-01T00:00:00.001Z","read":false,"solved":false,"blocked":true,)"
      R"("version":0,"source":{"id":"s","name":"n{","serviceID":""},"info":{}})");
}

TEST(EventDecoder, AcceptsTheDemonstrationEvents) {
  const auto lines = linesOf(QX_GOOD_EVENTS);
  ASSERT_EQ(lines.size(), 400U);
  for (const auto& line : lines)
    EXPECT_EQ(refusalOf(line), "accepted") << line;
}

}  // namespace
}  // namespace qxevents
