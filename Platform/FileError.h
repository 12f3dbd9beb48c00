#pragma once

#include <string_view>

#include <QXEventStoring/Platform/Error.h>

namespace qx {

enum class FileAccess { read, write };

/// The error for a system call that failed on a file: NSCocoaErrorDomain with the POSIX error underneath.
/// Codes: 260 nothing there, 516 something there, 640 no space, 257 (reading) and 513 (writing) no right,
/// else 256 and 512. `action` completes "Could not ..." in the description: "remove", "start".
/// Codes: the public list of NSCocoaErrorDomain's file errors. Any thread.
ErrorPtr makeFileError(FileAccess access, int errorNumber, std::string_view action, std::string_view path);

}  // namespace qx
