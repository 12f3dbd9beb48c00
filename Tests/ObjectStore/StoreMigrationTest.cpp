// Stores of earlier versions of the model: what becomes of them when they are opened.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "ObjectStore/SQLiteErrors.h"
#include "Tests/ObjectStore/OldStore.h"
#include "Tests/ObjectStore/StoreFixture.h"
#include "Tests/Support/ChildProcess.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

using Versions = std::optional<std::vector<ManagedObjectModelPtr>>;

Versions productVersions(ErrorPtr* error) {
  return ManagedObjectModel::loadAll(QX_MODEL_DIRECTORY, error);
}

Dictionary migratingOptions() {
  return {{std::string(kSQLitePragmasOption), Dictionary{{"journal_mode", "DELETE"}}},
          {std::string(kMigratePersistentStoresAutomaticallyOption), true},
          {std::string(kInferMappingModelAutomaticallyOption), true}};
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Every row of `sql`, its columns joined by "|".
std::string rowsOf(const std::string& path, const std::string& columns, const std::string& from) {
  return RawDatabase(path)("SELECT GROUP_CONCAT(line, char(10)) FROM (SELECT " + columns + " AS line FROM " +
                           from + ")");
}

/// Tables, indexes, and columns with their types.
std::string schemaOf(const std::string& path) {
  return rowsOf(path, "type || '|' || tbl_name || '|' || name || '|' || IFNULL(sql, '')",
                "sqlite_master ORDER BY name") +
         rowsOf(path, "m.name || '|' || c.cid || '|' || c.name || '|' || c.type || '|' || c.pk",
                "sqlite_master AS m, pragma_table_info(m.name) AS c ORDER BY m.name, c.cid");
}

struct Opened {
  explicit Opened(const std::string& path, const Dictionary& options = migratingOptions(),
                  const ManagedObjectModelPtr& model = productModel(),
                  const ModelVersions& versions = productVersions)
      : coordinator(std::make_shared<PersistentStoreCoordinator>(model, versions)),
        store(coordinator->addPersistentStore(kSQLiteStoreType, path, options, &error)),
        context(coordinator) {}
  std::int64_t code() const { return store ? 0 : (error ? error->code() : -1); }

  std::shared_ptr<PersistentStoreCoordinator> coordinator;
  ErrorPtr error;
  PersistentStorePtr store;
  ManagedObjectContext context;
};

class StoreMigration : public testing::Test {
 protected:
  std::string old(int version) const {
    std::string copy = directory_ / ("version" + std::to_string(version) + ".qxstore");
    fs::copy_file(std::string(QX_OLD_STORES) + "/version" + std::to_string(version) + ".qxstore", copy,
                  fs::copy_options::overwrite_existing);
    ::chmod(copy.c_str(), 0666);
    return copy;
  }

  /// A model of one version, from the dictionaries of its entities.
  ManagedObjectModelPtr model(const std::string& version, const std::string& entities) const {
    ErrorPtr error;
    auto loaded = ManagedObjectModel::load(
        directory_.write(version + ".mom", "<plist version=\"1.0\"><dict><key>version</key><string>" +
                                               version + "</string><key>entities</key><array>" + entities +
                                               "</array></dict></plist>"),
        &error);
    EXPECT_NE(loaded, nullptr) << (error ? error->summary() : "");
    return loaded;
  }

  TemporaryDirectory directory_;
};

TEST_F(StoreMigration, KeepsRowsAndIdentityOfEveryEarlierVersion) {
  { const Opened fresh(directory_ / "fresh"); }
  for (const int version : {1, 2}) {
    SCOPED_TRACE(version);
    const std::string path = old(version);
    std::string columns = "Z_PK || '|' || Z_OPT";
    for (const char* const name : {"EVENTID", "EVENTREADSTATUS", "EVENTTRIGGERTIME", "EVENTCURRENTSTATE",
                                   "EVENTSOURCEID", "EVENTADDITIONALINFO", "EVENTCLASS"})
      columns += std::string(" || '|' || QUOTE(Z") + name + ")";
    // Rows 9 to 79 were removed, and one event has nothing but its ID.
    for (const std::string sql :
         {"UPDATE Z_PRIMARYKEY SET Z_MAX = 79 WHERE Z_NAME = 'QXEvent'",
          "UPDATE ZQXEVENT SET ZEVENTREADSTATUS = NULL, ZEVENTTRIGGERTIME = NULL, ZEVENTCURRENTSTATE = NULL, "
          "ZEVENTSOURCEID = NULL, ZEVENTADDITIONALINFO = NULL, ZEVENTCLASS = NULL WHERE ZEVENTID = "
          "'EVENT-3'"})
      ASSERT_EQ(RawDatabase(path)(sql), "");
    const std::string before = rowsOf(path, columns, "ZQXEVENT");
    const std::string identity = RawDatabase(path)("SELECT Z_UUID FROM Z_METADATA");
    {
      Opened stack(path);
      ASSERT_NE(stack.store, nullptr) << stack.error->summary();
      EXPECT_EQ(stack.store->identifier(), identity);
      const auto metadata = PersistentStoreCoordinator::metadataForPersistentStore(path).value();
      EXPECT_TRUE(productModel()->isCompatibleWith(metadata));
      EXPECT_EQ(*metadata.values.find("NSStoreModelVersionIdentifiers"), Value(Array{Value("3")}));
      EXPECT_EQ(*metadata.values.find(kStoreUUIDKey), Value(identity));

      const auto found =
          stack.context.fetch("QXEvent", key("eventClass.eventClassID") == "com.qx.old.class2").value();
      ASSERT_EQ(found.size(), 2U);
      const ManagedObject& event = *found.back();
      EXPECT_EQ(event.value("eventID"), Value("EVENT-5"));
      EXPECT_EQ(event.value("eventVersionNumber"), Value(std::int64_t{version == 1 ? 0 : 1}));
      EXPECT_TRUE(event.related("eventClass")->value("sourceID").isNull());
      const auto sources = stack.context.fetch("QXEventSource", key("sourceID") == "SOURCE-1").value();
      EXPECT_EQ(sources.at(0)->value("sourceName"), Value("Drucker 1 \u00fc"));
      EXPECT_EQ(sources.at(0)->value("serviceID"), version == 1 ? Value() : Value("SERVICE-1"));
      EXPECT_EQ(stack.context.count("QXDestinationApplication", nullptr), version == 1 ? 0U : 1U);
      EXPECT_EQ(stack.context.count("QXBlockedEvent", nullptr), 0U);

      const auto added = stack.context.insert("QXEvent");
      ASSERT_TRUE(stack.context.save());
      EXPECT_EQ(added->rowNumber(), 80);
      stack.context.remove(added);
      ASSERT_TRUE(stack.context.save());
    }
    EXPECT_EQ(rowsOf(path, columns, "ZQXEVENT"), before);
    EXPECT_EQ(schemaOf(path), schemaOf(directory_ / "fresh"));
    EXPECT_EQ(rowsOf(path, "Z_ENT || Z_NAME || Z_SUPER", "Z_PRIMARYKEY"),
              rowsOf(directory_ / "fresh", "Z_ENT || Z_NAME || Z_SUPER", "Z_PRIMARYKEY"));
    for (const EntityDescription& entity : productModel()->entities())
      EXPECT_EQ(RawDatabase(path)("SELECT COUNT(*) FROM " + entity.table() + " WHERE Z_ENT <> " +
                                  std::to_string(entity.number())),
                "0")
          << entity.name();
    EXPECT_EQ(RawDatabase(path)("PRAGMA integrity_check"), "ok");
    const std::string migrated = contentOf(path);
    { EXPECT_EQ(Opened(path).code(), 0); }
    EXPECT_EQ(contentOf(path), migrated) << "the next opening has nothing to do";
  }
}

TEST_F(StoreMigration, IsRefusedWithoutTheRightToDoIt) {
  const std::string path = old(1);
  const std::string before = contentOf(path);
  for (const std::string_view left :
       {kMigratePersistentStoresAutomaticallyOption, kInferMappingModelAutomaticallyOption,
        kReadOnlyPersistentStoreOption}) {
    Dictionary options = migratingOptions();
    options.set(std::string(left), left == kReadOnlyPersistentStoreOption);
    EXPECT_EQ(Opened(path, options).code(), 134100) << left;
  }
  const auto onlyPresent = [](ErrorPtr*) { return Versions({productModel()}); };
  EXPECT_EQ(Opened(path, migratingOptions(), productModel(), onlyPresent).code(), 134100);
  EXPECT_EQ(Opened(path, migratingOptions(), productModel(), nullptr).code(), 134100);
  const auto unread = [](ErrorPtr* error) { return ManagedObjectModel::loadAll("/nowhere", error); };
  const Opened blind(path, migratingOptions(), productModel(), unread);
  EXPECT_TRUE(blind.code() == 256 && isPassingFailure(*blind.error)) << "it may be any of them";
  EXPECT_TRUE(contentOf(path) == before);
  if (::geteuid() != 0) return;
  ::chmod(directory_.path().c_str(), 0755);
  ::chmod(path.c_str(), 0444);
  ASSERT_EQ(::seteuid(65534), 0);
  const Opened stack(path);
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_EQ(stack.code(), 134030);
  EXPECT_EQ(stack.error->underlying()->code(), 513);
  EXPECT_TRUE(isPassingFailure(*stack.error));
  EXPECT_TRUE(contentOf(path) == before);
}

constexpr const char* kEarlierEntities = R"(
  <dict><key>name</key><string>Device</string><key>attributes</key><array>
    <dict><key>name</key><string>name</string><key>type</key><string>string</string></dict>
    <dict><key>name</key><string>secret</string><key>type</key><string>binary</string></dict>
  </array><key>relationships</key><array>
    <dict><key>name</key><string>place</string><key>destination</key><string>Place</string></dict>
  </array><key>indexes</key><array><array><string>secret</string></array></array></dict>
  <dict><key>name</key><string>Gone</string><key>attributes</key><array>
    <dict><key>name</key><string>note</string><key>type</key><string>string</string></dict></array></dict>
  <dict><key>name</key><string>Place</string><key>attributes</key><array>
    <dict><key>name</key><string>note</string><key>type</key><string>string</string></dict></array></dict>)";

