#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

class Error;

/// A shared, immutable error; null means "no error".
using ErrorPtr = std::shared_ptr<const Error>;

/// Tries to put right what an error reports; an error may carry one.
class QX_EXPORT RecoveryAttempter {
 public:
  virtual ~RecoveryAttempter() = default;
  /// `optionIndex` counts from 0 in the error's recoveryOptions(); true when the failing operation is
  /// worth repeating. Any thread; may block for as long as the repair takes.
  virtual bool attemptRecovery(const Error& error, std::uint64_t optionIndex) = 0;
};

/// Error domains of the layers below the library's own.
inline constexpr std::string_view kCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view kSQLiteErrorDomain = "NSSQLiteErrorDomain";
inline constexpr std::string_view kPOSIXErrorDomain = "NSPOSIXErrorDomain";

/// What went wrong: a code that means something in its domain, texts for a person, and the error
/// underneath. Immutable; any thread.
class QX_EXPORT Error {
 public:
  /// One refused item of an operation on many.
  struct Item {
    std::size_t index;  // position in the caller's list
    ErrorPtr error;
  };

  /// Everything an error may carry beside domain and code. A missing member is absent from userInfo().
  struct Details {
    String description;
    String suggestion;
    std::vector<std::string> recoveryOptions;
    std::shared_ptr<RecoveryAttempter> recoveryAttempter;
    ErrorPtr underlying;
    std::vector<Item> items;
  };

  Error(std::string_view domain, std::int64_t code) : Error(domain, code, Details{}) {}
  Error(std::string_view domain, std::int64_t code, Details details);

  static ErrorPtr make(std::string_view domain, std::int64_t code);
  static ErrorPtr make(std::string_view domain, std::int64_t code, std::string description);
  static ErrorPtr make(std::string_view domain, std::int64_t code, Details details);

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }

  /// The description, or "The operation could not be completed. (<domain> error <code>.)".
  std::string localizedDescription() const;
  const String& description() const { return details_.description; }
  const String& suggestion() const { return details_.suggestion; }
  const std::vector<std::string>& recoveryOptions() const { return details_.recoveryOptions; }
  const std::shared_ptr<RecoveryAttempter>& recoveryAttempter() const { return details_.recoveryAttempter; }
  const ErrorPtr& underlying() const { return details_.underlying; }
  /// For an operation on many: what was wrong with each refused item, in the order of the list.
  const std::vector<Item>& items() const { return details_.items; }

  /// The entries that have a textual or numeric form, under the platform's keys
  /// ("NSLocalizedDescription", "NSLocalizedRecoverySuggestion", "NSLocalizedRecoveryOptions",
  /// "NSUnderlyingError" as its summary()). Empty for an error without details.
  Dictionary userInfo() const;

  /// "Error Domain=<domain> Code=<code> "<description>"", for logs.
  std::string summary() const;

 private:
  std::string domain_;
  std::int64_t code_;
  Details details_;
};

/// Fills an out-slot when the caller gave one.
inline void setError(ErrorPtr* slot, ErrorPtr error) {
  if (slot != nullptr) *slot = std::move(error);
}

}  // namespace qx
