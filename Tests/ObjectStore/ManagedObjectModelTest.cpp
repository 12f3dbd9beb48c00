#include "ObjectStore/ManagedObjectModel.h"

#include <filesystem>
#include <map>

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
  EXPECT_NE(problemOf(entity("A",
                             "<dict><key>name</key><string>b</string><key>type</key><string>integer</string>"
                             "<key>default</key><string>0</string></dict>"))
                .find("A.b has a default of another type"),
            std::string::npos);
  ErrorPtr error;
  EXPECT_EQ(ManagedObjectModel::load(directory / "none.mom", &error), nullptr);
  EXPECT_EQ(error->code(), 260);
}

TEST(ManagedObjectModel, GivesAllVersionsOrNone) {
  const TemporaryDirectory directory;
  EXPECT_EQ(ManagedObjectModel::loadAll(directory.path())->size(), 0U);
  std::filesystem::copy_file(QX_MODEL_FILE, directory / "good.mom");
  directory.write("notes.txt", "");
  EXPECT_EQ(ManagedObjectModel::loadAll(directory.path())->size(), 1U);
  directory.write("bad.mom", "<plist");
  for (const std::string& path : {directory.path(), directory / "none", directory / "good.mom"}) {
    ErrorPtr error;
    EXPECT_FALSE(ManagedObjectModel::loadAll(path, &error)) << path;
    ASSERT_NE(error, nullptr) << path;
    EXPECT_TRUE(error->code() == 256 && error->underlying()) << error->summary();
  }
}

TEST(ManagedObjectModel, OfTheProductKeepsTheHashesOfEveryVersion) {
  // What stores in the field carry. A hash that changes makes them stores of an unknown version.
  std::map<std::string, std::string> versions;
  const auto all = ManagedObjectModel::loadAll(QX_MODEL_DIRECTORY).value();
  for (const auto& model : all) {
    std::string& start = versions[model->version()];
    for (const EntityDescription& entity : model->entities())
      for (const char byte : entity.versionHash().bytes().substr(0, 2)) {
        start += "0123456789abcdef"[static_cast<unsigned char>(byte) >> 4];
        start += "0123456789abcdef"[static_cast<unsigned char>(byte) & 15];
      }
  }
  EXPECT_EQ(versions,
            (std::map<std::string, std::string>{
                {"1", "e13212d0f65c"}, {"2", "acecf2f812d05c5e"}, {"3", "ec75acecf2f8df358ae8ec01"}}));
}

}  // namespace
}  // namespace qx::test
