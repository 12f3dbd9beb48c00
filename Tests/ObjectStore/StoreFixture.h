#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>

#include "ObjectStore/ManagedObjectContext.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace qx::test {

/// The library's own model.
inline ManagedObjectModelPtr productModel() {
  static const ManagedObjectModelPtr model = ManagedObjectModel::load(QX_MODEL_FILE);
  return model;
}

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

/// A store file in a directory of its own, and one stack of coordinator and context on it.
class StoreTest : public testing::Test {
 protected:
  struct Stack {
    explicit Stack(const std::string& path, ErrorPtr* error = nullptr, const Dictionary& options = {})
        : coordinator(std::make_shared<PersistentStoreCoordinator>(productModel())),
          store(coordinator->addPersistentStore(kSQLiteStoreType, path, options, error)),
          context(coordinator) {}
    std::shared_ptr<PersistentStoreCoordinator> coordinator;
    PersistentStorePtr store;
    ManagedObjectContext context;

    ManagedObjectPtr addEvent(const std::string& eventID, const ManagedObjectPtr& eventClass = nullptr) {
      auto event = context.insert("QXEvent");
      event->setValue("eventID", eventID);
      if (eventClass) event->setRelated("eventClass", eventClass);
      return event;
    }
    ManagedObjectPtr find(const std::string& eventID) {
      const auto found = context.fetch("QXEvent", key("eventID") == eventID);
      return found && !found->empty() ? found->front() : nullptr;
    }
  };

  /// Code of the error that opening the file at `path` gives; 0 when it opens.
  static std::int64_t openingCode(const std::string& path) {
    ErrorPtr error;
    const Stack stack(path, &error);
    return stack.store ? 0 : (error ? error->code() : -1);
  }

  TemporaryDirectory directory_;
  const std::string path_ = directory_ / "Store File.qxstore";
};

}  // namespace qx::test
