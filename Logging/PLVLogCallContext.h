#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "Logging/PLVLogArgument.h"
#include "Logging/PLVLogCategoryDescriptor.h"
#include "Logging/PLVLogType.h"

class ASLMessage;

namespace qx::log {
class ASLClient;
class JournalLog;
}  // namespace qx::log

/// What one log call found out before it makes any text: whether the message is to be sent at all, and
/// through what. Made and used by one thread, within one call.
class PLVLogCallContext {
 public:
  PLVLogCallContext(PLVLogCategoryDescriptor& descriptor, PLVLogType type) noexcept;

  /// Whether the message is to be sent.
  explicit operator bool() const { return journal_ != nullptr || client_ != nullptr; }

  /// Formats and sends it; sends nothing when the format cannot be understood. Neither fails nor waits, and
  /// leaves errno alone. `source.function`: as __PRETTY_FUNCTION__ has it.
  [[gnu::noinline]] void send(const PLVLogSource& source, std::string_view format,
                              std::initializer_list<qx::log::Argument> arguments) const noexcept;

 private:
  void evaluate();
  void evaluateOnSystemLog();

  PLVLogCategoryDescriptor& descriptor_;
  const qx::log::JournalLog* journal_ = nullptr;  // the handle with unified logging,
  const qx::log::ASLClient* client_ = nullptr;    // and without
  ASLMessage* preparedMessage_ = nullptr;
  std::uint32_t evaluation_ = 0;
  PLVLogType type_;
};
