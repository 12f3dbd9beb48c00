#include "Platform/UserDefaults.h"

#include <memory>
#include <utility>
#include <vector>

#include <QXEventStoring/Platform/Bundle.h>

#include "Platform/FileWatch.h"
#include "Platform/Preferences.h"

namespace qx {

UserDefaults::UserDefaults() = default;

UserDefaults::UserDefaults(std::string suite) : suite_(std::move(suite)) {}

String UserDefaults::suiteName() const {
  return suite_ ? suite_ : Bundle::mainBundle().bundleIdentifier();
}

String UserDefaults::stringForKey(std::string_view key) const {
  const String suite = suiteName();
  if (!suite) return std::nullopt;
  for (const PreferenceScope scope : kPreferenceScopes) {
    const std::optional<Value> value = preferenceValue(key, *suite, scope);
    if (value) return value->isNumber() ? value->description() : value->stringValue();
  }
  return std::nullopt;
}

Observation UserDefaults::observe(const std::function<void()>& changed) const {
  const String suite = suiteName();
  if (!suite) return {};
  const auto watches = std::make_shared<std::vector<Observation>>();
  for (const PreferenceScope scope : kPreferenceScopes) {
    if (const String path = preferencesPath(*suite, scope)) watches->push_back(watchFile(*path, changed));
  }
  return Observation([watches] { watches->clear(); });
}

}  // namespace qx
