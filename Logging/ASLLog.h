#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Logging/ASLClient.h"
#include "Logging/ASLMessage.h"
#include "Logging/PLVLogCategoryDescriptor.h"
#include "Logging/PLVLogType.h"
#include "Logging/ValueDecoders.h"

/// What one thread needs to log on a machine without journald: a client of the system log, and a message that
/// is stamped anew for each line. Not shared between threads.
class ASLLog {
 public:
  /// The calling thread's, made on first use; null once the thread has let go of what is its own, as the main
  /// thread has when the functions of atexit(3) run.
  static ASLLog* currentThread();

  const qx::log::ASLClient& client() const { return client_; }
  const ASLMessage& message() const { return message_; }
  /// The message, with the process and the thread in it: "PLVProcessImagePath", "PLVThreadID".
  ASLMessage& preparedMessage();

  /// Sets what is of one line alone. `caller`: an address in the calling code, whose image is named.
  static void stampMessage(ASLMessage& message, const PLVLogCategoryDescriptor& descriptor, PLVLogType type,
                           const PLVLogSource& source, const void* caller);

  /// Class, address, client and the prepared message's keys, for debugging.
  std::string description();

  /// Decoders of annotated values; each takes the formatted value.
  static std::optional<std::string> decodeValue_private(std::string_view value,
                                                        const qx::log::ReadableMemory& memory);
  static std::optional<std::string> decodeValue_errno(std::string_view value,
                                                      const qx::log::ReadableMemory& memory);
  static std::optional<std::string> decodeValue_BOOL(std::string_view value,
                                                     const qx::log::ReadableMemory& memory);
  static std::optional<std::string> decodeValue_bool(std::string_view value,
                                                     const qx::log::ReadableMemory& memory);
  static std::optional<std::string> decodeValue_uuid_t(std::string_view value,
                                                       const qx::log::ReadableMemory& memory);
  /// The decoder for an annotation's word; null when there is none.
  static qx::log::ValueDecoder valueDecodeSelectorForType(std::string_view type);

 private:
  qx::log::ASLClient client_;
  ASLMessage message_;
  pid_t preparedBy_ = 0;  // the process whose thread the message names
};
