#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Value.h>

#include "ObjectStore/ManagedObjectModel.h"
#include "ObjectStore/SQLiteErrors.h"

struct sqlite3;
struct sqlite3_stmt;
struct sqlite3_value;

namespace qx {

class RowCondition;

/// What stands for a ? in a statement.
using SQLiteParameter = std::variant<Value, std::shared_ptr<const RowCondition>>;

/// A cell of a row as an attribute of that type. What is stored decides nothing: a value that is not of the
/// asked kind is null. Cells are read by the thread that has the connection, which has no mutex of its own.
Value valueOf(sqlite3_value* cell, AttributeType type);

/// A prepared statement on loan from its connection; given back, reset, when it goes.
class SQLiteStatement {
 public:
  SQLiteStatement(SQLiteStatement&& other) noexcept;
  SQLiteStatement(const SQLiteStatement&) = delete;
  SQLiteStatement& operator=(const SQLiteStatement&) = delete;
  ~SQLiteStatement();

  /// Whether it could be prepared.
  explicit operator bool() const { return statement_ != nullptr; }
  sqlite3_stmt* get() const { return statement_; }

  // Parameters count from 1. Strings, data and conditions are not copied: they must live until the statement
  // goes. What cannot be bound (it is too large) fails the next step.
  void bind(int parameter, const Value& value);
  void bind(int parameter, std::int64_t value);
  /// All of them, from the first on.
  void bind(const std::vector<SQLiteParameter>& parameters);
  /// SQLite's result: SQLITE_ROW, SQLITE_DONE or a failure.
  int step();

  // Columns count from 0.
  std::int64_t integer(int column) const;
  bool isNull(int column) const;
  Value value(int column, AttributeType type) const;

 private:
  friend class SQLiteConnection;
  void noteBinding(int result);
  SQLiteStatement(sqlite3_stmt* statement, bool* busy) : statement_(statement), busy_(busy) {}
  sqlite3_stmt* statement_;
  int bound_ = 0;  // SQLITE_OK, or what was wrong with a parameter
  bool* busy_;     // the cache entry's mark; null when the statement is our own
};

/// One SQLite connection to a store file, set up for a file that anyone may have written.
///
/// Threads: one at a time.
class SQLiteConnection {
 public:
  enum class Mode {
    immutable,  // read-only, and nothing else changes the file while it is open
    shared,     // read and write (read-only where the rights end), other processes too
    create,     // a new, empty file; fails when there is one
  };

  /// Null on failure. `journalMode`: a name that SQLite knows; empty leaves the file's, for a short look
  /// during which others wait.
  static std::unique_ptr<SQLiteConnection> open(const std::string& path, Mode mode,
                                                std::string_view journalMode, ErrorPtr* error);
  ~SQLiteConnection();
  SQLiteConnection(const SQLiteConnection&) = delete;
  SQLiteConnection& operator=(const SQLiteConnection&) = delete;

  /// The prepared form of `sql`; kept for the next time. False when it cannot be prepared: see handle().
  SQLiteStatement prepare(std::string_view sql);
  /// Runs a statement that returns no rows, or whose rows do not matter.
  bool execute(std::string_view sql);
  /// Asks `mayGoOn` after about every that many steps of a statement; when it says no, the statement fails
  /// with SQLITE_INTERRUPT. None: no longer.
  void watchProgress(int steps, std::function<bool()> mayGoOn);
  bool inTransaction() const;
  /// Whether the file could only be opened for reading.
  bool isReadOnly() const;
  /// Rows changed by the last statement.
  int changes() const;
  const std::string& path() const { return path_; }
  ErrorPtr lastError(StoreOperation operation) const;

 private:
  struct Cached {
    sqlite3_stmt* statement = nullptr;
    bool busy = false;
  };
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
  };

  SQLiteConnection(sqlite3* handle, std::string path) : handle_(handle), path_(std::move(path)) {}
  bool isOpen() const;
  bool isBusy() const;  // whether the last failure was that another process has the file
  bool harden();
  bool tune();
  bool setJournalMode(std::string_view journalMode);
  sqlite3_stmt* compile(std::string_view sql);
  void dropIdleStatements();

  sqlite3* handle_;
  std::string path_;
  std::function<bool()> mayGoOn_;
  std::chrono::steady_clock::time_point busySince_;  // when the present wait for another process began
  std::unordered_map<std::string, Cached, TextHash, std::equal_to<>> statements_;
};

}  // namespace qx