TEST_F(StoreMigration, DropsWhatIsGoneAndFillsInDefaults) {
  const auto earlier = model("1", kEarlierEntities);
  const auto present = model("2", R"(
    <dict><key>name</key><string>Added</string><key>attributes</key><array>
    <dict><key>name</key><string>note</string><key>type</key><string>string</string></dict></array></dict>
    <dict><key>name</key><string>Device</string><key>attributes</key><array>
      <dict><key>name</key><string>colour</string><key>type</key><string>string</string>
            <key>default</key><string>it's "grey"</string></dict>
      <dict><key>name</key><string>isOn</string><key>type</key><string>boolean</string>
            <key>default</key><true/></dict>
      <dict><key>name</key><string>name</string><key>type</key><string>string</string></dict>
    </array><key>relationships</key><array>
      <dict><key>name</key><string>place</string><key>destination</key><string>Place</string></dict>
      <dict><key>name</key><string>other</string><key>destination</key><string>Device</string></dict>
    </array><key>indexes</key><array><array><string>name</string></array></array></dict>
    <dict><key>name</key><string>Place</string><key>attributes</key><array>
    <dict><key>name</key><string>note</string><key>type</key><string>string</string></dict></array></dict>)");
  const std::string path = directory_ / "store";
  {
    Opened stack(path, {}, earlier, nullptr);
    const auto device = stack.context.insert("Device");
    device->setValue("name", "one");
    device->setValue("secret", Data("secret"));
    device->setRelated("place", stack.context.insert("Place"));
    ASSERT_TRUE(stack.context.save());
  }
  {
    Opened stack(path, migratingOptions(), present, [&](ErrorPtr*) { return Versions({earlier, present}); });
    ASSERT_EQ(stack.code(), 0) << stack.error->summary();
    const auto found = stack.context.fetch("Device", nullptr).value();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]->value("name"), Value("one"));
    EXPECT_EQ(found[0]->value("colour"), Value("it's \"grey\""));
    EXPECT_EQ(found[0]->value("isOn"), Value(true));
    EXPECT_NE(found[0]->related("place"), nullptr);
    EXPECT_EQ(found[0]->related("other"), nullptr);
  }
  { const Opened fresh(directory_ / "fresh", {}, present, nullptr); }
  EXPECT_EQ(schemaOf(path), schemaOf(directory_ / "fresh"));
}

