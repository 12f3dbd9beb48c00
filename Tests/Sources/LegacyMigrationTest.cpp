// Stores of earlier releases: taken over at the first start, and removed. Those of earlier versions of the
// model are brought up to date, there and in the present place.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include <QXEventStoring/Platform/PredicateBuilder.h>

#include "Tests/ObjectStore/OldStore.h"
#include "Tests/Sources/AccessorTesting.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/RawDatabase.h"

namespace qx::test {
namespace {

ManagedObjectModelPtr firstModel() {
  return ManagedObjectModel::load(
      Bundle::library().resourcePath("QXStoreModel", "mom", "QXStoreModel.momd").value_or(""));
}

/// A limit of the process's while it lives.
class Limit {
 public:
  Limit(__rlimit_resource resource, rlim_t most) : resource_(resource) {
    ::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(resource_, &before_);
    const rlimit limit{most, before_.rlim_max};
    ::setrlimit(resource_, &limit);
  }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;
  ~Limit() { ::setrlimit(resource_, &before_); }

 private:
  __rlimit_resource resource_;
  rlimit before_{};
};

/// No file can grow past `bytes`, as on a disk that has no more room, while it lives.
class NoRoom : public Limit {
 public:
  explicit NoRoom(rlim_t bytes) : Limit(RLIMIT_FSIZE, bytes) {}
};

class LegacyMigration : public AccessorTest {
 protected:
  fs::path legacyDirectory() const { return legacy().parent_path(); }

