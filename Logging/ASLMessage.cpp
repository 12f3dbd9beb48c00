#include "Logging/ASLMessage.h"

#include <algorithm>

namespace {

std::string_view untilNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

template <typename Entries>
auto entryWithKey(Entries& entries, std::string_view key) {
  return std::find_if(entries.begin(), entries.end(),
                      [key](const auto& entry) { return entry.first == key; });
}

}  // namespace

void ASLMessage::set(std::string_view key, std::string_view value) {
  key = untilNul(key);
  value = untilNul(value);
  const auto entry = entryWithKey(entries_, key);
  if (entry == entries_.end()) {
    entries_.emplace_back(key, value);
  } else {
    entry->second.assign(value);
  }
}

void ASLMessage::remove(std::string_view key) {
  const auto entry = entryWithKey(entries_, untilNul(key));
  if (entry != entries_.end()) entries_.erase(entry);
}

const std::string* ASLMessage::find(std::string_view key) const {
  const auto entry = entryWithKey(entries_, untilNul(key));
  return entry == entries_.end() ? nullptr : &entry->second;
}
