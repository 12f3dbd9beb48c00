#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include <QXEventStoring/QXEvent.h>

#include "EventJson.h"

namespace qxevents {

/// Makes records for the store of what was read, and lets known classes supply what is missing. One thread
/// at a time.
class EventBuilder {
 public:
  /// A detached event; null, and a sentence in `refusal`, when the class does not supply a missing handler.
  QXEventPtr build(EventRecord record, std::string& refusal);

 private:
  struct ClassDetails {
    std::string handler;
    std::int64_t severity;
    std::uint64_t totalStates;
  };
  const ClassDetails* detailsOf(const std::string& classID);

  // Asking the library for an unknown class would leave an empty class row behind: the known ones are asked
  // for by name only.
  std::optional<std::unordered_set<std::string>> known_;
  std::unordered_map<std::string, ClassDetails> details_;
};

}  // namespace qxevents
