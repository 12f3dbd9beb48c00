#pragma once

// What the tests of migrations share: the product's versions, and stores before and after.

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ObjectStore/SQLiteErrors.h"
#include "Tests/ObjectStore/OldStore.h"
#include "Tests/ObjectStore/StoreFixture.h"

namespace qx::test {

namespace fs = std::filesystem;

using Versions = std::optional<std::vector<ManagedObjectModelPtr>>;

inline Versions productVersions(ErrorPtr* error) {
  return ManagedObjectModel::loadAll(QX_MODEL_DIRECTORY, error);
}

inline Dictionary migratingOptions() {
  return {{std::string(kSQLitePragmasOption), Dictionary{{"journal_mode", "DELETE"}}},
          {std::string(kMigratePersistentStoresAutomaticallyOption), true},
          {std::string(kInferMappingModelAutomaticallyOption), true}};
}

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Every row of `sql`, its columns joined by "|".
inline std::string rowsOf(const std::string& path, const std::string& columns, const std::string& from) {
  return RawDatabase(path)("SELECT GROUP_CONCAT(line, char(10)) FROM (SELECT " + columns + " AS line FROM " +
                           from + ")");
}

/// Tables, indexes, and columns with their types.
inline std::string schemaOf(const std::string& path) {
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

}  // namespace qx::test
