// The values are built while the text is read, one frame per open list or object, so that the work and the
// memory of a hostile line end at the first fault.

#include "JsonReader.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Text.h"

namespace qxevents {
namespace {

using Entries = std::vector<qx::Dictionary::Entry>;

struct Frame {
  bool isObject = false;
  bool hasKey = false;
  std::string key;  // of the member that is being read
  Entries members;
  qx::Array items;
};

/// How many levels from the outermost are what they look like, not marks.
std::size_t plainLevels(JsonRoot root) {
  switch (root) {
    case JsonRoot::record:
      return 2;
    case JsonRoot::info:
      return 1;
    case JsonRoot::value:
      break;
  }
  return 0;
}

const std::string* findRepeated(const Entries& members) {
  const auto notAscending = [](const auto& a, const auto& b) { return a.first >= b.first; };
  if (std::adjacent_find(members.begin(), members.end(), notAscending) == members.end()) return nullptr;
  std::vector<const std::string*> keys;
  keys.reserve(members.size());
  for (const auto& member : members)
    keys.push_back(&member.first);
  std::sort(keys.begin(), keys.end(), [](const auto* a, const auto* b) { return *a < *b; });
  const auto twice =
      std::adjacent_find(keys.begin(), keys.end(), [](const auto* a, const auto* b) { return *a == *b; });
  return twice == keys.end() ? nullptr : *twice;
}

std::optional<double> nonFiniteFrom(const std::string& text) {
  if (text == "nan") return std::numeric_limits<double>::quiet_NaN();
  if (text == "inf") return std::numeric_limits<double>::infinity();
  if (text == "-inf") return -std::numeric_limits<double>::infinity();
  return std::nullopt;
}

/// The parser's own words without its prefix, position and the text it has read so far.
std::string_view parserReason(std::string_view what) {
  if (const auto dash = what.find(" - "); dash != std::string_view::npos) what.remove_prefix(dash + 3);
  return what.substr(0, what.find("; last read:"));
}

class ValueBuilder {
 public:
  ValueBuilder(JsonRoot root, std::string& refusal) : root_(root), refusal_(refusal) {}

  qx::Value takeResult() { return std::move(result_); }

  // The parser's events; false ends the reading.
  bool null() { return refuse("null cannot be stored"); }
  bool boolean(bool value) { return put(value); }
  // Called for numbers with a minus sign only.
  bool number_integer(std::int64_t value) { return value == 0 ? put(-0.0) : put(value); }
  bool number_unsigned(std::uint64_t value) { return put(value); }
  bool number_float(double value, const std::string& text) {
    if (text.find_first_of(".eE") != std::string::npos) return put(value);
    return refuse(fmt::format("the integer {} does not fit 64 bits", excerpt(text, 30)));
  }
  bool string(const std::string& text) { return put(text); }
  template <class Binary>
  bool binary(const Binary&) {
    return refuse("binary values are not JSON");
  }

  bool start_object(std::size_t) { return open(true); }
  bool start_array(std::size_t) { return open(false); }

  bool key(const std::string& text) {
    frames_.back().key = text;
    frames_.back().hasKey = true;
    return true;
  }

  bool end_object() {
    if (const auto* repeated = findRepeated(frames_.back().members)) {
      frames_.back().key = *repeated;
      frames_.back().hasKey = true;
      return refuse("given twice");
    }
    Frame frame = std::move(frames_.back());
    const bool mayBeMark = frames_.size() > plainLevels(root_);
    frames_.pop_back();
    if (!mayBeMark || frame.members.size() != 1)
      return put(qx::Dictionary::fromEntries(std::move(frame.members)));
    return putMarked(std::move(frame.members.front()));
  }

  bool end_array() {
    qx::Array items = std::move(frames_.back().items);
    frames_.pop_back();
    return put(std::move(items));
  }

  template <class Exception>
  bool parse_error(std::size_t position, const std::string& token, const Exception& error) {
    constexpr int kNumberOverflow = 406;
    if (error.id == kNumberOverflow)
      return refuse(fmt::format("the number {} is too large", excerpt(token, 30)));
    const auto place = path();
    refusal_ = fmt::format("broken JSON at byte {}{}{}: {}", position, place.empty() ? "" : ", in ", place,
                           excerpt(parserReason(error.what()), 200));
    return false;
  }

