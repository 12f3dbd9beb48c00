#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Logging/CachedLogLevel.h"
#include "Logging/LogCategory.h"
#include "Logging/PLVLogCategoryDescriptor.h"
#include "Logging/PLVLogLevel.h"
#include "Platform/UserDefaults.h"

namespace qx::log {

/// Hash and equality of names that live in static records: by their characters. The hash is djb2.
struct NameHash {
  std::size_t operator()(const char* name) const {
    std::size_t hash = 5381;
    for (; *name != '\0'; ++name)
      hash = hash * 33 + static_cast<unsigned char>(*name);
    return hash;
  }
};
struct NameEquality {
  bool operator()(const char* left, const char* right) const { return std::strcmp(left, right) == 0; }
};
template <typename Object>
using NameTable = std::unordered_map<const char*, std::unique_ptr<Object>, NameHash, NameEquality>;

}  // namespace qx::log

/// The log lines of one product: a name, a level for all its categories, and the categories. Any thread.
class LogSubsystem {
 public:
  /// `name` is not copied.
  explicit LogSubsystem(const char* name);

  /// Makes this image's registry the process's, unless an earlier image has done so with its own. Runs when
  /// the image is loaded.
  static void load();

  /// The category that `context` names, the same object for every image of the process; made on first use
  /// and never destroyed. Throws std::bad_alloc; keeps errno.
  static LogCategory& categoryForContext(PLVLogCategoryDescriptor& context) {
    auto* const resolved = context.category().load(std::memory_order_acquire);
    return resolved != nullptr ? *resolved : resolve(context);
  }

  const char* name() const { return name_; }
  /// The suite with the levels of the subsystem and its categories: the name and ".logging".
  std::string userDefaultsSuiteName() const;
  const qx::UserDefaults& userDefaults() const { return userDefaults_; }

  /// The level that `key` has in the suite: the first scope with one decides, in the order of
  /// qx::PreferenceScope.
  PLVLogLevel levelForKey(std::string_view key) const;

  /// The subsystem's own level, at "PLVLogLevel".
  PLVLogLevel level() const { return level_.get(); }
  /// Until the preference changes; NotLoaded reads it again.
  void setLevel(PLVLogLevel level) { level_.set(level); }
  /// Without unified logging: reads the level again in a minute, if somebody asks for it by then.
  void scheduleLevelSynchronization() { level_.scheduleSynchronization(); }

  /// Guarded by the registry's lock.
  qx::log::NameTable<LogCategory>& categories() { return categories_; }

  /// For the child of a fork.
  void abandonLevels();

 private:
  static LogCategory& resolve(PLVLogCategoryDescriptor& context);

  const char* name_;
  qx::UserDefaults userDefaults_;
  qx::log::CachedLogLevel level_;
  qx::log::NameTable<LogCategory> categories_;
};
