#pragma once

#include <functional>
#include <string>

#include <QXEventStoring/Platform/NotificationCenter.h>

namespace qx {

/// Calls `changed` on the background loop's thread whenever the file at `path` (absolute) may have been
/// made, rewritten (when the writer closes it), replaced or removed, or its attributes changed; directories
/// on the way to it may be missing at first and come and go, or be symbolic links. What happens after this
/// has returned is told; several changes at a time may be told once. inotify(7) tells; where the machine has
/// no more inotify instances or watches to give, or the user may not read a directory, the file is looked at
/// once a second. Watching ends with the Observation; `changed` does not run any more when it has been
/// destroyed (unless that is done inside `changed`). A forked process has none of its parent's watches. Any
/// thread.
Observation watchFile(const std::string& path, std::function<void()> changed);

}  // namespace qx
