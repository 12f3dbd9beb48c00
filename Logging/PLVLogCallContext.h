#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Logging/CheckedFormat.h"
#include "Logging/LogCategory.h"
#include "Logging/PLVLogArgument.h"
#include "Logging/PLVLogCategoryDescriptor.h"
#include "Logging/PLVLogType.h"

class ASLLog;
class ASLMessage;

namespace qx::log {
class ASLClient;
class JournalLog;
}  // namespace qx::log

/// What one log call found out before it makes any text: whether the message is to be sent at all, and
/// through what. Made and used by one thread, within one call.
class PLVLogCallContext {
 public:
  PLVLogCallContext(PLVLogCategoryDescriptor& descriptor, PLVLogType type) noexcept
      : descriptor_(descriptor), type_(type) {
    const auto* const known = descriptor.category().load(std::memory_order_acquire);
    if (known == nullptr || known->isWanted(type)) evaluate(known);
  }

  PLVLogCallContext(const PLVLogCallContext&) = delete;
  PLVLogCallContext& operator=(const PLVLogCallContext&) = delete;
  ~PLVLogCallContext() {
    if (lateLog_ != nullptr) letGo();
  }

  /// Whether the message is to be sent.
  explicit operator bool() const { return journal_ != nullptr || client_ != nullptr; }

  /// Formats and sends it; sends nothing when the format cannot be understood. Neither fails nor waits, and
  /// leaves errno alone.
  template <typename... Arguments>
  void send(const PLVLogSource& source,
            std::type_identity_t<qx::log::CheckedFormat<std::remove_cvref_t<Arguments>...>> format,
            Arguments&&... arguments) const noexcept {
    try {
      sendArguments(source, format.text(), {qx::log::Argument(std::forward<Arguments>(arguments))...});
    } catch (...) {  // NOLINT(bugprone-empty-catch): a log line is never worth an operation
    }
  }

 private:
  void sendArguments(const PLVLogSource& source, std::string_view format,
                     std::initializer_list<qx::log::Argument> arguments) const;
  /// `known`: the category when it is resolved, and wants the message.
  void evaluate(const LogCategory* known) noexcept;
  void chooseHandle(const LogCategory& category);
  void evaluateOnSystemLog();
  void letGo();

  PLVLogCategoryDescriptor& descriptor_;
  const qx::log::JournalLog* journal_ = nullptr;  // the handle with unified logging,
  const qx::log::ASLClient* client_ = nullptr;    // and without
  ASLMessage* preparedMessage_ = nullptr;
  ASLLog* lateLog_ = nullptr;  // made for a thread that has none any more; owned
  std::uint32_t evaluation_ = 0;
  PLVLogType type_;
};