  /// A store whose rows are still in its write-ahead log, as a process that was killed leaves it.
  void makeLegacyStore() const {
    fs::create_directories(legacyDirectory());
    ChildProcess writer([this](const ChildProcess::Line&) -> int {
      const auto coordinator = std::make_shared<PersistentStoreCoordinator>(currentModel());
      coordinator->addPersistentStore(
          kSQLiteStoreType, legacy(),
          {{std::string(kSQLitePragmasOption), Dictionary{{"journal_mode", "WAL"}}}});
      ManagedObjectContext context(coordinator);
      context.insert(kDestinationAppEntity)->setValue(kDestinationAppPath, "/from/legacy");
      ::_exit(context.save() ? 0 : 1);  // closes nothing
    });
    ASSERT_EQ(writer.exitStatus(), 0);
    ASSERT_GT(fs::file_size(legacy().string() + "-wal"), 0U);
  }
};

TEST_F(LegacyMigration, BringsAStoreOfTheFirstVersionUpToDateOnTheWay) {
  constexpr int kEvents = 10'000;
  fs::create_directories(legacyDirectory());
  ChildProcess writer(
      [this](const ChildProcess::Line&) -> int { dieWithLog(firstModel(), legacy(), kEvents); });
  ASSERT_EQ(writer.exitStatus(), 0);
  ASSERT_GT(fs::file_size(legacy().string() + "-wal"), 0U);
  ASSERT_TRUE(accessor().isPersistentStoreCreated());
  EXPECT_EQ(accessor().countOfManagedObjects(kEventEntity, nullptr, nullptr), kEvents);
  const std::lock_guard guard(accessor());
  const auto last = accessor().getManagedObjects(kEventEntity, key("eventID") == "EVENT-9999");
  ASSERT_EQ(last->size(), 1U);
  EXPECT_EQ(last->front()->rowNumber(), kEvents + 1);
  EXPECT_EQ(last->front()->value(kEventVersionNo), Value(std::int64_t{0}));
  EXPECT_EQ(last->front()->related(kEventClass)->value(kEventClassID), Value("com.qx.old.class0"));
  EXPECT_TRUE(accessor().isStoreMetaDataCompatible(nullptr));
  EXPECT_FALSE(fs::exists(under("/Users/Shared/Vantorix")));
}

TEST_F(LegacyMigration, KeepsTheRecordsWhenTheDiskIsFull) {
  fs::create_directories(legacyDirectory());
  makeOldStore(firstModel(), legacy(), 2'000);
  {
    const NoRoom room(64 << 10);
    EXPECT_FALSE(accessor().isPersistentStoreCreated());
    const std::lock_guard guard(accessor());
    ASSERT_NE(accessor().openingError(), nullptr);
    EXPECT_EQ(accessor().openingError()->code(), 778) << accessor().openingError()->summary();
    EXPECT_FALSE(accessor().createNewStore(nullptr));
    EXPECT_TRUE(accessor().handleError(100)) << "as a corrupt store that is not open";
  }
  EXPECT_FALSE(fs::exists(store())) << "a fresh store would keep the old one from being taken over";
  EXPECT_TRUE(fs::exists(legacy()));
  EXPECT_TRUE(accessor().createNewStore(nullptr));
  EXPECT_EQ(accessor().countOfManagedObjects(kEventEntity, nullptr, nullptr), 2'000U);
  EXPECT_FALSE(fs::exists(under("/Users/Shared/Vantorix")));
}

TEST_F(LegacyMigration, KeepsTheRecordsWhenNoStoreCanStandInTheNewPlace) {
  makeStore(legacy(), currentModel(), {"/from/legacy"});
  const fs::path maker = under("/Users/Shared/QX");
  const fs::path directory = store().parent_path();
  const bool isRoot = ::geteuid() == 0;
  ::chmod(root.path().c_str(), 0755);
  fs::create_directories(under("/elsewhere"));
  const std::vector<std::pair<const char*, std::function<void()>>> places{
      {"a file above", [&] { writeFile(maker, ""); }},
      {"a file", [&] { writeFile(directory, ""); }},
      {"a link", [&] { fs::create_directory_symlink(under("/elsewhere"), directory); }},
      {"a link above", [&] { fs::create_directory_symlink(under("/elsewhere"), maker); }},
      {"a link that leads nowhere", [&] { fs::create_directory_symlink(under("/nowhere"), directory); }},
      {"nothing", [&] {}},
      {"another user's",
       [&] {
         fs::create_directories(directory);
         ::chmod(directory.c_str(), 0555);
         EXPECT_TRUE(!isRoot || ::seteuid(65534) == 0);
       }},
  };
  for (const auto& [name, spoil] : places) {
    SCOPED_TRACE(name);
    if (std::string_view(name) != "a file above") fs::create_directories(maker);
    if (std::string_view(name) == "a link above") fs::remove(maker);
    spoil();
    EXPECT_FALSE(accessor().updateStoreWithPath(store()));
    EXPECT_TRUE(!isRoot || ::seteuid(0) == 0);
    EXPECT_TRUE(fs::exists(legacy()));
    EXPECT_FALSE(fs::exists(store()));
    fs::remove_all(maker);
  }
  EXPECT_TRUE(accessor().createNewStore(nullptr));
  EXPECT_EQ(applications(), std::set<std::string>{"/from/legacy"});
  EXPECT_FALSE(fs::exists(under("/Users/Shared/Vantorix")));
}

TEST_F(LegacyMigration, LeavesTheOldStoreToTheProcessThatMadeTheNewOne) {
  makeStore(store(), currentModel(), {"/by/another"});
  makeStore(legacy(), currentModel(), {"/from/legacy"});
  EXPECT_TRUE(accessor().updateStoreWithPath(under("/not-yet-there"))) << "the store came up in between";
  EXPECT_EQ(applications(), std::set<std::string>{"/by/another"});
  EXPECT_TRUE(fs::exists(legacy()));
}

/// Opens the store with one more descriptor each time, from none, until that works; looks after each failure.
/// How often it failed.
int failuresForWantOfDescriptors(const std::function<bool()>& open, const std::function<void()>& look) {
  for (int failures = 0; failures < 100; ++failures) {
    const Limit few(RLIMIT_NOFILE, static_cast<rlim_t>(failures));
    if (open()) return failures;
    look();
  }
  return -1;
}

TEST_F(LegacyMigration, KeepsTheRecordsWhenTheProcessHasNoDescriptorLeft) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer looks at memory through pipes, which need descriptors";
#endif
  fs::create_directories(legacyDirectory());
  makeOldStore(firstModel(), legacy(), 5);
  writeFile(under("/Users/Shared/QX"), "in the way until the accessor is up");
  EXPECT_FALSE(accessor().isPersistentStoreCreated());
  fs::remove(under("/Users/Shared/QX"));
  accessor().createDirectory();
  const auto open = [&] { return accessor().updateStoreWithPath(store()); };
  const auto expectKept = [&] { EXPECT_TRUE(fs::exists(legacy()) && !fs::exists(store())); };
  EXPECT_GT(failuresForWantOfDescriptors(open, expectKept), 3);
  EXPECT_EQ(accessor().countOfManagedObjects(kEventEntity, nullptr, nullptr), 5U);

  // In its place, where a repair takes it for corrupt.
  makeOldStore(firstModel(), under("/old"), 7);
  fs::rename(under("/old"), store());
  const auto repair = [&] { EXPECT_FALSE(accessor().removeCorruptedStore(nullptr)); };
  EXPECT_GT(failuresForWantOfDescriptors(open, repair), 3);
  EXPECT_EQ(accessor().countOfManagedObjects(kEventEntity, nullptr, nullptr), 7U);
}

TEST_F(LegacyMigration, IsDoneInPlaceForAStoreInThePresentPlace) {
  fs::create_directories(store().parent_path());
  makeOldStore(firstModel(), store(), 2'000);
  {
    const NoRoom room(64 << 10);
    EXPECT_FALSE(accessor().isPersistentStoreCreated());
    ErrorPtr error;
    EXPECT_FALSE(accessor().isStoreMetaDataCompatible(&error));
    EXPECT_EQ(error->code(), 259);
    EXPECT_FALSE(accessor().removeCorruptedStore(nullptr)) << "it is not corrupt";
    EXPECT_FALSE(accessor().updateStoreWithPath(store()));
  }
  EXPECT_TRUE(accessor().updateStoreWithPath(store()));
  EXPECT_TRUE(accessor().isStoreMetaDataCompatible(nullptr));
  EXPECT_EQ(accessor().countOfManagedObjects(kEventEntity, nullptr, nullptr), 2'000U);

  // One that is put there behind an open store.
  makeOldStore(firstModel(), under("/old"), 5);
  fs::rename(under("/old"), store());
  EXPECT_FALSE(accessor().handleError(100));
  EXPECT_EQ(accessor().countOfManagedObjects(kEventEntity, nullptr, nullptr), 5U);
}

TEST_F(LegacyMigration, TakesTheRecordsOverAndLeavesNothingBehind) {
  ASSERT_NO_FATAL_FAILURE(makeLegacyStore());
  for (const auto* name :
       {"~QXEventStore.qxstore", "~QXEventStore.qxstore-shm", "~QXEventStore.qxstore-wal"}) {
    writeFile(legacyDirectory() / name, "backup");
  }
  writeFile(legacyDirectory() / ".hidden", "");
  EXPECT_TRUE(accessor().isPersistentStoreCreated());
  EXPECT_EQ(applications(), std::set<std::string>{"/from/legacy"});
  EXPECT_EQ(modeOf(store()), 0666U);
  EXPECT_FALSE(fs::exists(under("/Users/Shared/Vantorix")));
  EXPECT_TRUE(fs::exists(under("/Users/Shared")));

  addApplication("/bin/true");
  EXPECT_TRUE(save());
  EXPECT_FALSE(fs::exists(store().string() + "-wal"));
}

TEST_F(LegacyMigration, KeepsTheRowNumbersOfRemovedRecords) {
  makeStore(legacy(), currentModel(), {"/from/legacy"});
  ASSERT_EQ(RawDatabase(legacy().string())("UPDATE Z_PRIMARYKEY SET Z_MAX = 80"), "");
  ASSERT_TRUE(accessor().isPersistentStoreCreated());
  const auto added = addApplication("/added");
  ASSERT_TRUE(save());
  EXPECT_EQ(added->rowNumber(), 81);
}

TEST_F(LegacyMigration, KeepsADirectoryWithOtherFiles) {
  makeStore(legacy(), currentModel(), {"/from/legacy"});
  writeFile(legacyDirectory() / "notes", "keep");
  EXPECT_EQ(applications(), std::set<std::string>{"/from/legacy"});
  EXPECT_EQ(contentsOf(legacyDirectory() / "notes"), "keep");
  EXPECT_FALSE(fs::exists(legacy()));
}

TEST_F(LegacyMigration, StartsFreshWhenTheOldStoreIsDamaged) {
  writeFile(legacy(), std::string(10'000, 'x'));
  CollectedLines lines(journal);
  EXPECT_TRUE(accessor().isPersistentStoreCreated());
  EXPECT_EQ(lines.take()[2], "Not nil");
  EXPECT_GT(eventClassCount(), 100U);
  EXPECT_EQ(applications(), std::set<std::string>());
  EXPECT_FALSE(fs::exists(under("/Users/Shared/Vantorix")));
  addApplication("/bin/true");
  EXPECT_TRUE(save());
}

TEST_F(LegacyMigration, IsNotTriedWhenThereIsAStore) {
  makeStore(store(), currentModel(), {"/current"});
  makeStore(legacy(), currentModel(), {"/from/legacy"});
  EXPECT_EQ(applications(), std::set<std::string>{"/current"});
  EXPECT_TRUE(fs::exists(legacy()));
}

TEST_F(LegacyMigration, RemovesALinkAndNotWhatItLeadsTo) {
  makeStore(under("/victim"), currentModel(), {"/from/victim"});
  fs::create_directories(legacyDirectory());
  fs::create_symlink(under("/victim"), legacy());
  writeFile(legacy().string() + "-shm", "left over");
  writeFile(legacy().string() + "-wal", "left over");
  EXPECT_EQ(applications(), std::set<std::string>());
  EXPECT_GT(eventClassCount(), 100U);
  EXPECT_FALSE(fs::exists(under("/Users/Shared/Vantorix")));
  EXPECT_TRUE(fs::exists(under("/victim")));
}

TEST_F(LegacyMigration, RemovesNothingThroughALinkedDirectory) {
  makeStore(under("/victim/QX Event Store/QXEventStore.qxstore"), currentModel(), {"/from/victim"});
  fs::create_symlink(under("/victim"), under("/Users/Shared/Vantorix"));
  EXPECT_EQ(applications(), std::set<std::string>());
  EXPECT_TRUE(fs::exists(legacy()));
}

}  // namespace
}  // namespace qx::test