TEST_F(StoreMigration, NamesWhatCannotBeInferred) {
  const auto earlier = model("1", kEarlierEntities);
  const std::string path = directory_ / "store";
  { ASSERT_EQ(Opened(path, {}, earlier, nullptr).code(), 0); }
  const std::string before = contentOf(path);
  const auto device = [](const std::string& attribute, const std::string& destination) {
    return "<dict><key>name</key><string>Device</string><key>attributes</key><array><dict><key>name</key>" +
           attribute + "</dict></array><key>relationships</key><array>" + destination + "</array></dict>" +
           "<dict><key>name</key><string>Place</string><key>attributes</key><array><dict><key>name</key>"
           "<string>note</string><key>type</key><string>string</string></dict></array></dict>";
  };
  const std::map<std::string, std::string> obstacles{
      {"Device.name", device("<string>name</string><key>type</key><string>date</string>", "")},
      {"Device.place", device("<string>place</string><key>type</key><string>integer</string>", "")},
      {"Device.place ", device("<string>name</string><key>type</key><string>string</string>",
                               "<dict><key>name</key><string>place</string><key>destination</"
                               "key><string>Device</string></dict>")},
  };
  for (const auto& [name, entities] : obstacles) {
    const auto present = model("2", entities);
    const Opened stack(path, migratingOptions(), present, [&](ErrorPtr*) { return Versions({earlier}); });
    EXPECT_EQ(stack.code(), 134100);
    EXPECT_NE(stack.error->localizedDescription().find(name.substr(0, 11)), std::string::npos)
        << stack.error->localizedDescription();
  }
  EXPECT_TRUE(contentOf(path) == before);
}

