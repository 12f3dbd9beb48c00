// What a failure of the store means to a caller: one of the library's errors, by the code of the failure and
// by what the disk and the file look like now. May be nothing: then there is nothing that a user could do.
#include <mutex>

#include <QXEventStoring/QXEventStore.h>

#include "Logging/EventStoreLog.h"
#include "Platform/Host.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXESErrorProvider.h"
#include "Sources/QXStoreCoordinator.h"
#include "Sources/QXStoreSchema.h"

namespace {

/// Codes of the layers below, in whatever domain they come.
enum FailureCode : std::int64_t {
  kConstraint = 19,    // SQLite: SQLITE_CONSTRAINT
  kWriteFailed = 778,  // SQLite: SQLITE_IOERR_WRITE
  kReadUnknown = 256,
  kNoPermission = 257,
  kFileCorrupt = 259,
  kFileMissing = 260,
  kSaveFailed = 134030,
  kOtherModel = 134100,
  kWriteNoPermission = 513,
};

constexpr double kFullBelowMegabytes = 1.0;
constexpr double kBytesPerMegabyte = 1'000'000.0;

/// The library's error of that code, with what lies underneath.
qx::ErrorPtr explained(std::int64_t code, const qx::ErrorPtr& underlying) {
  const qx::ErrorPtr error = QXESErrorProvider::errorWithCode(code);
  return qx::Error::make(QXEventStoreErrorDomain, code,
                         {.description = error->description(),
                          .suggestion = error->suggestion(),
                          .recoveryOptions = error->recoveryOptions(),
                          .recoveryAttempter = error->recoveryAttempter(),
                          .underlying = underlying,
                          .items = {}});
}

/// The library's error for one of the store layer's, where there is one. Repairs nothing.
qx::ErrorPtr explained(const qx::ErrorPtr& failure) {
  if (failure->domain() != qx::kCocoaErrorDomain) return failure;
  switch (failure->code()) {
    case kNoPermission:
      return explained(QXEventStoreErrorNoPermission, failure);
    case kFileCorrupt:
    case kOtherModel:
      return explained(QXEventStoreErrorCorrupted, failure);
    case kFileMissing:
      return explained(QXEventStoreErrorMissing, failure);
    default:
      return failure;
  }
}

/// Whether the store is of an earlier version and what kept it from being brought up to date may pass.
bool waitsForMigration(QXDatabaseAccessor& database) {
  const std::lock_guard lock(database);
  return database.isStoreToBeMigrated();
}

bool storeFileExists() {
  return qx::Host::current().fileExists(QXDatabaseAccessor::storePath());
}

}  // namespace

std::optional<double> QXStoreCoordinator::availableSpaceInDisk(std::string_view path, qx::ErrorPtr* error) {
  if (error != nullptr) return std::nullopt;
  const qx::Host& host = qx::Host::current();
  const std::optional<std::uint64_t> free = host.freeSize(host.resolve(path));
  if (!free) return std::nullopt;
  QXLogInfo("Free Space [%{public}@]", qx::Value(*free));
  return static_cast<double>(*free) / kBytesPerMegabyte;
}

bool QXStoreCoordinator::diskIsFull() {
  return availableSpaceInDisk("/").value_or(0) < kFullBelowMegabytes;
}

qx::ErrorPtr QXStoreCoordinator::generateError(const qx::ErrorPtr& storeFailure) {
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return storeFailure ? storeFailure : noStackError();
  const std::int64_t code = storeFailure ? storeFailure->code() : 0;
  switch (code) {
    case kConstraint:
    case kWriteFailed:
      return diskIsFull() ? QXESErrorProvider::errorWithCode(QXEventStoreErrorDiskFull) : nullptr;
    case kReadUnknown:
      QXLogInfo("THis is problem with permission");
      if (!database->isStoreWritable()) {
        return QXESErrorProvider::errorWithCode(QXEventStoreErrorNoPermission);
      }
      return diskIsFull() ? QXESErrorProvider::errorWithCode(QXEventStoreErrorDiskFull) : nullptr;
    case kFileCorrupt:
      if (waitsForMigration(*database) && diskIsFull())
        return QXESErrorProvider::errorWithCode(QXEventStoreErrorDiskFull);
      QXLogInfo("File corrupted error");
      return QXESErrorProvider::errorWithCode(QXEventStoreErrorCorrupted);
    case kFileMissing:
    case kSaveFailed: {
      const qx::ErrorPtr& underlying = storeFailure->underlying();
      return errorForUnavailableFile(underlying ? underlying->code() : 0, *database);
    }
    default:
      return errorForUnknownFailure(code, *database);
  }
}

