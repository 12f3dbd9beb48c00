#include "Platform/FileError.h"

#include <cerrno>
#include <string>
#include <system_error>

namespace qx {

namespace {

std::int64_t cocoaCode(FileAccess access, int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return 260;
    case EEXIST:
      return 516;
    case ENOSPC:
    case EDQUOT:
      return 640;
    case EACCES:
    case EPERM:
    case EROFS:
    case ELOOP:  // a symbolic link where none is followed
      return access == FileAccess::read ? 257 : 513;
    default:
      return access == FileAccess::read ? 256 : 512;
  }
}

}  // namespace

ErrorPtr makeFileError(FileAccess access, int errorNumber, std::string_view action, std::string_view path) {
  const std::string reason = std::generic_category().message(errorNumber);
  Error::Details details;
  details.description = "Could not ";
  details.description->append(action).append(" \"").append(path).append("\": ").append(reason).append(".");
  details.underlying = Error::make(kPOSIXErrorDomain, errorNumber, reason);
  return Error::make(kCocoaErrorDomain, cocoaCode(access, errorNumber), std::move(details));
}

}  // namespace qx
