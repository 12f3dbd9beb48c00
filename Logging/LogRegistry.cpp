// How the images of a process find each other's registry.
//
// An inline variable of default visibility becomes a unique symbol (STB_GNU_UNIQUE): the dynamic linker
// gives all images one and the same, also those that were opened with RTLD_LOCAL and would not see each
// other's symbols otherwise.
#include "Logging/LogRegistry.h"

#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>

#include <QXEventStoring/Platform/Export.h>

#include "Logging/ASLClient.h"
#include "Logging/Backlog.h"
#include "Logging/JournalLog.h"
#include "Logging/LogUserDefaults.h"
#include "Logging/QuietCall.h"
#include "Logging/UnifiedLogging.h"
#include "Platform/ForkSafety.h"

extern "C" {
/// The registry of the first image that was loaded; null before.
inline QX_EXPORT constinit std::atomic<void*> com_qx_plv_loggingSubsystems = nullptr;
}

namespace qx::log {
namespace {

/// This image's. Never destroyed: threads may log while the process ends.
LogRegistry& ownRegistry() {
  static LogRegistry& registry = *new LogRegistry;
  return registry;
}

// A child of fork() has none of the threads that watch preferences or are due to read them again, so its
// levels begin anew. The lock is taken around the fork so that the child finds the tables whole.
void beforeFork() {
  ownRegistry().lock.lock();
}

void afterForkInParent() {
  ownRegistry().lock.unlock();
}

void afterForkInChild() {
  for (const auto& [name, subsystem] : ownRegistry().subsystems)
    subsystem->abandonLevels();
  LogUserDefaults::applicationUserDefaults().abandonLevel();
  LogUserDefaults::loggingUserDefaults().abandonLevel();
  ownRegistry().lock.unlock();
}

/// For the same reason as in load(): fork() waits for the lock. Not made earlier, since the volume root is
/// asked for; under the lock of this image, since that is where its other locks come after.
void makeTransport() {
  const std::lock_guard guard(ownRegistry().lock);
  unifiedLogging() ? JournalLog::transport() : ASLClient::transport();
}

/// The object of that name, made when the table has none; the table never holds one that is not whole.
template <typename Object, typename... Arguments>
Object& madeOnce(NameTable<Object>& table, const char* name, Arguments&... arguments) {
  const auto known = table.find(name);
  if (known != table.end()) return *known->second;
  return *table.emplace(name, std::make_unique<Object>(name, arguments...)).first->second;
}

__attribute__((constructor)) void loadImage() {
  LogSubsystem::load();
}

}  // namespace

LogRegistry& sharedLogRegistry() {
  auto* const first = static_cast<LogRegistry*>(com_qx_plv_loggingSubsystems.load(std::memory_order_acquire));
  return first != nullptr && first->layout == LogRegistry::kLayout ? *first : ownRegistry();
}

}  // namespace qx::log

void LogSubsystem::load() {
  static const bool once = [] {
    void* none = nullptr;
    com_qx_plv_loggingSubsystems.compare_exchange_strong(none, &qx::log::ownRegistry());
    // Made now, so that a child of fork() never meets them half made.
    qx::prepareForFork();
    LogUserDefaults::applicationUserDefaults();
    LogUserDefaults::loggingUserDefaults();
    qx::log::Backlog::prepare();
    ::pthread_atfork(qx::log::beforeFork, qx::log::afterForkInParent, qx::log::afterForkInChild);
    return true;
  }();
  static_cast<void>(once);
}

LogCategory& LogSubsystem::resolve(PLVLogCategoryDescriptor& context) {
  const qx::log::QuietCall quiet;
  load();
  qx::log::makeTransport();
  auto& registry = qx::log::sharedLogRegistry();
  const std::lock_guard guard(registry.lock);
  if (auto* const resolved = context.category().load()) return *resolved;
  auto& subsystem = qx::log::madeOnce(registry.subsystems, context.subsystemName());
  auto& category = qx::log::madeOnce(subsystem.categories(), context.categoryName(), subsystem);
  context.category().store(&category, std::memory_order_release);
  return category;
}
