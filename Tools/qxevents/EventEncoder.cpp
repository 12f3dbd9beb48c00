#include <array>
#include <charconv>
#include <cmath>

#include <fmt/format.h>
#include <unicode/utf8.h>

#include <QXEventStoring/QXEventKeys.h>

#include "EventJson.h"
#include "Text.h"

namespace qxevents {
namespace {

/// Whether a character must not stand in a JSON line as it is: controls (the second set too), and the
/// separators that some readers take for line ends.
bool needsEscape(UChar32 character) {
  return character < 0x20 || character == '"' || character == '\\' ||
         (character >= 0x7F && character <= 0x9F) || character == 0x2028 || character == 0x2029;
}

void appendEscape(std::string& json, UChar32 character) {
  switch (character) {
    case '"':
      json += "\\\"";
      return;
    case '\\':
      json += "\\\\";
      return;
    case '\n':
      json += "\\n";
      return;
    case '\r':
      json += "\\r";
      return;
    case '\t':
      json += "\\t";
      return;
    default:
      fmt::format_to(std::back_inserter(json), "\\u{:04x}", character);
  }
}

bool looksLikeMark(const qx::Dictionary& dictionary) {
  if (dictionary.size() != 1) return false;
  const std::string_view name = dictionary.begin()->first;
  const auto word = name.substr(std::min(name.find_first_not_of('$'), name.size()));
  return word.size() < name.size() && (word == "date" || word == "data" || word == "real");
}

void encodeReal(std::string& json, double value) {
  if (!std::isfinite(value)) {
    json += std::isnan(value) ? R"({"$real":"nan"})"
            : value > 0       ? R"({"$real":"inf"})"
                              : R"({"$real":"-inf"})";
    return;
  }
  std::array<char, 32> digits{};  // the shortest form that reads back as the same number
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  const std::string_view text(digits.data(), static_cast<std::size_t>(end - digits.data()));
  json += text;
  if (text.find_first_of(".e") == std::string_view::npos) json += ".0";  // a real number stays one
}

void encodeArray(std::string& json, const qx::Array& array) {
  json += '[';
  for (std::size_t i = 0; i < array.size(); ++i) {
    if (i != 0) json += ',';
    encodeValue(json, array[i]);
  }
  json += ']';
}

/// A member whose key needs no escape.
template <class Append>
void member(std::string& json, std::string_view key, Append append) {
  json += json.ends_with('{') ? "\"" : ",\"";
  json += key;
  json += "\":";
  append();
}

void stringMember(std::string& json, std::string_view key, const qx::String& value) {
  if (value) member(json, key, [&] { encodeString(json, *value); });
}

template <class Number>
void numberMember(std::string& json, std::string_view key, Number value) {
  member(json, key, [&] { fmt::format_to(std::back_inserter(json), "{}", value); });
}

void encodeSource(std::string& json, const QXEventSource& source) {
  json += '{';
  stringMember(json, "id", source.identifier());
  stringMember(json, "name", source.name());
  stringMember(json, "alternateName", source.alternateName());
  stringMember(json, "makeAndModel", source.makeAndModel());
  stringMember(json, "productNumber", source.productNumber());
  stringMember(json, "serviceID", source.serviceID());
  json += '}';
}

}  // namespace

void encodeString(std::string& json, std::string_view text) {
  json += '"';
  const auto length = static_cast<std::int64_t>(text.size());
  std::int64_t position = 0;
  while (position < length) {
    const std::int64_t start = position;
    UChar32 character = 0;
    U8_NEXT(text.data(), position, length, character);
    if (character < 0) {
      json += "\xEF\xBF\xBD";
    } else if (needsEscape(character)) {
      appendEscape(json, character);
    } else {
      json.append(text, static_cast<std::size_t>(start), static_cast<std::size_t>(position - start));
    }
  }
  json += '"';
}

std::string jsonString(std::string_view text) {
  std::string json;
  encodeString(json, text);
  return json;
}

void encodeInfo(std::string& json, const qx::Dictionary& info) {
  json += '{';
  bool isFirst = true;
  for (const auto& [key, value] : info) {
    if (!isFirst) json += ',';
    isFirst = false;
    encodeString(json, key);
    json += ':';
    encodeValue(json, value);
  }
  json += '}';
}

void encodeValue(std::string& json, const qx::Value& value) {
  switch (value.kind()) {
    case qx::Value::Kind::null:
      json += "null";
      return;
    case qx::Value::Kind::boolean:
      json += *value.asBool() ? "true" : "false";
      return;
    case qx::Value::Kind::integer:
      fmt::format_to(std::back_inserter(json), "{}", *value.asInteger());
      return;
    case qx::Value::Kind::unsignedInteger:
      fmt::format_to(std::back_inserter(json), "{}", *value.asUnsigned());
      return;
    case qx::Value::Kind::real:
      encodeReal(json, *value.asReal());
      return;
    case qx::Value::Kind::date:
      json += R"({"$date":)";
      encodeString(json, value.asDate()->toRFC3339());
      json += '}';
      return;
    case qx::Value::Kind::string:
      encodeString(json, *value.asString());
      return;
    case qx::Value::Kind::data:
      json += R"({"$data":")";
      json += base64(value.asData()->bytes());
      json += "\"}";
      return;
    case qx::Value::Kind::array:
      encodeArray(json, *value.asArray());
      return;
    case qx::Value::Kind::dictionary:
      break;
  }
  const auto& dictionary = *value.asDictionary();
  if (!looksLikeMark(dictionary)) return encodeInfo(json, dictionary);
  encodeInfo(json, qx::Dictionary{{"$" + dictionary.begin()->first, dictionary.begin()->second}});
}

void encodeEvent(std::string& line, const QXEvent& event, bool blocked) {
  const auto& status = event.status();
  line += '{';
  stringMember(line, "id", event.identifier());
  stringMember(line, "class", event.classID());
  numberMember(line, "severity", event.severity());
  stringMember(line, "handler", event.handler());
  numberMember(line, "state", status.location);
  numberMember(line, "totalStates", status.length);
  if (event.triggerTime()) stringMember(line, "triggerTime", event.triggerTime()->toRFC3339());
  numberMember(line, "read", event.isRead());
  numberMember(line, "solved", status.location == status.length);
  numberMember(line, "blocked", blocked);
  numberMember(line, "version", event.versionNumber());
  if (event.source() != nullptr) member(line, "source", [&] { encodeSource(line, *event.source()); });
  member(line, "info", [&] { encodeInfo(line, event.additionalInfo()); });
  line += '}';
}

}  // namespace qxevents
