#pragma once

#include <cstdint>
#include <string>

#include <QXEventStoring/Platform/Error.h>

/// Codes of QXEventStoreErrorDomain. Read them together with the operation: some reuse a number with a
/// description of their own.
enum QXEventStoreErrorCode : std::int64_t {
  QXEventStoreErrorInvalidEvent = -999,
  QXEventStoreErrorCorrupted = -998,
  QXEventStoreErrorNoPermission = -997,
  QXEventStoreErrorMissing = -996,
  QXEventStoreErrorNotInStore = -995,
  QXEventStoreErrorNotUpToDate = -994,
  QXEventStoreErrorDiskFull = -993,
  QXEventStoreErrorInvalidQuery = 999,
};

/// Makes the library's errors. Threads: any.
class QXESErrorProvider {
 public:
  /// The error of that code with its localized texts; those that a user can do something about carry
  /// recovery options. A code outside -999 to -993 gives an error without texts.
  static qx::ErrorPtr errorWithCode(std::int64_t code);
  /// An error of the domain with a fixed English description and, where there is one, the error underneath;
  /// nothing else.
  static qx::ErrorPtr errorWithDescription(std::int64_t code, std::string description,
                                           qx::ErrorPtr underlying = nullptr);
  /// The text of `key` in the user's language; the key itself when there is none.
  static std::string getLocalizedStringForKey(const std::string& key);
};