/// The file could not be found, or not be written.
qx::ErrorPtr QXStoreCoordinator::errorForUnavailableFile(std::int64_t underlyingCode,
                                                         const QXDatabaseAccessor& accessor) {
  QXLogInfo("Error in store coordinator of missing:underlying execption = [%ld]", underlyingCode);
  if (!storeFileExists()) {
    QXLogInfo("File missing error");
    return QXESErrorProvider::errorWithCode(QXEventStoreErrorMissing);
  }
  if (underlyingCode == kWriteNoPermission || !accessor.isStoreWritable()) {
    QXLogInfo("File missing error:For Write permission");
    return QXESErrorProvider::errorWithCode(QXEventStoreErrorNoPermission);
  }
  if (diskIsFull()) return QXESErrorProvider::errorWithCode(QXEventStoreErrorDiskFull);
  QXLogInfo("File corrupted error");
  return QXESErrorProvider::errorWithCode(QXEventStoreErrorCorrupted);
}

/// Lets the accessor try a repair.
qx::ErrorPtr QXStoreCoordinator::errorForUnknownFailure(std::int64_t code, QXDatabaseAccessor& accessor) {
  QXLogInfo("Problem with corrupted store");
  const auto repairCode = static_cast<std::int32_t>(code);
  if (!accessor.isStoreWritable()) {
    accessor.handleError(repairCode);
    return QXESErrorProvider::errorWithCode(QXEventStoreErrorNoPermission);
  }
  if (!storeFileExists()) return QXESErrorProvider::errorWithCode(QXEventStoreErrorMissing);
  if (diskIsFull()) return QXESErrorProvider::errorWithCode(QXEventStoreErrorDiskFull);
  if (accessor.handleError(repairCode)) return QXESErrorProvider::errorWithCode(QXEventStoreErrorCorrupted);
  QXLogInfo("Handled correctly");
  return nullptr;
}

qx::ErrorPtr QXStoreCoordinator::storeError() {
  if (!storeFileExists()) return QXESErrorProvider::errorWithCode(QXEventStoreErrorMissing);
  QXDatabaseAccessor* const database = accessor();
  if (database == nullptr) return noStackError();
  if (!database->isStoreWritable()) return QXESErrorProvider::errorWithCode(QXEventStoreErrorNoPermission);
  qx::ErrorPtr reason;
  return database->isStoreMetaDataCompatible(&reason) ? reason : generateError(reason);
}

QXEventStoreStatus QXStoreCoordinator::status() {
  QXEventStoreStatus result;
  result.path = QXDatabaseAccessor::storePath();
  QXDatabaseAccessor* const database = accessor();
  if (const std::optional<qx::FileStatus> file = qx::Host::current().status(result.path)) {
    result.exists = true;
    result.size = file->size;
  }
  result.freeMegabytes = availableSpaceInDisk("/");
  if (database == nullptr) {
    result.problem = noStackError();
    return result;
  }
  result.writable =
      database->isStoreWritable() && (!result.exists || qx::Host::current().isWritable(result.path));
  result.compatible = database->isStoreMetaDataCompatible(&result.problem);
  const std::lock_guard lock(*database);
  result.open = database->isPersistentStoreCreated();
  const bool isKeptBack =
      !result.open && database->openingError() && (!result.exists || database->isStoreToBeMigrated());
  if (isKeptBack || (!result.problem && !result.open)) result.problem = database->openingError();
  if (!result.exists) {
    result.problem = explained(QXEventStoreErrorMissing, result.problem);
  } else if (!result.writable) {
    result.problem = explained(QXEventStoreErrorNoPermission, result.problem);
  } else if (result.problem) {
    result.problem = explained(result.problem);
  } else if (!result.open) {
    result.problem = QXESErrorProvider::errorWithCode(QXEventStoreErrorCorrupted);
  }
  for (const std::string_view entity : {kEventEntity, kEventClassEntity, kSourceEntity,
                                        kLocalizedSourceEntity, kDestinationAppEntity, kBlockedEventEntity}) {
    qx::ErrorPtr failure;
    const std::uint64_t count = database->countOfManagedObjects(entity, nullptr, &failure);
    const bool isCounted = count != qx::ManagedObjectContext::kNotFound;
    result.rows.push_back({std::string(entity), isCounted ? std::optional(count) : std::nullopt});
    if (isCounted && entity == kBlockedEventEntity) result.blocks = count;
  }
  return result;
}
