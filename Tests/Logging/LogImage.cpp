// An image of its own that carries the logging layer: what another library of the same maker is.
#include <QXEventStoring/Platform/Volume.h>

#include "Logging/LogCategory.h"
#include "Logging/LogSubsystem.h"
#include "Logging/PLVLog.h"

namespace {
constinit PLVLogCategoryDescriptor descriptor{"com.qx.device.monitoring", "event-store"};
constinit PLVLogCategoryDescriptor other{"com.qx.device.monitoring", "another"};
}  // namespace

extern "C" {
__attribute__((visibility("default"))) bool setImagesVolumeRoot(const char* directory) {
  return qx::setVolumeRoot(directory);
}
__attribute__((visibility("default"))) void* resolvedCategory() {
  return &LogSubsystem::categoryForContext(descriptor);
}
__attribute__((visibility("default"))) void* resolvedOther() {
  return &LogSubsystem::categoryForContext(other);
}
__attribute__((visibility("default"))) void* codeOfImage() {
  return reinterpret_cast<void*>(&LogSubsystem::load);
}
__attribute__((visibility("default"))) bool sendsDebug() {
  return static_cast<bool>(PLVLogCallContext(descriptor, PLVLogType::Debug));
}
__attribute__((visibility("default"))) void setDebugLevel() {
  LogSubsystem::categoryForContext(descriptor).subsystem().setLevel(PLVLogLevel::Debug);
}
}
