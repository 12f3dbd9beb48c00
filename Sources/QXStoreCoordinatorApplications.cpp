// Applications that ask to be started when an event arrives. Registrations are rows with a path, exactly as
// it was given; a relative one is looked for in the directory of this library.
#include <filesystem>
#include <mutex>
#include <utility>

#include <QXEventStoring/Platform/Bundle.h>

#include "Logging/EventStoreLog.h"
#include "Platform/Host.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXESErrorProvider.h"
#include "Sources/QXStoreChangeScope.h"
#include "Sources/QXStoreCoordinator.h"
#include "Sources/QXStoreCoordinatorSupport.h"
#include "Sources/QXStoreSchema.h"

using qx::coordinator::equals;
using qx::coordinator::strings;

namespace {

constexpr std::int64_t kUnknownReadError = 256;
constexpr std::int64_t kPersistentStoreSaveError = 134030;

/// The code of the library for a failed save of a registration.
std::int64_t codeForSaveFailure(std::int64_t saveCode) {
  if (saveCode == kUnknownReadError) return QXEventStoreErrorNoPermission;
  if (saveCode == kPersistentStoreSaveError) return QXEventStoreErrorMissing;
  return QXEventStoreErrorCorrupted;
}

std::string resolvedPath(const std::string& path) {
  if (path.starts_with('/')) return path;
  const std::string joined = qx::Bundle::library().path() + "/" + path;
  std::string standardised = std::filesystem::path(joined).lexically_normal().string();
  if (standardised.size() > 1 && standardised.ends_with('/')) standardised.pop_back();
  return standardised;
}

}  // namespace

bool QXStoreCoordinator::storeApplicationPath(const qx::String& path, qx::ErrorPtr* error) {
  if (!path || path->empty() || !qx::Host::current().fileExists(*path)) {
    qx::setError(error,
                 QXESErrorProvider::errorWithDescription(QXEventStoreErrorNotInStore, "The path is invalid"));
    return false;
  }
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) {
    qx::setError(error, generateError(noStackError()));
    return false;
  }
  qx::ErrorPtr failure;
  bool isStored = false;
  {
    const ChangeScope change(*this, *database);
    const bool isKnown = firstObject(kDestinationAppEntity, equals(kDestinationAppPath, path)) != nullptr;
    const qx::ManagedObjectPtr row = isKnown ? nullptr : database->createManagedObject(kDestinationAppEntity);
    if (row) {
      row->setValue(kDestinationAppPath, *path);
      isStored = database->saveEventToStore(&failure);
    }
  }
  if (isStored || error == nullptr) return isStored;
  // A path that is registered already ends here too, with no save and so with code 0.
  const std::int64_t saveCode = failure ? failure->code() : 0;
  const std::int64_t code = codeForSaveFailure(saveCode);
  *error = QXESErrorProvider::errorWithCode(code);
  if (code == QXEventStoreErrorCorrupted) database->handleError(static_cast<std::int32_t>(saveCode));
  return false;
}

// Success comes with an error in the slot: callers look at the result first.
bool QXStoreCoordinator::removeApplicationPath(const qx::String& path, qx::ErrorPtr* error) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) {
    qx::setError(error, generateError(noStackError()));
    return false;
  }
  qx::ErrorPtr failure;
  bool isSaved = false;
  {
    const ChangeScope change(*this, *database);
    const qx::ManagedObjectPtr row = firstObject(kDestinationAppEntity, equals(kDestinationAppPath, path));
    if (!row) return false;
    database->removeObject(row);
    isSaved = database->saveEventToStore(&failure);
  }
  if (isSaved) {
    qx::setError(error, QXESErrorProvider::errorWithDescription(
                            QXEventStoreErrorNotInStore, "Application path is not present in the store."));
  } else if (error != nullptr) {
    *error = QXESErrorProvider::errorWithCode(codeForSaveFailure(failure ? failure->code() : 0));
  }
  return isSaved;
}

qx::ManagedObjects QXStoreCoordinator::getAllDestinationApplications() {
  return allObjects(kDestinationAppEntity, nullptr);
}

bool QXStoreCoordinator::isApplicationAtPathLaunched(const std::string& path) {
  const qx::String listing = qx::Host::current().processListing();
  return listing && listing->find(path) != std::string::npos;
}

// The accessor's lock is held all the time, so that two threads never start the same application at once.
bool QXStoreCoordinator::launchApplicationsWithArgument(const std::string& argument) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return false;
  bool result = true;
  const std::lock_guard lock(*database);
  for (const std::string& registered : strings(getAllDestinationApplications(), kDestinationAppPath)) {
    const std::string path = resolvedPath(registered);
    if (!qx::Host::current().fileExists(path) || isApplicationAtPathLaunched(path)) continue;
    result = launchApplication(path, argument) && result;
  }
  return result;
}

bool QXStoreCoordinator::launchApplication(const std::string& path, const std::string& argument) {
  QXLogInfo("Application [%{public}@] is not launched. Need to launch it now", path);
  const std::unique_ptr<qx::Bundle> bundle = qx::Bundle::atPath(path);
  const qx::String program = bundle ? bundle->executablePath() : path;
  QXLogInfo("Launch the  application= %{public}@", program);
  qx::ErrorPtr failure;
  if (!program) {
    failure =
        qx::Error::make(qx::kCocoaErrorDomain, 4, "The application \"" + path + "\" has no executable.");
  } else if (qx::Host::current().startDetached(*program, {"-eventID", argument}, &failure)) {
    return true;
  }
  QXLogInfo("Exception called [%{public}@]", failure);
  return false;
}
