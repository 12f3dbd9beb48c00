#include "Logging/PLVLogCallContext.h"

#include "Logging/ASLLog.h"
#include "Logging/LogSubsystem.h"
#include "Logging/PLVFormatMessage.h"
#include "Logging/QuietCall.h"
#include "Logging/UnifiedLogging.h"

using qx::log::QuietCall;

void PLVLogCallContext::evaluate(const LogCategory* known) noexcept {
  try {
    const auto& category = known != nullptr ? *known : LogSubsystem::categoryForContext(descriptor_);
    if (known != nullptr || category.isWanted(type_)) chooseHandle(category);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a log line is never worth an operation
  }
}

void PLVLogCallContext::chooseHandle(const LogCategory& category) {
  if (qx::log::unifiedLogging()) {
    journal_ = &category.log();
  } else {
    evaluateOnSystemLog();
  }
}

void PLVLogCallContext::evaluateOnSystemLog() {
  const QuietCall quiet;
  auto* log = ASLLog::currentThread();
  if (log == nullptr) log = lateLog_ = new ASLLog;
  evaluation_ = log->client().evaluateSend(qx::log::levelOfLogType(type_));
  if ((evaluation_ & qx::log::ASLClient::kWanted) == 0) return;
  client_ = &log->client();
  preparedMessage_ = &log->preparedMessage();
}

void PLVLogCallContext::letGo() {
  delete lateLog_;
}

// Not part of its caller, so that the return address is in the calling image.
[[gnu::noinline]] void PLVLogCallContext::sendArguments(
    const PLVLogSource& source, std::string_view format,
    std::initializer_list<qx::log::Argument> arguments) const {
  const QuietCall quiet;
  const auto text = PLVFormatMessage(format, arguments);
  if (!text) return;
  if (journal_ != nullptr) return journal_->send(type_, source, *text);
  ASLLog::stampMessage(*preparedMessage_, descriptor_, type_, source, __builtin_return_address(0));
  client_->send(evaluation_, *preparedMessage_, qx::log::levelOfLogType(type_), *text);
}
