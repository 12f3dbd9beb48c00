#include "ObjectStore/PersistentStoreCoordinator.h"

#include <sys/stat.h>

#include <filesystem>

#include "Tests/ObjectStore/StoreFixture.h"

namespace qx::test {
namespace {

using PersistentStoreCoordinatorTest = StoreTest;

TEST_F(PersistentStoreCoordinatorTest, MakesAFileInThePublishedLayout) {
  const Stack stack(path_);
  ASSERT_NE(stack.store, nullptr);
  const RawDatabase raw(path_);
  EXPECT_EQ(
      raw("SELECT group_concat(name) FROM (SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY "
          "name)"),
      "ZQXBLOCKEDEVENT,ZQXDESTINATIONAPPLICATION,ZQXEVENT,ZQXEVENTCLASS,ZQXEVENTSOURCE,"
      "ZQXLOCALIZEDSOURCE,Z_METADATA,Z_PRIMARYKEY");
  EXPECT_EQ(raw("SELECT group_concat(name) FROM pragma_table_info('ZQXEVENT')"),
            "Z_PK,Z_ENT,Z_OPT,ZEVENTID,ZEVENTREADSTATUS,ZEVENTTRIGGERTIME,ZEVENTCURRENTSTATE,"
            "ZEVENTVERSIONNUMBER,ZEVENTSOURCEID,ZEVENTADDITIONALINFO,ZEVENTCLASS");
  EXPECT_EQ(raw("SELECT group_concat(Z_ENT || Z_NAME || Z_MAX) FROM Z_PRIMARYKEY"),
            "1QXBlockedEvent0,2QXDestinationApplication0,3QXEvent0,4QXEventClass0,5QXEventSource0,"
            "6QXLocalizedSource0");
  EXPECT_EQ(raw("SELECT Z_UUID FROM Z_METADATA"), stack.store->identifier());
  EXPECT_EQ(raw("PRAGMA journal_mode"), "delete");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_.path()), {}), 1)
      << "nothing but the store is left beside it";
}

TEST_F(PersistentStoreCoordinatorTest, ReadsMetadataWithoutOpeningAndWhileItIsOpen) {
  ErrorPtr error;
  EXPECT_FALSE(PersistentStoreCoordinator::metadataForPersistentStore(path_, &error));
  EXPECT_EQ(error->code(), 260);
  std::string uuid;
  {
    const Stack stack(path_);
    uuid = stack.store->identifier();
    EXPECT_EQ(PersistentStoreCoordinator::metadataForPersistentStore(path_)->uuid, uuid);
    // Replaced behind the open store's back: the file at the path is the one that counts.
    std::filesystem::rename(path_, path_ + ".old");
    EXPECT_FALSE(PersistentStoreCoordinator::metadataForPersistentStore(path_, &error));
    EXPECT_EQ(error->code(), 260);
    directory_.write("Store File.qxstore", "this is no database, whatever its name says. ");
    EXPECT_FALSE(PersistentStoreCoordinator::metadataForPersistentStore(path_, &error));
    EXPECT_EQ(error->code(), 259);
    std::filesystem::rename(path_ + ".old", path_);
  }
  const auto metadata = PersistentStoreCoordinator::metadataForPersistentStore(path_);
  ASSERT_TRUE(metadata);
  EXPECT_EQ(metadata->uuid, uuid);
  EXPECT_TRUE(productModel()->isCompatibleWith(*metadata));
}

