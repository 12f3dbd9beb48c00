#include "ObjectStore/SQLiteConnection.h"

#include <sqlite3.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "ObjectStore/GuardedVFS.h"
#include "ObjectStore/PredicateFunction.h"

namespace qx {

namespace {

// A store file is anyone's to write. What one row, or one statement over it, can cost is bounded here.
constexpr int kMostBytesInAValue = 128 << 20;
constexpr std::size_t kMostKeptStatements = 100;
// Pages kept in memory, at most, in KiB: enough that a thousand events added at once to a large store need
// not be spilled to the file before the commit, which would lock readers out for that long.
constexpr std::string_view kPageCache = "PRAGMA cache_size = -16384";
constexpr auto kBusyPatience = std::chrono::seconds(10);

/// Waits while another process has the file. Writers queue before they come here, so that what is waited
/// for is nearly always the end of one commit: start small.
int waitWhileBusy(void* since, int attempt) {
  using Clock = std::chrono::steady_clock;
  auto* start = static_cast<Clock::time_point*>(since);
  if (attempt == 0) *start = Clock::now();
  if (Clock::now() - *start > kBusyPatience) return 0;
  const auto pause = attempt < 10
                         ? std::chrono::microseconds(100)
                         : (attempt < 50 ? std::chrono::microseconds(1000) : std::chrono::microseconds(5000));
  std::this_thread::sleep_for(pause);
  return 1;
}

/// The path as an SQLite URI that promises that nothing changes the file.
std::string immutableURI(const std::string& path) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string uri = "file:";
  for (const char c : path) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '/' || c == '.' || c == '-' || c == '_';
    if (plain) {
      uri += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    uri += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return uri + "?immutable=1";
}

/// Well-formed UTF-8, whatever the bytes were: what is malformed becomes U+FFFD.
std::string repairedUTF8(std::string_view bytes) {
  std::string result;
  while (!bytes.empty()) {
    std::size_t length = 1;
    while (length < 4 && length < bytes.size() && !isValidUTF8(bytes.substr(0, length)))
      ++length;
    if (isValidUTF8(bytes.substr(0, length))) {
      result += bytes.substr(0, length);
      bytes.remove_prefix(length);
    } else {
      result += "\xEF\xBF\xBD";
      bytes.remove_prefix(1);
    }
  }
  return result;
}

std::string_view bytesOf(sqlite3_value* cell) {
  const void* bytes = sqlite3_value_blob(cell);
  const auto size = static_cast<std::size_t>(sqlite3_value_bytes(cell));
  return bytes != nullptr ? std::string_view(static_cast<const char*>(bytes), size) : std::string_view();
}

}  // namespace

Value valueOf(sqlite3_value* cell, AttributeType type) {
  const int stored = sqlite3_value_type(cell);
  switch (type) {
    case AttributeType::string: {
      if (stored != SQLITE_TEXT) return {};
      const auto* bytes = reinterpret_cast<const char*>(sqlite3_value_text(cell));
      if (bytes == nullptr) return {};
      const std::string_view text(bytes, static_cast<std::size_t>(sqlite3_value_bytes(cell)));
      return isValidUTF8(text) ? Value(text) : Value(repairedUTF8(text));
    }
    case AttributeType::integer: {
      if (stored == SQLITE_INTEGER) return sqlite3_value_int64(cell);
      if (stored != SQLITE_FLOAT) return {};
      const double real = sqlite3_value_double(cell);
      return std::trunc(real) == real ? Value(Value(real).integerValue()) : Value();
    }
    case AttributeType::boolean:
      if (stored != SQLITE_INTEGER) return {};
      return sqlite3_value_int64(cell) != 0;
    case AttributeType::date:
      if (stored != SQLITE_FLOAT && stored != SQLITE_INTEGER) return {};
      return Date{sqlite3_value_double(cell)};
    case AttributeType::binary:
      if (stored != SQLITE_BLOB) return {};
      return Data(std::string(bytesOf(cell)));
  }
  return {};
}

SQLiteStatement::SQLiteStatement(SQLiteStatement&& other) noexcept
    : statement_(std::exchange(other.statement_, nullptr)), bound_(other.bound_), busy_(other.busy_) {}

SQLiteStatement::~SQLiteStatement() {
  if (statement_ == nullptr) return;
  if (busy_ == nullptr) {
    sqlite3_finalize(statement_);
    return;
  }
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);  // what they point to may go now
  *busy_ = false;
}

