#pragma once

#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Export.h>

namespace qx {

/// Puts the machine-wide tree ("/Users/Shared/...") under `directory` instead of "/": for trying the
/// library out, and for tests, without touching the machine. Must be called before the first use of the
/// store; the directory must exist. False, with *error set, for a missing directory or when the root is
/// already in use. Any thread.
QX_EXPORT bool setVolumeRoot(std::string_view directory, ErrorPtr* error = nullptr);

/// The directory under which the machine-wide tree stands, with links resolved and no slash at its end:
/// empty for "/". Any thread.
QX_EXPORT std::string volumeRoot();

}  // namespace qx
