#include "CommandLine.h"

#include <charconv>

#include <fmt/format.h>

#include "JsonReader.h"
#include "Text.h"

namespace qxevents {
namespace {

[[noreturn]] void refuse(const std::string& name, const std::string& reason) {
  throw CLI::ValidationError(name, reason);
}

void checkText(const std::string& name, const std::string& text) {
  if (text.empty()) refuse(name, "must not be empty");
  if (!qx::isValidUTF8(text)) refuse(name, fmt::format("\"{}\" is not UTF-8", excerpt(text)));
}

std::int64_t parseInteger(const std::string& name, std::string_view text, std::int64_t minimum,
                          std::int64_t maximum) {
  std::int64_t value = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool isWhole = end == text.data() + text.size() && failure != std::errc::invalid_argument;
  if (!isWhole) refuse(name, fmt::format("\"{}\" is not an integer", excerpt(text)));
  if (failure != std::errc() || value < minimum || value > maximum) {
    refuse(name, fmt::format("{} is outside {} to {}", excerpt(text), minimum, maximum));
  }
  return value;
}

void setPair(const std::string& name, const std::string& pair, bool typed, qx::Dictionary& info) {
  const auto equals = pair.find('=');
  if (equals == std::string::npos) refuse(name, fmt::format("\"{}\" is not KEY=VALUE", excerpt(pair)));
  const bool isTyped = typed && equals > 0 && pair[equals - 1] == ':';
  const auto key = pair.substr(0, isTyped ? equals - 1 : equals);
  const auto text = pair.substr(equals + 1);
  if (key.empty()) refuse(name, fmt::format("\"{}\" has no key", excerpt(pair)));
  if (!qx::isValidUTF8(pair)) refuse(name, fmt::format("\"{}\" is not UTF-8", excerpt(pair)));
  if (!isTyped) return info.set(key, text);
  std::string refusal;
  auto value = readJson(text, JsonRoot::value, refusal);
  if (!value) refuse(name, fmt::format("\"{}\": {}", excerpt(key), refusal));
  info.set(key, std::move(*value));
}

}  // namespace

CLI::Option* addText(CLI::App& app, const std::string& name, std::optional<std::string>& value,
                     const std::string& help) {
  const auto take = [name, &value](const std::string& text) {
    checkText(name, text);
    value = text;
  };
  return app.add_option_function<std::string>(name, take, help)->type_name("TEXT");
}

CLI::Option* addTexts(CLI::App& app, const std::string& name, std::vector<std::string>& values,
                      const std::string& help) {
  const auto take = [name, &values](const std::vector<std::string>& texts) {
    for (const auto& text : texts)
      checkText(name, text);
    values = texts;
  };
  return app.add_option_function<std::vector<std::string>>(name, take, help)->type_name("TEXT");
}

CLI::Option* addInteger(CLI::App& app, const std::string& name, std::optional<std::int64_t>& value,
                        const std::string& help, std::int64_t minimum, std::int64_t maximum) {
  const auto take = [name, &value, minimum, maximum](const std::string& text) {
    value = parseInteger(name, text, minimum, maximum);
  };
  return app.add_option_function<std::string>(name, take, help)->type_name("N");
}

CLI::Option* addTime(CLI::App& app, const std::string& name, std::optional<qx::Date>& value,
                     const std::string& help) {
  const auto take = [name, &value](const std::string& text) {
    value = qx::Date::fromRFC3339(text);
    if (value) return;
    refuse(name, fmt::format("\"{}\" is not an RFC 3339 time with a zone, such as 2026-11-02T05:23:26Z",
                             excerpt(text)));
  };
  return app.add_option_function<std::string>(name, take, help)->type_name("TIME");
}

CLI::Option* addPairs(CLI::App& app, const std::string& name, qx::Dictionary& info, bool typed,
                      const std::string& help) {
  const auto take = [name, typed, &info](const std::vector<std::string>& pairs) {
    for (const auto& pair : pairs)
      setPair(name, pair, typed, info);
  };
  return app.add_option_function<std::vector<std::string>>(name, take, help)->type_name("KEY=VALUE");
}

CLI::Option* addInfoJson(CLI::App& app, const std::string& name, qx::Dictionary& info,
                         const std::string& help) {
  const auto take = [name, &info](const std::string& text) {
    std::string refusal;
    auto value = readJson(text, JsonRoot::info, refusal);
    if (!value) refuse(name, refusal);
    const auto* object = value->asDictionary();
    if (object == nullptr) refuse(name, "must be a JSON object");
    info.merge(*object);
  };
  return app.add_option_function<std::string>(name, take, help)->type_name("JSON");
}

}  // namespace qxevents
