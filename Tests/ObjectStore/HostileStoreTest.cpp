// The store file is anyone's to write: what it may hold, and what must come of it.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "Tests/ObjectStore/StoreFixture.h"

namespace qx::test {
namespace {

using HostileStoreTest = StoreTest;

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(HostileStoreTest, IsRefusedWithTheRightCode) {
  { const Stack stack(path_); }
  const std::string good = contentOf(path_);
  const auto codeOf = [&](const std::string& content) {
    return openingCode(directory_.write("bad", content));
  };
  EXPECT_EQ(codeOf(""), 259) << "an empty file has no tables";
  EXPECT_EQ(codeOf(std::string(5000, 'x')), 259);
  EXPECT_EQ(codeOf(good.substr(0, good.size() / 2)), 259);
  std::string torn = good;
  torn.replace(4096, 4096, std::string(4096, '\xFF'));
  EXPECT_EQ(codeOf(torn), 259);
  EXPECT_EQ(codeOf(good), 0);
  std::filesystem::create_directory(directory_ / "folder");
  EXPECT_EQ(openingCode(directory_ / "folder"), 259);
  ASSERT_EQ(::mkfifo((directory_ / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(openingCode(directory_ / "pipe"), 259);
}

TEST_F(HostileStoreTest, IsNotReachedThroughALink) {
  { const Stack stack(path_); }
  std::filesystem::create_symlink(path_, directory_ / "link");
  EXPECT_EQ(openingCode(directory_ / "link"), 259);
  std::filesystem::create_directory(directory_ / "real");
  std::filesystem::create_directory_symlink(directory_ / "real", directory_ / "planted");
  ErrorPtr error;
  const Stack stack(directory_ / "planted/store", &error);
  EXPECT_EQ(stack.store, nullptr);
  EXPECT_TRUE(std::filesystem::is_empty(directory_ / "real"));
}

TEST_F(HostileStoreTest, MayNotBringTriggersViewsOrVirtualTables) {
  const std::string additions[] = {
      "CREATE TRIGGER t AFTER INSERT ON ZQXEVENT BEGIN DELETE FROM ZQXEVENT; END",
      "CREATE VIEW v AS SELECT 1",
      "CREATE VIRTUAL TABLE f USING fts5(x)",
  };
  for (const std::string& sql : additions) {
    std::filesystem::remove(path_);
    { const Stack stack(path_); }
    ASSERT_EQ(RawDatabase(path_)(sql), "");
    ErrorPtr error;
    const Stack stack(path_, &error);
    EXPECT_EQ(stack.store, nullptr) << sql;
    EXPECT_EQ(error->code(), 259);
    EXPECT_NE(error->localizedDescription().find("unexpected"), std::string::npos);
  }
}

TEST_F(HostileStoreTest, RunsNoTriggerThatComesLater) {
  Stack stack(path_);
  RawDatabase{path_}("CREATE TRIGGER t AFTER INSERT ON ZQXEVENT BEGIN DELETE FROM ZQXEVENT; END");
  stack.addEvent("e");
  ASSERT_TRUE(stack.context.save());
  EXPECT_NE(stack.find("e"), nullptr);
}

TEST_F(HostileStoreTest, GivesNullForValuesOfAnotherKind) {
  Stack stack(path_);
  RawDatabase raw(path_);
  raw("INSERT INTO ZQXEVENT (Z_PK, ZEVENTID, ZEVENTREADSTATUS, ZEVENTTRIGGERTIME, ZEVENTCURRENTSTATE, "
      "ZEVENTSOURCEID, ZEVENTADDITIONALINFO, ZEVENTCLASS) "
      "VALUES (1, x'00', 'yes', 'noon', 1.5, CAST(x'61FF62' AS TEXT), 'text', 99)");
  raw("INSERT INTO ZQXEVENT (Z_PK, ZEVENTID) VALUES (0, 'zero'), (-5, 'negative')");
  const auto found = stack.context.fetch("QXEvent", nullptr);
  ASSERT_EQ(found->size(), 1U) << "rows that no store hands out stand for no object";
  const ManagedObject& event = *found->front();
  for (const char* key :
       {"eventID", "eventReadStatus", "eventTriggerTime", "eventCurrentState", "eventAdditionalInfo"})
    EXPECT_TRUE(event.value(key).isNull()) << key;
  EXPECT_EQ(event.value("eventSourceID"), Value("a\xEF\xBF\xBD"
                                                "b"));
  EXPECT_EQ(event.related("eventClass"), nullptr);
}

TEST_F(HostileStoreTest, IsNoticedBeforeASaveWhenItsTablesGo) {
  Stack stack(path_);
  stack.addEvent("e");
  RawDatabase{path_}("DROP TABLE ZQXEVENT");
  ErrorPtr error;
  EXPECT_FALSE(stack.context.save(&error));
  EXPECT_EQ(error->code(), 259);
  RawDatabase{path_}("UPDATE Z_METADATA SET Z_PLIST = x'62706C697374'");
  EXPECT_FALSE(PersistentStoreCoordinator::metadataForPersistentStore(path_, &error));
  EXPECT_EQ(error->code(), 259);
}

TEST_F(HostileStoreTest, OfAnotherModelIsRefusedAndLeftAlone) {
  { const Stack stack(path_); }
  const std::string other = directory_.write(
      "other.mom",
      "<plist version=\"1.0\"><dict><key>entities</key><array><dict><key>name</key><string>QXEvent</string>"
      "</dict></array></dict></plist>");
  const auto coordinator = std::make_shared<PersistentStoreCoordinator>(ManagedObjectModel::load(other));
  const std::string before = contentOf(path_);
  ErrorPtr error;
  EXPECT_EQ(coordinator->addPersistentStore(kSQLiteStoreType, path_, {}, &error), nullptr);
  EXPECT_EQ(error->code(), 134100);
  EXPECT_EQ(contentOf(path_), before);
}

TEST_F(HostileStoreTest, NeverCrashesAReaderWhateverItsBytes) {
  {
    Stack stack(path_);
    auto eventClass = stack.context.insert("QXEventClass");
    for (int i = 0; i < 300; ++i)
      stack.addEvent("event number " + std::to_string(i), eventClass);
    ASSERT_TRUE(stack.context.save());
  }
  const std::string good = contentOf(path_);
  std::mt19937 random(20261121);
  int opened = 0;
  for (int round = 0; round < 300; ++round) {
    std::string bad = good;
    for (int i = 0; i < 12; ++i)
      bad[random() % bad.size()] = static_cast<char>(random());
    const std::string path = directory_.write("bad" + std::to_string(round), bad);
    Stack stack(path);
    if (!stack.store) continue;
    ++opened;
    ErrorPtr error;
    const auto found = stack.context.fetch("QXEvent", nullptr, &error);
    EXPECT_TRUE(found || error);
    stack.addEvent("new");
    error = nullptr;
    EXPECT_TRUE(stack.context.save(&error) || error);
    std::filesystem::remove(path);
  }
  EXPECT_GT(opened, 0);
}

TEST_F(HostileStoreTest, OfAnotherUserCanBeReadButNotSaved) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  { const Stack stack(path_); }
  ::chmod(directory_.path().c_str(), 0755);
  ::chmod(path_.c_str(), 0444);
  ASSERT_EQ(::seteuid(65534), 0);
  ErrorPtr error;
  Stack stack(path_, &error);
  EXPECT_NE(stack.store, nullptr);
  stack.addEvent("e");
  EXPECT_FALSE(stack.context.save(&error));
  EXPECT_EQ(error->code(), 134030);
  EXPECT_EQ(error->underlying()->code(), 513);
  ASSERT_EQ(::seteuid(0), 0);
  ::chmod(path_.c_str(), 0400);
  ASSERT_EQ(::seteuid(65534), 0);
  EXPECT_EQ(openingCode(path_), 257);
  ASSERT_EQ(::seteuid(0), 0);
}

}  // namespace
}  // namespace qx::test
