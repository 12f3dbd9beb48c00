#pragma once

#include <cstdint>
#include <string>

#include <QXEventStoring/Platform/Error.h>

struct sqlite3;

namespace qx {

/// What was being done when SQLite failed: the same result code means different things.
enum class StoreOperation { open, read, save };

// Codes of NSCocoaErrorDomain that the store's callers tell failures by.
inline constexpr std::int64_t kStoreReadFailed = 256;
inline constexpr std::int64_t kStoreNoPermission = 257;
inline constexpr std::int64_t kStoreCorrupt = 259;
inline constexpr std::int64_t kStoreMissing = 260;
inline constexpr std::int64_t kStoreWriteFailed = 512;
inline constexpr std::int64_t kStoreNoWritePermission = 513;
inline constexpr std::int64_t kStoreFileExists = 516;
inline constexpr std::int64_t kStoreOutOfSpace = 640;
inline constexpr std::int64_t kStoreVolumeReadOnly = 642;
inline constexpr std::int64_t kStoreSaveRefused = 134030;
inline constexpr std::int64_t kStoreUnusable =
    134060;  // no store, unknown entity or key; replaced while opened
inline constexpr std::int64_t kStoreOfAnotherModel = 134100;

/// The one table from SQLite's result codes to the platform's:
///
///   damaged, not a database, a table missing,
///   a symbolic link                             259
///   cannot open: missing / no right             260 / 257
///   no right: reading / saving                  257 / 134030 with 513 underneath
///   write I/O error                             778   (NSSQLiteErrorDomain)
///   constraint                                  19    (NSSQLiteErrorDomain)
///   anything else                               SQLite's own (extended) code in NSSQLiteErrorDomain
///
/// `code` is an extended result code (https://sqlite.org/rescode.html), `system` the errno that goes with
/// it. The description names the path and SQLite's words.
ErrorPtr storeError(int code, int system, StoreOperation operation, const std::string& path,
                    const std::string& words);

/// The same, for the last failure of a connection.
ErrorPtr storeError(sqlite3* connection, StoreOperation operation, const std::string& path);

/// Whether the failure says nothing of the file, and may be gone the next time: a full disk, an I/O error, a
/// file that another process has, rights or memory that are missing.
bool isPassingFailure(const Error& error);

/// An error of NSCocoaErrorDomain about the store file at `path`.
ErrorPtr storeError(std::int64_t cocoaCode, const std::string& path, const std::string& words);

}  // namespace qx
