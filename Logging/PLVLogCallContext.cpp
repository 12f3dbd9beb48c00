#include "Logging/PLVLogCallContext.h"

#include <string>

#include "Logging/ASLLog.h"
#include "Logging/KeptErrno.h"
#include "Logging/LogSubsystem.h"
#include "Logging/MethodName.h"
#include "Logging/PLVFormatMessage.h"
#include "Logging/UnifiedLogging.h"

using qx::log::KeptErrno;

PLVLogCallContext::PLVLogCallContext(PLVLogCategoryDescriptor& descriptor, PLVLogType type) noexcept
    : descriptor_(descriptor), type_(type) {
  try {
    evaluate();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a log line is never worth an operation
  }
}

void PLVLogCallContext::evaluate() {
  const auto& category = LogSubsystem::categoryForContext(descriptor_);
  if (!qx::log::unifiedLogging()) {
    if (category.logsType(type_)) evaluateOnSystemLog();
  } else if (category.log().isTypeEnabled(type_) && category.logsType(type_)) {
    journal_ = &category.log();
  }
}

void PLVLogCallContext::evaluateOnSystemLog() {
  const KeptErrno kept;
  auto* const log = ASLLog::currentThread();
  if (log == nullptr) return;
  evaluation_ = log->client().evaluateSend(qx::log::levelOfLogType(type_));
  if ((evaluation_ & qx::log::ASLClient::kWanted) == 0) return;
  client_ = &log->client();
  preparedMessage_ = &log->preparedMessage();
}

void PLVLogCallContext::send(const PLVLogSource& source, std::string_view format,
                             std::initializer_list<qx::log::Argument> arguments) const noexcept {
  const KeptErrno kept;
  try {
    const auto text = PLVFormatMessage(format, arguments);
    if (!text) return;
    const auto function = qx::log::methodName(source.function);
    const PLVLogSource named{source.file, source.line, function.c_str()};
    if (journal_ != nullptr) return journal_->send(type_, named, *text);
    ASLLog::stampMessage(*preparedMessage_, descriptor_, type_, named, __builtin_return_address(0));
    client_->send(evaluation_, *preparedMessage_, qx::log::levelOfLogType(type_), *text);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a log line is never worth an operation
  }
}