void SQLiteStatement::bind(int parameter, std::int64_t value) {
  noteBinding(sqlite3_bind_int64(statement_, parameter, value));
}

void SQLiteStatement::noteBinding(int result) {
  if (bound_ == SQLITE_OK) bound_ = result;
}

void SQLiteStatement::bind(int parameter, const Value& value) {
  switch (value.kind()) {
    case Value::Kind::boolean:
    case Value::Kind::integer:
      noteBinding(sqlite3_bind_int64(statement_, parameter, value.integerValue()));
      break;
    case Value::Kind::unsignedInteger:
    case Value::Kind::real:
      noteBinding(sqlite3_bind_double(statement_, parameter, value.doubleValue()));
      break;
    case Value::Kind::date:
      noteBinding(sqlite3_bind_double(statement_, parameter, value.asDate()->secondsSinceReferenceDate));
      break;
    case Value::Kind::string:
      noteBinding(sqlite3_bind_text64(statement_, parameter, value.asString()->data(),
                                      value.asString()->size(), SQLITE_STATIC, SQLITE_UTF8));
      break;
    case Value::Kind::data: {
      const std::string_view bytes = value.asData()->bytes();
      noteBinding(sqlite3_bind_blob64(statement_, parameter, bytes.empty() ? "" : bytes.data(), bytes.size(),
                                      SQLITE_STATIC));
      break;
    }
    case Value::Kind::null:
    case Value::Kind::array:
    case Value::Kind::dictionary:
      noteBinding(sqlite3_bind_null(statement_, parameter));
      break;
  }
}

void SQLiteStatement::bind(const std::vector<SQLiteParameter>& parameters) {
  int number = 0;
  for (const SQLiteParameter& parameter : parameters) {
    ++number;
    if (const Value* value = std::get_if<Value>(&parameter)) {
      bind(number, *value);
      continue;
    }
    const RowCondition* condition = std::get<std::shared_ptr<const RowCondition>>(parameter).get();
    // The pointer is only ever read through; SQLite's signature does not say so.
    noteBinding(sqlite3_bind_pointer(statement_, number, const_cast<RowCondition*>(condition),
                                     RowCondition::kPointerType, nullptr));
  }
}

int SQLiteStatement::step() {
  return bound_ == SQLITE_OK ? sqlite3_step(statement_) : bound_;
}

std::int64_t SQLiteStatement::integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}

