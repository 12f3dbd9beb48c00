#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <QXEventStoring/QXEvent.h>

// One event as a line of JSON. docs/json.md tells the format.
//
// In the information, an object with the single member "$date" (RFC 3339), "$data" (base 64) or "$real"
// ("nan", "inf", "-inf") stands for what JSON has no word for; a stored dictionary that looks like one of
// these has one "$" more in front of its key ("$$date").

namespace qxevents {

/// An event as it was read: checked, not yet a record of the store. What is missing here, the class supplies.
struct EventRecord {
  std::string id;  // empty: the record gets a fresh one
  std::string classID;
  std::string handler;  // empty: missing
  std::optional<std::int64_t> severity;
  std::optional<std::uint64_t> state;
  std::optional<std::uint64_t> totalStates;
  qx::Date triggerTime;
  bool read = false;
  struct Source {
    std::string id;
    std::string name;
    qx::String alternateName;
    qx::String makeAndModel;
    qx::String productNumber;
    qx::String serviceID;
  } source;
  qx::Dictionary info;
};

inline constexpr std::uint64_t kMaximumState = 2147483647;
inline constexpr std::uint64_t kMaximumTotalStates = 4294967295;

/// Reads one line. Nothing, and one sentence in `refusal` that names the member and is fit for a terminal,
/// when any part of it is not as the format demands.
std::optional<EventRecord> decodeEvent(std::string_view line, std::string& refusal);

/// Appends the event as one line, without a line end. Equal events give equal bytes.
void encodeEvent(std::string& line, const QXEvent& event, bool blocked);

/// Appends `text` as a JSON string: valid UTF-8 (U+FFFD stands for what is none) without control characters
/// and without what some readers take for a line end.
void encodeString(std::string& json, std::string_view text);
std::string jsonString(std::string_view text);
void encodeValue(std::string& json, const qx::Value& value);
/// The information as a whole: a plain object.
void encodeInfo(std::string& json, const qx::Dictionary& info);

}  // namespace qxevents
