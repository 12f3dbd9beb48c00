// Stores of earlier releases: taken over at the first start, and removed.
#include <gtest/gtest.h>
#include <unistd.h>

#include "Tests/Sources/AccessorTesting.h"
#include "Tests/Support/ChildProcess.h"

namespace qx::test {
namespace {

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
