#include "BareStore.h"

#include <sqlite3.h>

#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

namespace benchmarks {

namespace {

constexpr int kBusyMilliseconds = 10'000;
constexpr std::int64_t kEventEntity = 3;

const std::string kSelect =
    "SELECT t0.Z_PK, t0.ZEVENTID, t0.ZEVENTREADSTATUS, t0.ZEVENTTRIGGERTIME, t0.ZEVENTCURRENTSTATE, "
    "t0.ZEVENTVERSIONNUMBER, t0.ZEVENTSOURCEID, t0.ZEVENTADDITIONALINFO, t1.ZEVENTCLASSID, "
    "t1.ZEVENTHANDLER, t1.ZEVENTSEVERITY, t1.ZTOTALSTATES, t1.ZSOURCEID "
    "FROM ZQXEVENT AS t0 LEFT JOIN ZQXEVENTCLASS AS t1 ON t1.Z_PK = t0.ZEVENTCLASS ";

[[noreturn]] void fail(sqlite3* database, const std::string& what) {
  throw std::runtime_error("bare SQLite: " + what + ": " + sqlite3_errmsg(database));
}

}  // namespace

class BareStore::Statement {
 public:
  Statement(sqlite3* database, const std::string& sql) : database_(database) {
    if (sqlite3_prepare_v3(database, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr) !=
        SQLITE_OK)
      fail(database, sql);
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  /// Starts anew with these parameters. Texts must live until the statement was run.
  template <typename... Values>
  Statement& with(const Values&... values) {
    sqlite3_reset(statement_);
    [[maybe_unused]] int parameter = 0;
    (bind(++parameter, values), ...);
    return *this;
  }
  bool step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) {
      sqlite3_reset(statement_);
      fail(database_, sqlite3_sql(statement_));
    }
    sqlite3_reset(statement_);
    return false;
  }
  void run() {
    while (step()) {
    }
  }
  /// The first column of the first row; 0 when there is none.
  std::int64_t integer() {
    const std::int64_t result = step() ? integer(0) : 0;
    sqlite3_reset(statement_);
    return result;
  }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  double real(int column) const { return sqlite3_column_double(statement_, column); }
  std::string text(int column) const {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    const int size = sqlite3_column_bytes(statement_, column);
    return bytes != nullptr ? std::string(bytes, static_cast<std::size_t>(size)) : std::string();
  }
  void reset() { sqlite3_reset(statement_); }

  struct Blob {
    const std::string& bytes;
  };