TEST_F(StoreMigration, OfAHostileFileEndsInAnErrorAndLeavesItAsItWas) {
  const std::map<std::string, std::vector<std::string>> attacks{
      {"a trigger", {"CREATE TRIGGER t AFTER DELETE ON Z_PRIMARYKEY BEGIN DELETE FROM ZQXEVENT; END"}},
      {"a view", {"DROP TABLE ZQXEVENT", "CREATE VIEW ZQXEVENT AS SELECT 1 AS Z_PK"}},
      {"a missing table", {"DROP TABLE ZQXEVENTSOURCE"}},
      {"a missing column", {"ALTER TABLE ZQXEVENT DROP COLUMN ZEVENTREADSTATUS"}},
      {"no counters", {"DELETE FROM Z_PRIMARYKEY WHERE Z_ENT = 2"}},
      {"a table in the way", {"CREATE TABLE ZQXBLOCKEDEVENT (x)"}},
      {"a table aside", {"CREATE TABLE Z_EARLIER_QXEvent (x)"}},
      {"an index in the way", {"CREATE TABLE x (y)", "CREATE INDEX Z_QXEvent_eventClass ON x (y)"}},
      {"row numbers twice",
       {"ALTER TABLE ZQXEVENT RENAME TO x",
        "CREATE TABLE ZQXEVENT AS SELECT * FROM x UNION ALL SELECT * FROM x"}},
      {"row numbers that are none",
       {"ALTER TABLE ZQXEVENT RENAME TO x", "CREATE TABLE ZQXEVENT AS SELECT * FROM x",
        "UPDATE ZQXEVENT SET Z_PK = 'one'"}},
      {"a computed column",
       {"ALTER TABLE ZQXEVENT DROP COLUMN ZEVENTREADSTATUS",
        "ALTER TABLE ZQXEVENT ADD COLUMN ZEVENTREADSTATUS AS (HEX(ZEROBLOB(60000000)))"}},
      {"a key that is not the row's number",
       {"ALTER TABLE ZQXEVENT RENAME TO x",
        "CREATE TABLE ZQXEVENT (Z_PK INTEGER PRIMARY KEY DESC, Z_ENT, Z_OPT, ZEVENTID, ZEVENTREADSTATUS, "
        "ZEVENTTRIGGERTIME, ZEVENTCURRENTSTATE, ZEVENTSOURCEID, ZEVENTADDITIONALINFO, ZEVENTCLASS)"}},
      {"no row numbers at all",
       {"ALTER TABLE ZQXEVENTCLASS RENAME TO x",
        "CREATE TABLE ZQXEVENTCLASS (Z_PK INTEGER PRIMARY KEY, Z_ENT, Z_OPT, ZEVENTCLASSID, ZEVENTHANDLER, "
        "ZEVENTSEVERITY, ZTOTALSTATES) WITHOUT ROWID"}},
      {"a computed counter",
       {"DROP TABLE Z_PRIMARYKEY",
        "CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_MAX AS (HEX(ZEROBLOB(9000000))))",
        "INSERT INTO Z_PRIMARYKEY VALUES (1), (2), (3)"}},
  };
  for (const auto& [name, statements] : attacks) {
    const std::string path = old(1);
    for (const std::string& sql : statements)
      ASSERT_EQ(RawDatabase(path)(sql), "") << sql;
    const std::string before = contentOf(path);
    const Opened stack(path);
    EXPECT_EQ(stack.code(), 259) << name << ": " << (stack.error ? stack.error->summary() : "");
    EXPECT_TRUE(stack.error && !isPassingFailure(*stack.error)) << name;
    EXPECT_TRUE(contentOf(path) == before) << name;
    EXPECT_FALSE(fs::exists(path + "-journal"));
  }
}

