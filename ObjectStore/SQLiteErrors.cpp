#include "ObjectStore/SQLiteErrors.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>

#include "ObjectStore/PredicateFunction.h"

namespace qx {

namespace {

constexpr int kWriteIOError = SQLITE_IOERR_WRITE;
static_assert(kWriteIOError == 778 && SQLITE_CONSTRAINT == 19, "codes that callers know by number");

Error::Details details(const std::string& path, const std::string& words, ErrorPtr underlying) {
  Error::Details result;
  result.description = "The event store \"" + path + "\": " + words + ".";
  result.underlying = std::move(underlying);
  return result;
}

ErrorPtr refusedSave(std::int64_t because, const std::string& path, const std::string& words) {
  return Error::make(kCocoaErrorDomain, kStoreSaveRefused,
                     details(path, words, Error::make(kCocoaErrorDomain, because, words)));
}

ErrorPtr cannotOpen(int code, int system, const std::string& path, const std::string& words) {
  if (code == SQLITE_CANTOPEN_SYMLINK)
    return storeError(kStoreCorrupt, path, "a symbolic link stands in its place or on the way to it");
  ErrorPtr underlying = system != 0 ? Error::make(kPOSIXErrorDomain, system, std::strerror(system)) : nullptr;
  const bool missing = system == ENOENT || system == ENOTDIR;
  const std::int64_t cocoaCode = missing ? kStoreMissing : kStoreNoPermission;
  const std::string what = missing ? "there is no such file" : words;
  return Error::make(kCocoaErrorDomain, cocoaCode, details(path, what, underlying));
}

}  // namespace

ErrorPtr storeError(std::int64_t cocoaCode, const std::string& path, const std::string& words) {
  return Error::make(kCocoaErrorDomain, cocoaCode, details(path, words, nullptr));
}

ErrorPtr storeError(int code, int system, StoreOperation operation, const std::string& path,
                    const std::string& words) {
  const bool saving = operation == StoreOperation::save;
  switch (code & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return storeError(kStoreCorrupt, path, words);
    case SQLITE_ERROR:  // our statements are right: what they speak of is not there
      if (words == RowCondition::kUndecided) return storeError(kStoreUnusable, path, words);
      if (words.starts_with("no such ")) return storeError(kStoreCorrupt, path, words);
      return Error::make(kSQLiteErrorDomain, code, details(path, words, nullptr));
    case SQLITE_CANTOPEN:
      if (saving && code != SQLITE_CANTOPEN_SYMLINK) return refusedSave(kStoreNoWritePermission, path, words);
      return cannotOpen(code, system, path, words);
    case SQLITE_READONLY:
      if (code == SQLITE_READONLY_DBMOVED)
        return Error::make(kSQLiteErrorDomain, code, details(path, words, nullptr));
      [[fallthrough]];
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return saving ? refusedSave(kStoreNoWritePermission, path, words)
                    : storeError(kStoreNoPermission, path, words);
    case SQLITE_CONSTRAINT:
      return Error::make(kSQLiteErrorDomain, SQLITE_CONSTRAINT, details(path, words, nullptr));
    default:
      return Error::make(kSQLiteErrorDomain, code, details(path, words, nullptr));
  }
}

bool isPassingFailure(const Error& error) {
  if (error.domain() == kSQLiteErrorDomain) {
    switch (error.code() & 0xff) {
      case SQLITE_PERM:
      case SQLITE_BUSY:
      case SQLITE_LOCKED:
      case SQLITE_NOMEM:
      case SQLITE_READONLY:
      case SQLITE_INTERRUPT:
      case SQLITE_IOERR:
      case SQLITE_FULL:
      case SQLITE_CANTOPEN:
      case SQLITE_PROTOCOL:
      case SQLITE_AUTH:
        return true;
      default:
        return false;
    }
  }
  if (error.domain() != kCocoaErrorDomain) return false;
  switch (error.code()) {
    case kStoreReadFailed:
    case kStoreNoPermission:
    case kStoreWriteFailed:
    case kStoreNoWritePermission:
    case kStoreOutOfSpace:
    case kStoreVolumeReadOnly:
    case kStoreSaveRefused:
    case kStoreUnusable:
      return true;
    default:
      return false;
  }
}

ErrorPtr storeError(sqlite3* connection, StoreOperation operation, const std::string& path) {
  return storeError(sqlite3_extended_errcode(connection), sqlite3_system_errno(connection), operation, path,
                    sqlite3_errmsg(connection));
}

}  // namespace qx
