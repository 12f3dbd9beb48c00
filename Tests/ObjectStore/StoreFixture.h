#pragma once

#include <QXEventStoring/Platform/PredicateBuilder.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ObjectStore/ManagedObjectContext.h"
#include "Tests/Support/RawDatabase.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace qx::test {

/// The library's own model.
inline ManagedObjectModelPtr productModel() {
  static const ManagedObjectModelPtr model = ManagedObjectModel::load(QX_MODEL_FILE);
  return model;
}

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