TEST_F(StoreMigration, TakesNothingOverThatHangsOnTheBookkeepingTables) {
  const std::string path = old(1);
  const std::string identity = RawDatabase(path)("SELECT Z_UUID FROM Z_METADATA");
  for (const std::string sql :
       {"ALTER TABLE Z_METADATA RENAME TO x",
        "CREATE TABLE Z_METADATA AS SELECT NULL AS Z_VERSION, Z_UUID, Z_PLIST FROM x", "DROP TABLE x",
        "ALTER TABLE Z_PRIMARYKEY RENAME TO x",
        "CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY CHECK (Z_ENT < 4), Z_NAME, Z_SUPER, Z_MAX)",
        "INSERT INTO Z_PRIMARYKEY SELECT Z_ENT, Z_NAME, 0, 80 FROM x", "DROP TABLE x",
        "CREATE INDEX i ON Z_PRIMARYKEY (HEX(ZEROBLOB(30000000))) WHERE Z_ENT > 3"})
    ASSERT_EQ(RawDatabase(path)(sql), "") << sql;
  { EXPECT_EQ(Opened(path).code(), 0); }
  { const Opened fresh(directory_ / "fresh"); }
  EXPECT_EQ(schemaOf(path), schemaOf(directory_ / "fresh"));
  EXPECT_EQ(RawDatabase(path)("SELECT GROUP_CONCAT(Z_MAX) FROM Z_PRIMARYKEY"), "0,0,80,80,80,0");
  EXPECT_EQ(RawDatabase(path)("SELECT Z_VERSION || Z_UUID FROM Z_METADATA"), "1" + identity);
}

TEST_F(StoreMigration, TakesValuesOfAnotherKindAsTheyAre) {
  const std::string path = old(1);
  const RawDatabase raw(path);
  raw("ALTER TABLE ZQXEVENT RENAME TO x");
  ASSERT_EQ(raw("CREATE TABLE ZQXEVENT (Z_PK INTEGER PRIMARY KEY, Z_ENT CHECK (Z_ENT = 1), Z_OPT TEXT, "
                "ZEVENTID BLOB, ZEVENTREADSTATUS, ZEVENTTRIGGERTIME, ZEVENTCURRENTSTATE TEXT DEFAULT 10.0, "
                "ZEVENTSOURCEID, ZEVENTADDITIONALINFO, ZEVENTCLASS DEFAULT 'x')"),
            "");
  ASSERT_EQ(raw("INSERT INTO ZQXEVENT (Z_PK, Z_ENT, ZEVENTID, ZEVENTREADSTATUS, ZEVENTTRIGGERTIME, "
                "ZEVENTADDITIONALINFO) VALUES (5, 1, x'00FF', 'yes', 'noon', 'text'), (-3, 1, 'x', 0, 0, 0)"),
            "");
  raw("DROP TABLE x");
  { const Opened fresh(directory_ / "fresh"); }
  {
    Opened stack(path);
    ASSERT_EQ(stack.code(), 0) << stack.error->summary();
    const auto found = stack.context.fetch("QXEvent", nullptr).value();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_TRUE(found[0]->value("eventID").isNull());
  }
  EXPECT_EQ(rowsOf(path, "Z_PK || TYPEOF(ZEVENTID) || ZEVENTREADSTATUS || ZEVENTTRIGGERTIME", "ZQXEVENT"),
            "5blobyesnoon");
  EXPECT_EQ(schemaOf(path), schemaOf(directory_ / "fresh"));
}

