#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <QXEventStoring/Platform/Volume.h>

#include "Tests/Support/TemporaryDirectory.h"

namespace qx::test {

/// A temporary directory with "Users/Shared" in it that stands for "/" in this process, and for the home of
/// its user's preferences. Once per process, before the first use of the store.
class VolumeRoot {
 public:
  VolumeRoot() {
    std::filesystem::create_directories(path() + "/Users/Shared");
    ::setenv("XDG_CONFIG_HOME", (path() + "/config").c_str(), 1);
    ErrorPtr error;
    if (!setVolumeRoot(path(), &error)) throw std::runtime_error("no volume root: " + error->summary());
  }

  std::string path() const { return directory_.path(); }

 private:
  TemporaryDirectory directory_;
};

}  // namespace qx::test
