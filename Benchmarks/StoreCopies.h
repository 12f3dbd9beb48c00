#pragma once

#include <filesystem>
#include <string>

#include <QXEventStoring/QXEventStoring.h>

#include "Scenarios.h"

namespace benchmarks {

/// An exception with the error's text unless `succeeded`.
void require(bool succeeded, const std::string& what, const qx::ErrorPtr& error = nullptr);

/// Where the store of a volume root stands.
std::filesystem::path storePath(const std::filesystem::path& volumeRoot);

/// Puts a copy of the setting's store file where the library finds it below `volumeRoot`.
void installStore(const Setting& setting, const std::filesystem::path& volumeRoot);

/// This process's store: a copy of the setting's store file, open, below the setting's directory.
QXEventStore& openStoreCopy(const Setting& setting);

/// Another copy, for the yardstick.
std::string bareCopy(const Setting& setting);

}  // namespace benchmarks
