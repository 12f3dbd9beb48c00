#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/NotificationCenter.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

/// The preferences of one suite as a program reads them: the first scope that has a key decides, in the
/// order of PreferenceScope. Nothing is cached: a read looks at the files. Any thread.
class UserDefaults {
 public:
  /// The running application's own: the suite is its main bundle's identifier, asked at each use; without
  /// one there are no values and no changes.
  UserDefaults();
  explicit UserDefaults(std::string suite);
  virtual ~UserDefaults() = default;

  /// The text of `key`; a number or truth value as its text; nothing for other kinds and no value.
  String stringForKey(std::string_view key) const;

  /// Calls `changed` on a thread of the library's whenever any file of the suite may have changed, as
  /// watchFile() tells it, until the Observation ends.
  Observation observe(const std::function<void()>& changed) const;

  /// The suite's name; nothing for an application without identifier.
  String suiteName() const;

 private:
  String suite_;  // nothing: the application's own
};

}  // namespace qx
