#include <array>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "EventJson.h"
#include "JsonReader.h"
#include "Text.h"

namespace qxevents {
namespace {

constexpr std::array<std::string_view, 13> kEventMembers = {
    "id",   "class",  "severity", "handler", "state",  "totalStates", "triggerTime",
    "read", "solved", "blocked",  "version", "source", "info"};
constexpr std::array<std::string_view, 6> kSourceMembers = {"id",           "name",          "alternateName",
                                                            "makeAndModel", "productNumber", "serviceID"};

enum class Need { required, optional };
enum class Empty { refused, allowed };

/// The members of one object. The first fault is kept; what is read after it does not matter.
class Members {
 public:
  Members(qx::Dictionary& object, std::string_view prefix, std::string& refusal)
      : object_(object), prefix_(prefix), refusal_(refusal) {}

  template <std::size_t count>
  void collectUnknown(const std::array<std::string_view, count>& known,
                      std::vector<std::string>& unknown) const {
    for (const auto& [name, value] : object_) {
      if (std::find(known.begin(), known.end(), name) == known.end()) {
        unknown.push_back(fmt::format("{}{}", prefix_, name.empty() ? "\"\"" : excerpt(name)));
      }
    }
  }

  qx::Value* find(std::string_view name, Need need) {
    auto* value = object_.find(name);
    if (value == nullptr && need == Need::required) refuse(name, "missing");
    return value;
  }

  qx::String text(std::string_view name, Need need, Empty empty) {
    const auto* value = find(name, need);
    if (value == nullptr) return std::nullopt;
    const auto* text = value->asString();
    if (text == nullptr) {
      refuse(name, "must be a string");
    } else if (text->empty() && empty == Empty::refused) {
      refuse(name, "must not be empty");
    } else if (text->find('\0') != std::string::npos) {
      refuse(name, "holds a null character");
    } else {
      return *text;
    }
    return std::nullopt;
  }

  std::optional<std::int64_t> integer(std::string_view name) {
    const auto* value = find(name, Need::optional);
    if (value == nullptr) return std::nullopt;
    if (const auto* number = value->asInteger()) return *number;
    if (const auto* number = value->asUnsigned()) {
      refuse(name, fmt::format("{} does not fit a signed 64-bit number", *number));
    } else {
      refuse(name, "must be an integer");
    }
    return std::nullopt;
  }

  std::optional<std::uint64_t> integer(std::string_view name, std::uint64_t maximum) {
    const auto number = integer(name);
    if (!number) return std::nullopt;
    if (*number >= 0 && std::cmp_less_equal(*number, maximum)) return static_cast<std::uint64_t>(*number);
    refuse(name, fmt::format("{} is outside 0 to {}", *number, maximum));
    return std::nullopt;
  }

  bool boolean(std::string_view name) {
    const auto* value = find(name, Need::optional);
    if (value == nullptr) return false;
    if (value->asBool() == nullptr) refuse(name, "must be true or false");
    return value->boolValue();
  }

  qx::Date time(std::string_view name) {
    const auto text = this->text(name, Need::required, Empty::refused);
    if (!text) return {};
    const auto date = parseTime(*text);
    if (!date) refuse(name, fmt::format("\"{}\" is not an RFC 3339 time with a zone", excerpt(*text)));
    return date.value_or(qx::Date());
  }

  qx::Dictionary* object(std::string_view name, Need need) {
    auto* value = find(name, need);
    if (value == nullptr) return nullptr;
    auto* dictionary = value->asDictionary();
    if (dictionary == nullptr) refuse(name, "must be an object");
    return dictionary;
  }

  void refuse(std::string_view name, std::string_view reason) {
    if (refusal_.empty()) refusal_ = fmt::format("{}{}: {}", prefix_, name, reason);
  }

 private:
  qx::Dictionary& object_;
  std::string_view prefix_;
  std::string& refusal_;
};

void decodeSource(Members& members, EventRecord::Source& source) {
  source.id = members.text("id", Need::required, Empty::refused).value_or("");
  source.name = members.text("name", Need::required, Empty::refused).value_or("");
  source.alternateName = members.text("alternateName", Need::optional, Empty::allowed);
  source.makeAndModel = members.text("makeAndModel", Need::optional, Empty::allowed);
  source.productNumber = members.text("productNumber", Need::optional, Empty::allowed);
  source.serviceID = members.text("serviceID", Need::optional, Empty::allowed);
}

}  // namespace

std::optional<EventRecord> decodeEvent(std::string_view line, std::string& refusal) {
  refusal.clear();
  auto root = readJson(line, JsonRoot::record, refusal);
  if (!root) return std::nullopt;
  auto* object = root->asDictionary();
  if (object == nullptr) {
    refusal = "the line must be a JSON object";
    return std::nullopt;
  }

  EventRecord record;
  Members members(*object, "", refusal);
  std::vector<std::string> unknown;
  members.collectUnknown(kEventMembers, unknown);
  if (auto* source = members.object("source", Need::required)) {
    Members sourceMembers(*source, "source.", refusal);
    sourceMembers.collectUnknown(kSourceMembers, unknown);
    decodeSource(sourceMembers, record.source);
  }
  if (!unknown.empty()) {
    refusal = fmt::format("unknown member{} {}", unknown.size() == 1 ? "" : "s",
                          excerpt(fmt::format("{}", fmt::join(unknown, ", ")), 1000));
    return std::nullopt;
  }

  record.id = members.text("id", Need::optional, Empty::refused).value_or("");
  if (!record.id.empty() && !isUUID(record.id)) {
    members.refuse("id", fmt::format("\"{}\" is not a UUID", excerpt(record.id)));
  }
  record.classID = members.text("class", Need::required, Empty::refused).value_or("");
  record.handler = members.text("handler", Need::optional, Empty::refused).value_or("");
  record.severity = members.integer("severity");
  record.state = members.integer("state", kMaximumState);
  record.totalStates = members.integer("totalStates", kMaximumTotalStates);
  record.triggerTime = members.time("triggerTime");
  record.read = members.boolean("read");
  if (auto* info = members.object("info", Need::optional)) record.info = std::move(*info);
  if (!refusal.empty()) return std::nullopt;
  return record;
}

}  // namespace qxevents