TEST_F(StoreMigration, NeverCrashesWhateverTheFilesBytes) {
  const std::string good = contentOf(old(2));
  std::mt19937 random(20261121);
  int migrated = 0;
  int refused = 0;
  for (int round = 0; round < 100; ++round) {
    std::string bad = good;
    for (int i = 0; i < 8; ++i)
      bad[random() % bad.size()] = static_cast<char>(random());
    const std::string path = directory_.write("bad", bad);
    fs::remove(path + "-journal");
    Opened stack(path);
    ++(stack.store ? migrated : refused);
    EXPECT_TRUE(stack.store || stack.error);
    if (!stack.store) {
      EXPECT_EQ(contentOf(path), bad) << stack.error->summary();
      continue;
    }
    ErrorPtr error;
    EXPECT_TRUE(stack.context.fetch("QXEvent", nullptr, &error) || error);
  }
  EXPECT_GT(migrated, 0);
  EXPECT_GT(refused, 0);
}

/// Makes every row of the page that has the same length as the one row that is larger, and leads to the pages
/// of that one. Cells of tables: https://sqlite.org/fileformat2.html#b_tree_pages
void shareOverflowPages(std::string& file, std::size_t rowLength, std::size_t largeRowLength) {
  constexpr std::size_t kPage = 4096;
  constexpr char kTableLeaf = 13;
  const auto number = [&](std::size_t at) {
    return static_cast<std::size_t>(static_cast<unsigned char>(file[at])) << 8 |
           static_cast<unsigned char>(file[at + 1]);
  };
  const auto varint = [](std::size_t value) {
    return std::string{static_cast<char>(value >> 14 | 0x80), static_cast<char>((value >> 7 & 0x7f) | 0x80),
                       static_cast<char>(value & 0x7f)};
  };
  // Bytes of a row that stand in its cell, by that document, and the number of the first page of the others.
  const std::size_t least = (kPage - 12) * 32 / 255 - 23;
  const std::size_t local = least + (rowLength - least) % (kPage - 4);
  std::vector<std::size_t> cells;
  std::string large;
  for (std::size_t page = kPage; page < file.size(); page += kPage) {
    if (file[page] != kTableLeaf) continue;
    for (std::size_t i = 0; i < number(page + 3); ++i) {
      const std::size_t cell = page + number(page + 8 + 2 * i);
      if (file.compare(cell, 3, varint(rowLength)) == 0) cells.push_back(cell);
      if (file.compare(cell, 3, varint(largeRowLength)) == 0) large = file.substr(cell, 4 + local + 4);
    }
  }
  ASSERT_FALSE(large.empty());
  ASSERT_GT(cells.size(), 40U);
  for (const std::size_t cell : cells) {
    file.replace(cell, 3, large, 0, 3);
    file.replace(cell + 4, local + 4, large, 4, local + 4);  // the row's number stays
  }
}

TEST_F(StoreMigration, DoesNotGrowWithoutBoundOnRowsThatShareTheirPages) {
  constexpr std::size_t kUsable = 4092;
  constexpr std::size_t kValue = 20'000;
  constexpr std::size_t kLargeValue = kValue + 240 * kUsable;
  const std::string path = old(1);
  {
    const RawDatabase raw(path);
    raw("DELETE FROM ZQXEVENT");
    const std::string insert = "INSERT INTO ZQXEVENT (Z_PK, Z_ENT, ZEVENTADDITIONALINFO) VALUES (";
    for (int row = 2; row < 50; ++row)
      ASSERT_EQ(raw(insert + std::to_string(row) + ", 1, ZEROBLOB(" + std::to_string(kValue) + "))"), "");
    ASSERT_EQ(raw(insert + "50, 1, ZEROBLOB(" + std::to_string(kLargeValue) + "))"), "");
  }
  // A row is a header with the types of its ten columns, the last but one in three bytes, and the values.
  constexpr std::size_t kHeader = 1 + 9 + 3;
  std::string file = contentOf(path);
  ASSERT_NO_FATAL_FAILURE(shareOverflowPages(file, kHeader + kValue, kHeader + kLargeValue));
  directory_.write("version1.qxstore", file);
  const Opened stack(path);
  ASSERT_EQ(stack.code(), 259);
  EXPECT_NE(stack.error->localizedDescription().find("far larger"), std::string::npos)
      << stack.error->localizedDescription();
  EXPECT_TRUE(contentOf(path) == file);
}

