#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// A system-log message under way: keys and their texts, in the order in which they were first set.
/// Not for several threads at a time.
class ASLMessage {
 public:
  using Entry = std::pair<std::string, std::string>;

  /// Sets or replaces; both end at their first NUL.
  void set(std::string_view key, std::string_view value);
  void remove(std::string_view key);
  /// The value, until the next set(); null when `key` is not set.
  const std::string* find(std::string_view key) const;
  const std::vector<Entry>& entries() const { return entries_; }

 private:
  std::vector<Entry> entries_;
};
