#include "ObjectStore/ManagedObjectModel.h"

#include "Tests/ObjectStore/StoreFixture.h"

namespace qx::test {
namespace {

TEST(ManagedObjectModel, OfTheProductNumbersItsEntitiesByNameAndNamesTheirColumns) {
  const auto model = productModel();
  ASSERT_NE(model, nullptr);
  std::string names;
  for (const auto& entity : model->entities())
    names += std::to_string(entity.number()) + entity.name() + " ";
  EXPECT_EQ(names,
            "1QXBlockedEvent 2QXDestinationApplication 3QXEvent 4QXEventClass 5QXEventSource "
            "6QXLocalizedSource ");
  const EntityDescription& event = *model->entity("QXEvent");
  EXPECT_EQ(event.table(), "ZQXEVENT");
  const auto& relationship = event.properties()[*event.indexOf("eventClass")];
  EXPECT_EQ(relationship.kind, PropertyDescription::Kind::toOne);
  EXPECT_EQ(relationship.destination, "QXEventClass");
  EXPECT_EQ(relationship.column, "ZEVENTCLASS");
}

TEST(ManagedObjectModel, IsRefusedWithAWordOnWhatIsWrong) {
  const TemporaryDirectory directory;
  const auto problemOf = [&](const std::string& entities) {
    const std::string path =
        directory.write("m.mom", "<plist version=\"1.0\"><dict><key>entities</key><array>" + entities +
                                     "</array></dict></plist>");
    ErrorPtr error;
    EXPECT_EQ(ManagedObjectModel::load(path, &error), nullptr);
    EXPECT_TRUE(error && error->code() == 259) << entities;
    return error ? error->localizedDescription() : "";
  };
  const auto entity = [](const std::string& name, const std::string& attributes) {
    return "<dict><key>name</key><string>" + name + "</string><key>attributes</key><array>" + attributes +
           "</array></dict>";
  };
  const auto attribute = [](const std::string& name, const std::string& type) {
    return "<dict><key>name</key><string>" + name + "</string><key>type</key><string>" + type +
           "</string></dict>";
  };
  EXPECT_NE(problemOf("").find("no entities"), std::string::npos);
  EXPECT_NE(problemOf(entity("A; DROP TABLE x", "")).find("no usable name"), std::string::npos);
  EXPECT_NE(problemOf(entity("A", attribute("b", "colour"))).find("A.b has no known type"),
            std::string::npos);
  EXPECT_NE(problemOf(entity("A", attribute("b", "string") + attribute("B", "string"))).find("column ZB"),
            std::string::npos);
  ErrorPtr error;
  EXPECT_EQ(ManagedObjectModel::load(directory / "none.mom", &error), nullptr);
  EXPECT_EQ(error->code(), 260);
}

}  // namespace
}  // namespace qx::test