 private:
  bool refuse(std::string_view reason) {
    const auto place = path();
    refusal_ = place.empty() ? std::string(reason) : fmt::format("{}: {}", place, reason);
    return false;
  }

  /// The place that is being read: "source.name", "info, Event: Supply Color[2]".
  std::string path() const {
    std::string place;
    bool insideInfo = root_ != JsonRoot::record;
    constexpr std::size_t kShownLevels = 8;
    for (std::size_t level = 0; level < frames_.size(); ++level) {
      if (level == kShownLevels) return excerpt(place, 300) + "…";
      const auto& frame = frames_[level];
      if (!frame.isObject) {
        place += fmt::format("[{}]", frame.items.size());
        continue;
      }
      if (!frame.hasKey) break;
      if (!place.empty()) place += insideInfo ? ", " : ".";
      place += frame.key.empty() ? "\"\"" : excerpt(frame.key, 100);
      if (frame.key == "info") insideInfo = true;
    }
    return excerpt(place, 300);
  }

  bool open(bool isObject) {
    if (frames_.size() == kMaximumDepth)
      return refuse(fmt::format("more than {} levels deep", kMaximumDepth));
    Frame& frame = frames_.emplace_back();
    frame.isObject = isObject;
    return true;
  }

  template <class T>
  bool put(T value) {
    if (frames_.empty()) {
      result_ = qx::Value(std::move(value));
    } else if (frames_.back().isObject) {
      frames_.back().members.emplace_back(std::move(frames_.back().key), qx::Value(std::move(value)));
      frames_.back().hasKey = false;
    } else {
      frames_.back().items.emplace_back(std::move(value));
    }
    return true;
  }

  /// An object of one member: a mark, an escaped mark, or a dictionary like any other.
  bool putMarked(qx::Dictionary::Entry member) {
    auto& [name, content] = member;
    if (name.starts_with("$$") && isMark(name)) {
      name.erase(0, 1);
    } else if (isMark(name)) {
      return putMark(name, content.asString());
    }
    return put(qx::Dictionary::fromEntries({std::move(member)}));
  }

  static bool isMark(std::string_view name) {
    const auto word = name.substr(std::min(name.find_first_not_of('$'), name.size()));
    return word.size() < name.size() && (word == "date" || word == "data" || word == "real");
  }

  bool putMark(const std::string& name, const std::string* content) {
    if (content == nullptr) return refuse(fmt::format("the value of \"{}\" must be a string", name));
    if (name == "$date") {
      if (const auto date = parseTime(*content)) return put(*date);
      return refuse(fmt::format("\"{}\" is not an RFC 3339 time with a zone", excerpt(*content)));
    }
    if (name == "$data") {
      if (auto bytes = bytesFromBase64(*content)) return put(qx::Data(std::move(*bytes)));
      return refuse("the value of \"$data\" is not base 64");
    }
    if (const auto number = nonFiniteFrom(*content)) return put(*number);
    return refuse("the value of \"$real\" must be \"nan\", \"inf\" or \"-inf\"");
  }

  JsonRoot root_;
  std::string& refusal_;
  std::vector<Frame> frames_;
  qx::Value result_;
};

}  // namespace

std::optional<qx::Value> readJson(std::string_view text, JsonRoot root, std::string& refusal) {
  // The parser takes a null byte for the end of its input, and a byte order mark for nothing.
  if (const auto null = text.find('\0'); null != std::string_view::npos) {
    refusal = fmt::format("null byte at byte {}", null + 1);
    return std::nullopt;
  }
  if (text.starts_with("\xEF\xBB\xBF")) {
    refusal = "begins with a byte order mark";
    return std::nullopt;
  }
  ValueBuilder builder(root, refusal);
  if (!nlohmann::json::sax_parse(text.data(), text.data() + text.size(), &builder)) return std::nullopt;
  return builder.takeResult();
}

std::optional<qx::Date> parseTime(std::string_view text) {
  if (const auto date = qx::Date::fromRFC3339(text)) return date;
  constexpr std::string_view kOutsideCalendar = "seconds since 2001: ";
  if (!text.starts_with(kOutsideCalendar)) return std::nullopt;
  text.remove_prefix(kOutsideCalendar.size());
  double seconds = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return qx::Date{seconds};
}

}  // namespace qxevents