TEST_F(StoreMigration, DoesNotGoOnForEverOverPagesThatLeadToTheSameOnes) {
  // SQLite goes through the whole of sqlite_sequence whenever a table is renamed. Its first page leads to
  // leaves of rows; here three of those become copies of it, each of which leads only to the next: 10^7 times
  // its rows.
  constexpr std::size_t kPage = 4096;
  const std::string path = old(1);
  std::size_t root = 0;
  {
    const RawDatabase raw(path);
    raw("CREATE TABLE x (x INTEGER PRIMARY KEY AUTOINCREMENT)");
    ASSERT_EQ(raw("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 40000) "
                  "INSERT INTO sqlite_sequence SELECT 'x', i FROM n"),
              "");
    root = std::stoul(raw("SELECT rootpage FROM sqlite_master WHERE name = 'sqlite_sequence'"));
  }
  std::string file = contentOf(path);
  const std::string first = file.substr((root - 1) * kPage, kPage);
  const auto number = [&](std::size_t at, std::size_t size) {
    std::size_t value = 0;
    for (const char byte : first.substr(at, size))
      value = value << 8 | static_cast<unsigned char>(byte);
    return value;
  };
  ASSERT_EQ(first[0], 5) << "an interior page of a table";
  std::vector<std::size_t> cells{
      8};  // where the numbers of the pages below stand; the last one in the header
  for (std::size_t i = 0; i < number(3, 2); ++i)
    cells.push_back(number(12 + 2 * i, 2));
  ASSERT_GT(cells.size(), 80U);
  std::array<std::size_t, 5> chain{root};
  for (std::size_t i = 1; i < chain.size(); ++i)
    chain[i] = number(cells[i], 4);
  for (std::size_t i = 0; i + 1 < chain.size(); ++i) {
    std::string page = first;
    for (const std::size_t cell : cells)
      for (std::size_t byte = 0; byte < 4; ++byte)
        page[cell + byte] = static_cast<char>(chain[i + 1] >> (24 - 8 * byte));
    file.replace((chain[i] - 1) * kPage, kPage, page);
  }
  directory_.write("version1.qxstore", file);
  const Opened stack(path);
  ASSERT_EQ(stack.code(), 259);
  EXPECT_NE(stack.error->localizedDescription().find("far more work"), std::string::npos)
      << stack.error->localizedDescription();
  EXPECT_TRUE(contentOf(path) == file);
}

/// SQLite's count of the transactions that changed the file:
/// https://sqlite.org/fileformat2.html#file_change_counter
std::uint32_t changesOf(const std::string& path) {
  std::uint32_t count = 0;
  for (const char byte : contentOf(path).substr(24, 4))
    count = count << 8 | static_cast<unsigned char>(byte);
  return count;
}

TEST(ConcurrentStoreMigration, IsDoneByOneOfTheProcessesThatOpenTheStoreAtOnce) {
  constexpr int kRounds = 10;
  const TemporaryDirectory directory;
  for (int round = 0; round < kRounds; ++round) {
    const std::string path = directory / ("store" + std::to_string(round));
    fs::copy_file(std::string(QX_OLD_STORES) + "/version1.qxstore", path);
    const auto changes = changesOf(path);
    const auto open = [&](const ChildProcess::Line& line) {
      line.wait();
      Opened stack(path);
      return stack.store && stack.context.count("QXEvent", nullptr) == 7 ? 0 : 1;
    };
    std::array<ChildProcess, 4> processes{ChildProcess(open), ChildProcess(open), ChildProcess(open),
                                          ChildProcess(open)};
    for (const ChildProcess& process : processes)
      process.line().signal();
    for (ChildProcess& process : processes)
      EXPECT_EQ(process.exitStatus(), 0);
    EXPECT_EQ(changesOf(path), changes + 1) << "round " << round;
  }
}

}  // namespace
}  // namespace qx::test