bool SQLiteStatement::isNull(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

Value SQLiteStatement::value(int column, AttributeType type) const {
  return valueOf(sqlite3_column_value(statement_, column), type);
}

std::unique_ptr<SQLiteConnection> SQLiteConnection::open(const std::string& path, Mode mode,
                                                         std::string_view journalMode, ErrorPtr* error) {
  int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  switch (mode) {
    case Mode::immutable:
      flags |= SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
      break;
    case Mode::shared:
      flags |= SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW;
      break;
    case Mode::create:
      flags |= SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_CREATE | SQLITE_OPEN_EXCLUSIVE;
      break;
  }
  const auto openWith = [&](const char* vfs) {
    sqlite3* handle = nullptr;
    const std::string name = mode == Mode::immutable ? immutableURI(path) : path;
    sqlite3_open_v2(name.c_str(), &handle, flags, vfs);
    return std::unique_ptr<SQLiteConnection>(new SQLiteConnection(handle, path));
  };
  auto connection = openWith(guardedVFS());
  bool isReady = connection->isOpen() && connection->harden() &&
                 (mode == Mode::immutable || connection->setJournalMode(journalMode));
  if (!isReady && mode == Mode::shared && journalMode.empty() && connection->isBusy()) {
    // Somebody works on it with a log that is shared through memory: then so must we.
    connection = openWith(nullptr);
    isReady = connection->isOpen() && connection->harden() && connection->tune();
  }
  if (isReady) return connection;
  setError(error, connection->lastError(StoreOperation::open));
  return nullptr;
}

bool SQLiteConnection::isOpen() const {
  return handle_ != nullptr && sqlite3_errcode(handle_) == SQLITE_OK;
}

bool SQLiteConnection::isBusy() const {
  return handle_ != nullptr && sqlite3_errcode(handle_) == SQLITE_BUSY;
}

SQLiteConnection::~SQLiteConnection() {
  for (auto& [sql, cached] : statements_)
    sqlite3_finalize(cached.statement);
  sqlite3_close_v2(handle_);
}

/// Takes away what a hostile file could use: triggers, views, functions in its schema, writable shadow
/// tables, memory-mapped pages that a truncation turns into a crash, values without a bound.
bool SQLiteConnection::harden() {
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
  sqlite3_limit(handle_, SQLITE_LIMIT_LENGTH, kMostBytesInAValue);
  sqlite3_limit(handle_, SQLITE_LIMIT_ATTACHED, 0);
  sqlite3_busy_handler(handle_, waitWhileBusy, &busySince_);
  return registerPredicateFunction(handle_) && execute("PRAGMA mmap_size = 0") &&
         execute("PRAGMA cell_size_check = ON") && execute("PRAGMA temp_store = MEMORY");
}

/// What can only be set once the file has been looked at.
bool SQLiteConnection::tune() {
  return execute("PRAGMA synchronous = FULL") && execute(kPageCache);
}

/// With no mode given the file keeps its own. A write-ahead log is read, left or made in an exclusive locking
/// mode, which needs none of the shared memory that the guarded VFS withholds; a file that goes on with one
/// is ours alone while it is open.
bool SQLiteConnection::setJournalMode(std::string_view journalMode) {
  if (!execute("PRAGMA locking_mode = EXCLUSIVE")) return false;
  const std::string wanted = journalMode.empty() ? "" : " = " + std::string(journalMode);
  bool hasLog = false;
  {
    SQLiteStatement mode = prepare("PRAGMA journal_mode" + wanted);
    if (!mode || mode.step() != SQLITE_ROW) return false;
    hasLog = mode.value(0, AttributeType::string) == Value("wal");
  }
  return tune() && (hasLog || execute("PRAGMA locking_mode = NORMAL")) &&
         execute("SELECT COUNT(*) FROM sqlite_master");
}

bool SQLiteConnection::isReadOnly() const {
  return sqlite3_db_readonly(handle_, "main") == 1;
}

sqlite3_stmt* SQLiteConnection::compile(std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v3(handle_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &statement,
                     nullptr);
  return statement;
}

SQLiteStatement SQLiteConnection::prepare(std::string_view sql) {
  const auto found = statements_.find(sql);
  if (found != statements_.end() && !found->second.busy) {
    found->second.busy = true;
    return {found->second.statement, &found->second.busy};
  }
  if (found != statements_.end()) return {compile(sql), nullptr};
  if (statements_.size() >= kMostKeptStatements) dropIdleStatements();
  sqlite3_stmt* statement = compile(sql);
  if (statement == nullptr) return {nullptr, nullptr};
  Cached& cached = statements_.emplace(std::string(sql), Cached{statement, true}).first->second;
  return {statement, &cached.busy};
}

void SQLiteConnection::dropIdleStatements() {
  for (auto at = statements_.begin(); at != statements_.end();) {
    if (at->second.busy) {
      ++at;
      continue;
    }
    sqlite3_finalize(at->second.statement);
    at = statements_.erase(at);
  }
}

bool SQLiteConnection::execute(std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(handle_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
  if (statement == nullptr) return false;
  int result = SQLITE_ROW;
  while (result == SQLITE_ROW)
    result = sqlite3_step(statement);
  sqlite3_finalize(statement);
  return result == SQLITE_DONE;
}

void SQLiteConnection::watchProgress(int steps, std::function<bool()> mayGoOn) {
  mayGoOn_ = std::move(mayGoOn);
  const auto ask = [](void* connection) {
    return static_cast<SQLiteConnection*>(connection)->mayGoOn_() ? 0 : 1;
  };
  sqlite3_progress_handler(handle_, mayGoOn_ ? steps : 0, mayGoOn_ ? +ask : nullptr, this);
}

bool SQLiteConnection::inTransaction() const {
  return sqlite3_get_autocommit(handle_) == 0;
}

int SQLiteConnection::changes() const {
  return sqlite3_changes(handle_);
}

ErrorPtr SQLiteConnection::lastError(StoreOperation operation) const {
  if (handle_ == nullptr) return storeError(SQLITE_NOMEM, 0, operation, path_, "out of memory");
  return storeError(handle_, operation, path_);
}

}  // namespace qx
