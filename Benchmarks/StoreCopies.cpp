#include "StoreCopies.h"

#include <stdexcept>

namespace benchmarks {

namespace fs = std::filesystem;

void require(bool succeeded, const std::string& what, const qx::ErrorPtr& error) {
  if (succeeded) return;
  throw std::runtime_error(what + (error ? ": " + error->summary() : ""));
}

fs::path storePath(const fs::path& volumeRoot) {
  return volumeRoot / "Users/Shared/QX/QX Event Store/QXEventStore.qxstore";
}

void installStore(const Setting& setting, const fs::path& volumeRoot) {
  fs::create_directories(storePath(volumeRoot).parent_path());
  fs::copy_file(setting.storeFile, storePath(volumeRoot));
}

QXEventStore& openStoreCopy(const Setting& setting) {
  const fs::path root = setting.directory / "volume";
  installStore(setting, root);
  qx::ErrorPtr error;
  require(qx::setVolumeRoot(root.string(), &error), "setting the volume root", error);
  QXEventStore& store = QXEventStore::sharedQXEventStore();
  require(store.countOfEventsWithPredicate(nullptr, &error) == setting.stored, "opening the store", error);
  return store;
}

std::string bareCopy(const Setting& setting) {
  fs::path copy = setting.directory / "bare.sqlite";
  for (int number = 2; fs::exists(copy); ++number)
    copy = setting.directory / ("bare" + std::to_string(number) + ".sqlite");
  fs::copy_file(setting.storeFile, copy);
  return copy.string();
}

}  // namespace benchmarks
