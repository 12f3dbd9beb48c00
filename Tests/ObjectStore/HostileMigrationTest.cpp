// Files of earlier versions that somebody crafted: each ends in an error, as it was, in bounded time and
// room.
#include <array>
#include <random>

#include "Tests/ObjectStore/MigrationTesting.h"

namespace qx::test {
namespace {

using HostileMigration = StoreMigration;

TEST_F(HostileMigration, OfAHostileFileEndsInAnErrorAndLeavesItAsItWas) {
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

TEST_F(HostileMigration, TakesNothingOverThatHangsOnTheBookkeepingTables) {
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

TEST_F(HostileMigration, TakesValuesOfAnotherKindAsTheyAre) {
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

TEST_F(HostileMigration, NeverCrashesWhateverTheFilesBytes) {
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

TEST_F(HostileMigration, DoesNotGrowWithoutBoundOnRowsThatShareTheirPages) {
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

TEST_F(HostileMigration, DoesNotGoOnForEverOverPagesThatLeadToTheSameOnes) {
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

}  // namespace
}  // namespace qx::test
