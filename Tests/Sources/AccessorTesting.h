#pragma once

// What the tests of the database accessor share. The accessor lives as long as its process, so every test
// runs in a process of its own.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <QXEventStoring/Platform/Bundle.h>

#include "Logging/EventStoreLog.h"
#include "Logging/JournalLog.h"
#include "Logging/LogCategory.h"
#include "Logging/LogSubsystem.h"
#include "ObjectStore/ManagedObjectContext.h"
#include "Platform/DistributedNotificationCenter.h"
#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXStoreSchema.h"
#include "Tests/Support/LogSocket.h"
#include "Tests/Support/VolumeRoot.h"

namespace qx::test {

namespace fs = std::filesystem;

inline constexpr std::string_view kTestApplication = "com.qx.tests";

/// The text of every log line, in order, while it lives: as the journal's socket receives them.
class CollectedLines {
 public:
  explicit CollectedLines(LogSocket& journal) : journal_(journal) {
    category().setLevel(PLVLogLevel::Info);
    take();
  }
  ~CollectedLines() { category().setLevel(PLVLogLevel::NotLoaded); }
  CollectedLines(const CollectedLines&) = delete;
  CollectedLines& operator=(const CollectedLines&) = delete;

  /// What came since the last call.
  std::vector<std::string> take() {
    std::vector<std::string> lines;
    for (auto& line : takeFields())
      lines.push_back(std::move(line["MESSAGE"]));
    return lines;
  }

  /// The same, parted: what this thread wrote, and what others did.
  std::pair<std::vector<std::string>, std::vector<std::string>> takeByThread() {
    std::pair<std::vector<std::string>, std::vector<std::string>> parted;
    for (auto& line : takeFields()) {
      const bool isOwn = line["TID"] == std::to_string(::gettid());
      (isOwn ? parted.first : parted.second).push_back(std::move(line["MESSAGE"]));
    }
    return parted;
  }

 private:
  static LogCategory& category() { return LogSubsystem::categoryForContext(kEventStoreLog); }

  std::vector<std::map<std::string, std::string>> takeFields() {
    const std::string end = "(taken " + std::to_string(++taken_) + ")";
    QXLogInfo("%{public}@", end);
    const auto isEnd = [&](const std::string& datagram) { return journalFields(datagram)["MESSAGE"] == end; };
    EXPECT_TRUE(journal_.waitFor(isEnd));
    std::vector<std::map<std::string, std::string>> lines;
    for (const auto& datagram : journal_.take())
      lines.push_back(journalFields(datagram));
    std::erase_if(lines, [&](auto& line) { return line["MESSAGE"] == end; });
    return lines;
  }

  LogSocket& journal_;
  int taken_ = 0;
};

/// Every "File Updated" that is posted while it lives.
class FileUpdates {
 public:
  FileUpdates()
      : observation_(DistributedNotificationCenter::defaultCenter().addObserver(
            std::string(kFileUpdated), std::nullopt, [this](const Notification& notification) {
              const std::lock_guard guard(mutex_);
              received_.push_back(notification);
            })) {}

  std::vector<Notification> take() {
    EXPECT_TRUE(DistributedNotificationCenter::defaultCenter().drain(10'000));
    const std::lock_guard guard(mutex_);
    return std::exchange(received_, {});
  }

  /// Their error codes; 0 for one without.
  std::vector<std::int64_t> takeCodes() {
    std::vector<std::int64_t> codes;
    for (const auto& notification : take()) {
      EXPECT_EQ(notification.object, String(std::string(kTestApplication)));
      const auto* user = notification.userInfo.find(kFileUpdatedUserNameKey);
      EXPECT_TRUE(user != nullptr && *user == Value(Host::current().userName()));
      const auto* code = notification.userInfo.find(kFileUpdatedErrorCodeKey);
      codes.push_back(code != nullptr ? code->integerValue() : 0);
    }
    return codes;
  }

 private:
  std::mutex mutex_;
  std::vector<Notification> received_;  // guarded by mutex_
  Observation observation_;
};

inline std::string contentsOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

inline void writeFile(const fs::path& path, const std::string& contents) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << contents;
}

inline mode_t modeOf(const fs::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

inline std::string seedPath() {
  return Bundle::library().resourcePath("EventClassStore", "qxstore").value_or("");
}

inline ManagedObjectModelPtr currentModel() {
  return ManagedObjectModel::load(
      Bundle::library().resourcePath("QXStoreModel 3", "mom", "QXStoreModel.momd").value_or(""));
}

/// Makes a store file at `path`, with one destination application of each of `names`.
inline void makeStore(const fs::path& path, const ManagedObjectModelPtr& model,
                      const std::vector<std::string>& names, const std::string& journalMode = "DELETE") {
  fs::create_directories(path.parent_path());
  const auto coordinator = std::make_shared<PersistentStoreCoordinator>(model);
  ErrorPtr error;
  ASSERT_NE(coordinator->addPersistentStore(
                kSQLiteStoreType, path,
                {{std::string(kSQLitePragmasOption), Dictionary{{"journal_mode", journalMode}}}}, &error),
            nullptr)
      << error->summary();
  ManagedObjectContext context(coordinator);
  for (const auto& name : names)
    context.insert(kDestinationAppEntity)->setValue(kDestinationAppPath, name);
  ASSERT_TRUE(context.save(&error)) << error->summary();
}

/// A volume root of its own, and names for what stands in it.
class AccessorTest : public ::testing::Test {
 protected:
  AccessorTest() { Bundle::setMainBundleIdentifier(kTestApplication); }

  static QXDatabaseAccessor& accessor() {
    auto* const shared = QXDatabaseAccessor::sharedDBAccessor();
    if (shared == nullptr) throw std::runtime_error("no database accessor");
    return *shared;
  }

  fs::path under(std::string_view fixedPath) const { return root.path() + std::string(fixedPath); }
  fs::path store() const { return under(kEventStorePath); }
  fs::path legacy() const { return under(kLegacyEventStorePath); }

  /// Paths of the stored destination applications, read through the accessor.
  static std::set<std::string> applications() {
    const std::lock_guard guard(accessor());
    std::set<std::string> paths;
    const auto found = accessor().getManagedObjects(kDestinationAppEntity, nullptr);
    if (!found) return {"fetch failed"};
    for (const auto& object : *found) {
      paths.insert(object->value(kDestinationAppPath).stringValue().value_or("(none)"));
    }
    return paths;
  }

  static ManagedObjectPtr addApplication(const std::string& path) {
    const std::lock_guard guard(accessor());
    auto object = accessor().createManagedObject(kDestinationAppEntity);
    if (object) object->setValue(kDestinationAppPath, path);
    return object;
  }

  static bool save(ErrorPtr* error = nullptr) {
    const std::lock_guard guard(accessor());
    return accessor().saveEventToStore(error);
  }

  static std::uint64_t eventClassCount() {
    return accessor().countOfManagedObjects(kEventClassEntity, nullptr, nullptr);
  }

  VolumeRoot root;
  LogSocket journal{root.path() + std::string(log::kJournalSocketPath)};
};

}  // namespace qx::test