 private:
  void bind(int parameter, const std::string& text) {
    sqlite3_bind_text64(statement_, parameter, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
  }
  void bind(int parameter, std::int64_t value) { sqlite3_bind_int64(statement_, parameter, value); }
  void bind(int parameter, double value) { sqlite3_bind_double(statement_, parameter, value); }
  void bind(int parameter, Blob blob) {
    sqlite3_bind_blob64(statement_, parameter, blob.bytes.data(), blob.bytes.size(), SQLITE_STATIC);
  }

  sqlite3* database_;
  sqlite3_stmt* statement_ = nullptr;
};

void BareStore::Close::operator()(sqlite3* database) const {
  sqlite3_close_v2(database);
}

BareStore::BareStore(const std::string& path) {
  sqlite3* database = nullptr;
  const int result =
      sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  database_.reset(database);
  if (result != SQLITE_OK) fail(database, path);
  sqlite3_busy_timeout(database, kBusyMilliseconds);
  for (const char* pragma : {"PRAGMA journal_mode = DELETE", "PRAGMA synchronous = FULL"})
    Statement(database, pragma).run();
  const auto prepare = [&](const std::string& sql) { return std::make_unique<Statement>(database, sql); };
  begin_ = prepare("BEGIN IMMEDIATE");
  commit_ = prepare("COMMIT");
  const std::string classColumns =
      "SELECT Z_PK, ZEVENTCLASSID, ZEVENTHANDLER, ZEVENTSEVERITY, ZTOTALSTATES, ZSOURCEID FROM "
      "ZQXEVENTCLASS ";
  genericClass_ = prepare(classColumns + "WHERE ZEVENTCLASSID = ? AND ZSOURCEID IS NULL");
  sourceClass_ = prepare(classColumns + "WHERE ZEVENTCLASSID = ? AND ZSOURCEID = ?");
  source_ = prepare(
      "SELECT Z_PK, ZSOURCEID, ZSOURCENAME, ZSOURCEALTERNATENAME, ZMAKEANDMODEL, ZPRODUCTNUMBER, ZSERVICEID "
      "FROM ZQXEVENTSOURCE WHERE ZSOURCEID = ?");
  lastRow_ = prepare(
      "SELECT MAX(Z_MAX, IFNULL((SELECT MAX(Z_PK) FROM ZQXEVENT), 0)) FROM Z_PRIMARYKEY WHERE Z_ENT = ?");
  reserve_ = prepare("UPDATE Z_PRIMARYKEY SET Z_MAX = ? WHERE Z_ENT = ?");
  insert_ = prepare(
      "INSERT INTO ZQXEVENT (Z_PK, Z_ENT, Z_OPT, ZEVENTID, ZEVENTREADSTATUS, ZEVENTTRIGGERTIME, "
      "ZEVENTCURRENTSTATE, ZEVENTVERSIONNUMBER, ZEVENTSOURCEID, ZEVENTADDITIONALINFO, ZEVENTCLASS) "
      "VALUES (?, 3, 1, ?, ?, ?, ?, ?, ?, ?, ?)");
  known_ = prepare("SELECT 1 FROM ZQXEVENT WHERE ZEVENTID = ?");
  numberByID_ = prepare("SELECT Z_PK FROM ZQXEVENT WHERE ZEVENTID = ?");
  markRead_ = prepare(
      "UPDATE ZQXEVENT SET Z_OPT = Z_OPT + 1, ZEVENTREADSTATUS = 1, "
      "ZEVENTVERSIONNUMBER = ZEVENTVERSIONNUMBER + 1 WHERE Z_PK = ?");
  remove_ = prepare("DELETE FROM ZQXEVENT WHERE Z_PK = ?");
  all_ = prepare(kSelect + "ORDER BY t0.Z_PK");
  bySource_ = prepare(kSelect + "WHERE t0.ZEVENTSOURCEID = ? ORDER BY t0.Z_PK");
  newest_ = prepare(kSelect +
                    "WHERE t0.ZEVENTSOURCEID = ? AND t1.ZEVENTSEVERITY >= ? "
                    "ORDER BY t0.ZEVENTTRIGGERTIME DESC, t0.Z_PK DESC LIMIT ?");
  since_ = prepare(kSelect +
                   "WHERE t0.ZEVENTSOURCEID = ? AND t0.ZEVENTTRIGGERTIME >= ? AND t1.ZEVENTSEVERITY >= ? "
                   "ORDER BY t0.Z_PK");
  byID_ = prepare(kSelect + "WHERE t0.ZEVENTID = ?");
}

BareStore::~BareStore() = default;

std::vector<BareRow> BareStore::rowsOf(Statement& statement) {
  std::vector<BareRow> rows;
  while (statement.step()) {
    BareRow& row = rows.emplace_back();
    row.number = statement.integer(0);
    row.id = statement.text(1);
    row.read = statement.integer(2) != 0;
    row.triggerTime = statement.real(3);
    row.state = statement.integer(4);
    row.version = statement.integer(5);
    row.sourceID = statement.text(6);
    row.info = statement.text(7);
    row.classID = statement.text(8);
    row.handler = statement.text(9);
    row.severity = statement.integer(10);
    row.states = statement.integer(11);
    row.classSourceID = statement.text(12);
  }
  return rows;
}

std::vector<BareRow> BareStore::firstRows(std::size_t count) {
  Statement first(database_.get(), kSelect + "ORDER BY t0.Z_PK LIMIT " + std::to_string(count));
  return rowsOf(first);
}

std::vector<std::string> BareStore::eventIDs() {
  Statement select(database_.get(), "SELECT ZEVENTID FROM ZQXEVENT ORDER BY Z_PK");
  std::vector<std::string> result;
  while (select.step())
    result.push_back(select.text(0));
  return result;
}

/// A device whose events carry other details than the class in general has a row of its own.
std::int64_t BareStore::classRow(const BareRow& row) {
  const std::int64_t generic = genericClass_->with(row.classID).integer();
  if (row.classSourceID.empty()) return generic;
  return sourceClass_->with(row.classID, row.classSourceID).integer();
}

bool BareStore::hasSource(const std::string& id) {
  return source_->with(id).integer() != 0;
}

std::int64_t BareStore::reserve(std::int64_t count) {
  const std::int64_t last = lastRow_->with(kEventEntity).integer() + count;
  reserve_->with(last, kEventEntity).run();
  return last;
}

void BareStore::insert(const BareRow& row, std::int64_t number, std::int64_t classNumber) {
  insert_
      ->with(number, row.id, std::int64_t{row.read}, row.triggerTime, row.state, row.version, row.sourceID,
             Statement::Blob{row.info}, classNumber)
      .run();
}

void BareStore::begin() {
  begin_->run();
}

void BareStore::commit() {
  commit_->run();
}

void BareStore::add(const BareRow& row) {
  begin();
  const std::int64_t classNumber = classRow(row);
  if (classNumber == 0 || !hasSource(row.sourceID)) fail(database_.get(), "class or source is missing");
  insert(row, reserve(1), classNumber);
  commit();
}

void BareStore::addList(const std::vector<BareRow>& rows) {
  for (const BareRow& row : rows)
    if (known_->with(row.id).integer() != 0) fail(database_.get(), "known ID");
  std::unordered_map<std::string, std::int64_t> classNumbers;
  std::unordered_set<std::string> sources;
  std::int64_t number =
      reserve(static_cast<std::int64_t>(rows.size())) - static_cast<std::int64_t>(rows.size());
  for (const BareRow& row : rows) {
    std::int64_t& classNumber = classNumbers[row.classID + "\n" + row.classSourceID];
    if (classNumber == 0) classNumber = classRow(row);
    if (sources.insert(row.sourceID).second && !hasSource(row.sourceID))
      fail(database_.get(), "source is missing");
    insert(row, ++number, classNumber);
  }
}

void BareStore::markRead(const std::string& id) {
  const BareRow row = fetchByID(id);
  begin();
  markRead_->with(row.number).run();
  commit();
}

void BareStore::remove(const std::string& id) {
  const std::int64_t number = numberByID_->with(id).integer();
  begin();
  remove_->with(number).run();
  commit();
}

std::vector<BareRow> BareStore::fetchAll() {
  return rowsOf(all_->with());
}

std::vector<BareRow> BareStore::fetchBySource(const std::string& sourceID) {
  return rowsOf(bySource_->with(sourceID));
}

BareRow BareStore::fetchByID(const std::string& id) {
  std::vector<BareRow> rows = rowsOf(byID_->with(id));
  if (rows.empty()) fail(database_.get(), "no event " + id);
  return std::move(rows.front());
}

std::vector<BareRow> BareStore::fetchNewest(const std::string& sourceID, std::int64_t severity,
                                            std::int64_t count) {
  return rowsOf(newest_->with(sourceID, severity, count));
}

std::vector<BareRow> BareStore::fetchSince(const std::string& sourceID, double moment,
                                           std::int64_t severity) {
  return rowsOf(since_->with(sourceID, moment, severity));
}

std::vector<std::string> BareStore::distinctSources(const std::vector<std::string>& blockedSources,
                                                    const std::string& blockedClass,
                                                    const std::string& pairClass,
                                                    const std::string& pairSource) {
  Statement select(database_.get(),
                   "SELECT DISTINCT t0.ZEVENTSOURCEID FROM ZQXEVENT AS t0 LEFT JOIN ZQXEVENTCLASS AS t1 "
                   "ON t1.Z_PK = t0.ZEVENTCLASS WHERE NOT (t0.ZEVENTSOURCEID IN (?, ?) OR "
                   "t1.ZEVENTCLASSID IS ?) AND NOT (t1.ZEVENTCLASSID IS ? AND t0.ZEVENTSOURCEID IS ?)");
  select.with(blockedSources.at(0), blockedSources.at(1), blockedClass, pairClass, pairSource);
  std::vector<std::string> result;
  while (select.step())
    result.push_back(select.text(0));
  return result;
}

std::uint64_t BareStore::countOf(const char* sql) {
  Statement count(database_.get(), sql);
  return static_cast<std::uint64_t>(count.integer());
}

std::uint64_t BareStore::count() {
  return countOf("SELECT COUNT(*) FROM ZQXEVENT");
}

std::uint64_t BareStore::countUnread() {
  return countOf("SELECT COUNT(*) FROM ZQXEVENT WHERE ZEVENTREADSTATUS = 0");
}

std::uint64_t BareStore::countDistinctIDs() {
  return countOf("SELECT COUNT(DISTINCT ZEVENTID) FROM ZQXEVENT");
}

}  // namespace benchmarks