TEST_F(PersistentStoreCoordinatorTest, MigratesRowsWithTheirNumbersIntoANewFile) {
  Stack stack(path_);
  auto eventClass = stack.context.insert("QXEventClass");
  eventClass->setValue("eventClassID", "c");
  for (const char* name : {"a", "b", "c"})
    stack.addEvent(name, eventClass);
  ASSERT_TRUE(stack.context.save());
  stack.context.remove(stack.find("a"));
  ASSERT_TRUE(stack.context.save());
  const std::string target = directory_ / "new.qxstore";
  ErrorPtr error;
  const auto migrated =
      stack.coordinator->migratePersistentStore(stack.store, target, {}, kSQLiteStoreType, &error);
  ASSERT_NE(migrated, nullptr) << error->summary();
  EXPECT_EQ(stack.coordinator->persistentStores(), std::vector<PersistentStorePtr>{migrated});
  EXPECT_NE(migrated->identifier(), stack.store->identifier());
  stack.context.reset();
  EXPECT_EQ(stack.find("b")->related("eventClass")->value("eventClassID"), Value("c"));
  EXPECT_EQ(RawDatabase(target)("SELECT group_concat(Z_PK || ZEVENTID) FROM ZQXEVENT"), "2b,3c");
  EXPECT_EQ(stack.addEvent("d")->rowNumber(), 0);
  ASSERT_TRUE(stack.context.save());
  EXPECT_EQ(stack.find("d")->rowNumber(), 4);
  EXPECT_EQ(RawDatabase(path_)("SELECT COUNT(*) FROM ZQXEVENT"), "2") << "the old file stays as it is";
}

TEST_F(PersistentStoreCoordinatorTest, NeverReplacesAFileButALink) {
  Stack stack(path_);
  const std::string victim = directory_.write("victim", "precious");
  ErrorPtr error;
  EXPECT_EQ(stack.coordinator->migratePersistentStore(stack.store, victim, {}, kSQLiteStoreType, &error),
            nullptr);
  EXPECT_EQ(error->code(), 516);
  EXPECT_EQ(stack.coordinator->persistentStores().size(), 1U);
  const std::string link = directory_ / "link";
  std::filesystem::create_symlink(victim, link);
  EXPECT_NE(stack.coordinator->migratePersistentStore(stack.store, link, {}, kSQLiteStoreType), nullptr);
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(link)));
  EXPECT_EQ(std::filesystem::file_size(victim), 8U);
}

TEST_F(PersistentStoreCoordinatorTest, LeavesAReadOnlyStoreUntouched) {
  { const Stack stack(path_); }
  const auto before = std::filesystem::last_write_time(path_);
  Stack stack(path_, nullptr, {{std::string(kReadOnlyPersistentStoreOption), true}});
  ASSERT_NE(stack.store, nullptr);
  stack.addEvent("e");
  ErrorPtr error;
  EXPECT_FALSE(stack.context.save(&error));
  EXPECT_EQ(error->code(), 134030);
  EXPECT_EQ(error->underlying()->code(), 513);
  EXPECT_EQ(std::filesystem::last_write_time(path_), before);
}

TEST_F(PersistentStoreCoordinatorTest, LeavesWriteAheadLogging) {
  { const Stack stack(path_); }
  {
    const RawDatabase raw(path_);
    EXPECT_EQ(raw("PRAGMA journal_mode = WAL"), "wal");
    raw("INSERT INTO ZQXEVENT (ZEVENTID) VALUES ('in the log')");
  }
  {
    Stack stack(path_);
    EXPECT_NE(stack.find("in the log"), nullptr) << "a file that nobody asks to change keeps its log";
  }
  EXPECT_EQ(RawDatabase(path_)("PRAGMA journal_mode"), "wal");
  Stack stack(path_, nullptr, {{std::string(kSQLitePragmasOption), Dictionary{{"journal_mode", "DELETE"}}}});
  EXPECT_NE(stack.find("in the log"), nullptr);
  EXPECT_EQ(RawDatabase(path_)("PRAGMA journal_mode"), "delete");
}

TEST_F(PersistentStoreCoordinatorTest, OpensAFileThatIsOpenAlreadyOnlyOnce) {
  const Stack stack(path_);
  EXPECT_EQ(stack.coordinator->addPersistentStore(kSQLiteStoreType, path_, {}), stack.store);
  EXPECT_EQ(stack.coordinator->addPersistentStore("Binary", path_ + "2", {}), nullptr);
}

}  // namespace
}  // namespace qx::test
