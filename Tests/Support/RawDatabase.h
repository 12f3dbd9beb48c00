#pragma once

#include <sqlite3.h>

#include <string>

namespace qx::test {

/// A plain SQLite connection to a store file: what another program, friendly or not, does with it.
class RawDatabase {
 public:
  explicit RawDatabase(const std::string& path) { sqlite3_open(path.c_str(), &handle_); }
  RawDatabase(const RawDatabase&) = delete;
  RawDatabase& operator=(const RawDatabase&) = delete;
  ~RawDatabase() { sqlite3_close(handle_); }

  /// The first column of the first row as text; "" for NULL or no row, SQLite's words for a failure.
  std::string operator()(const std::string& sql) const {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(handle_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
      return sqlite3_errmsg(handle_);
    std::string result;
    const int step = sqlite3_step(statement);
    const unsigned char* text = step == SQLITE_ROW ? sqlite3_column_text(statement, 0) : nullptr;
    if (text != nullptr) result = reinterpret_cast<const char*>(text);
    if (step != SQLITE_ROW && step != SQLITE_DONE) result = sqlite3_errmsg(handle_);
    sqlite3_finalize(statement);
    return result;
  }

 private:
  sqlite3* handle_ = nullptr;
};

}  // namespace qx::test
