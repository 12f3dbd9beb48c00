#include "Sources/QXESErrorProvider.h"

#include <array>
#include <utility>

#include <QXEventStoring/Platform/Bundle.h>
#include <QXEventStoring/QXEventStore.h>

#include "Logging/EventStoreLog.h"

namespace {

/// What an error of a code says: either a fixed text, or keys of the strings table.
struct Texts {
  std::int64_t code;
  const char* fixedDescription;
  const char* description;
  const char* suggestion;
  std::array<const char*, 2> options;
};

constexpr const char* kInvalidEvent = "Operation failed due to invalid QXEvent object";

constexpr std::array<Texts, 7> kTexts{{
    {QXEventStoreErrorInvalidEvent, kInvalidEvent, nullptr, nullptr, {}},
    {QXEventStoreErrorCorrupted,
     nullptr,
     "CorruptedEventStoreDescription",
     "MissingEventStoreRecoverySuggesstion",
     {"TryAgainButtonTitle", "CreateButtonTitle"}},
    {QXEventStoreErrorNoPermission,
     nullptr,
     "EventStorePermissionsErrorDescription",
     "EventStorePermissionsErrorRecoverySuggesstion",
     {"TryAgainButtonTitle", "RepairAccessButtonTitle"}},
    {QXEventStoreErrorMissing,
     nullptr,
     "MissingEventStoreDescription",
     "MissingEventStoreRecoverySuggesstion",
     {"TryAgainButtonTitle", "CreateButtonTitle"}},
    {QXEventStoreErrorNotInStore,
     "The operation could not be completed because the entry you have selected not found in store.",
     nullptr,
     nullptr,
     {}},
    {QXEventStoreErrorNotUpToDate, kInvalidEvent, nullptr, nullptr, {}},
    {QXEventStoreErrorDiskFull,
     nullptr,
     "DiskFullErrorDescription",
     "DiskFullErrorRecoverySuggesstion",
     {"TryAgainButtonTitle", nullptr}},
}};

qx::Error::Details details(const Texts& texts) {
  qx::Error::Details result;
  if (texts.fixedDescription != nullptr) {
    result.description = texts.fixedDescription;
    return result;
  }
  result.description = QXESErrorProvider::getLocalizedStringForKey(texts.description);
  for (const char* const option : texts.options) {
    if (option == nullptr) continue;
    result.recoveryOptions.push_back(QXESErrorProvider::getLocalizedStringForKey(option));
  }
  result.suggestion = QXESErrorProvider::getLocalizedStringForKey(texts.suggestion);
  return result;
}

qx::Value listOf(const std::vector<std::string>& texts) {
  return qx::Array(texts.begin(), texts.end());
}

}  // namespace

qx::ErrorPtr QXESErrorProvider::errorWithCode(std::int64_t code) {
  for (const Texts& texts : kTexts) {
    if (texts.code == code) return qx::Error::make(QXEventStoreErrorDomain, code, details(texts));
  }
  return qx::Error::make(QXEventStoreErrorDomain, code);
}

qx::ErrorPtr QXESErrorProvider::errorWithDescription(std::int64_t code, std::string description,
                                                     qx::ErrorPtr underlying) {
  qx::Error::Details details;
  details.description = std::move(description);
  details.underlying = std::move(underlying);
  return qx::Error::make(QXEventStoreErrorDomain, code, std::move(details));
}

// A text may name the directory "/Users/Shared" to the user. Directories have no localized names here: what
// the user sees of one is its own name, so that the text stands as it is.
std::string QXESErrorProvider::getLocalizedStringForKey(const std::string& key) {
  const qx::Bundle& bundle = qx::Bundle::library();
  QXLogInfo("Preferred languages:[%{public}@]", listOf(bundle.preferredLocalizations()));
  return bundle.localizedString(key);
}
