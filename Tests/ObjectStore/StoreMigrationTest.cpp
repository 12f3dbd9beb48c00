// Stores of earlier versions of the model: what becomes of them when they are opened.
#include <unistd.h>

#include "Tests/ObjectStore/MigrationTesting.h"
#include "Tests/Support/ChildProcess.h"

namespace qx::test {
namespace {

TEST_F(StoreMigration, KeepsRowsAndIdentityOfEveryEarlierVersion) {
  { const Opened fresh(directory_ / "fresh"); }
  for (const int version : {1, 2}) {
    SCOPED_TRACE(version);
    const std::string path = old(version);
    std::string columns = "Z_PK || '|' || Z_OPT";
    for (const char* const name : {"EVENTID", "EVENTREADSTATUS", "EVENTTRIGGERTIME", "EVENTCURRENTSTATE",
                                   "EVENTSOURCEID", "EVENTADDITIONALINFO", "EVENTCLASS"})
      columns += std::string(" || '|' || QUOTE(Z") + name + ")";
    // Rows 9 to 79 were removed, and one event has nothing but its ID.
    for (const std::string sql :
         {"UPDATE Z_PRIMARYKEY SET Z_MAX = 79 WHERE Z_NAME = 'QXEvent'",
          "UPDATE ZQXEVENT SET ZEVENTREADSTATUS = NULL, ZEVENTTRIGGERTIME = NULL, ZEVENTCURRENTSTATE = NULL, "
          "ZEVENTSOURCEID = NULL, ZEVENTADDITIONALINFO = NULL, ZEVENTCLASS = NULL WHERE ZEVENTID = "
          "'EVENT-3'"})
      ASSERT_EQ(RawDatabase(path)(sql), "");
    const std::string before = rowsOf(path, columns, "ZQXEVENT");
    const std::string identity = RawDatabase(path)("SELECT Z_UUID FROM Z_METADATA");
    {
      Opened stack(path);
      ASSERT_NE(stack.store, nullptr) << stack.error->summary();
      EXPECT_EQ(stack.store->identifier(), identity);
      const auto metadata = PersistentStoreCoordinator::metadataForPersistentStore(path).value();
      EXPECT_TRUE(productModel()->isCompatibleWith(metadata));
      EXPECT_EQ(*metadata.values.find("NSStoreModelVersionIdentifiers"), Value(Array{Value("3")}));
      EXPECT_EQ(*metadata.values.find(kStoreUUIDKey), Value(identity));

      const auto found =
          stack.context.fetch("QXEvent", key("eventClass.eventClassID") == "com.qx.old.class2").value();
      ASSERT_EQ(found.size(), 2U);
      const ManagedObject& event = *found.back();
      EXPECT_EQ(event.value("eventID"), Value("EVENT-5"));
      EXPECT_EQ(event.value("eventVersionNumber"), Value(std::int64_t{version == 1 ? 0 : 1}));
      EXPECT_TRUE(event.related("eventClass")->value("sourceID").isNull());
      const auto sources = stack.context.fetch("QXEventSource", key("sourceID") == "SOURCE-1").value();
      EXPECT_EQ(sources.at(0)->value("sourceName"), Value("Drucker 1 \u00fc"));
      EXPECT_EQ(sources.at(0)->value("serviceID"), version == 1 ? Value() : Value("SERVICE-1"));
      EXPECT_EQ(stack.context.count("QXDestinationApplication", nullptr), version == 1 ? 0U : 1U);
      EXPECT_EQ(stack.context.count("QXBlockedEvent", nullptr), 0U);

      const auto added = stack.context.insert("QXEvent");
      ASSERT_TRUE(stack.context.save());
      EXPECT_EQ(added->rowNumber(), 80);
      stack.context.remove(added);
      ASSERT_TRUE(stack.context.save());
    }
    EXPECT_EQ(rowsOf(path, columns, "ZQXEVENT"), before);
    EXPECT_EQ(schemaOf(path), schemaOf(directory_ / "fresh"));
    EXPECT_EQ(rowsOf(path, "Z_ENT || Z_NAME || Z_SUPER", "Z_PRIMARYKEY"),
              rowsOf(directory_ / "fresh", "Z_ENT || Z_NAME || Z_SUPER", "Z_PRIMARYKEY"));
    for (const EntityDescription& entity : productModel()->entities())
      EXPECT_EQ(RawDatabase(path)("SELECT COUNT(*) FROM " + entity.table() + " WHERE Z_ENT <> " +
                                  std::to_string(entity.number())),
                "0")
          << entity.name();
    EXPECT_EQ(RawDatabase(path)("PRAGMA integrity_check"), "ok");
    const std::string migrated = contentOf(path);
    { EXPECT_EQ(Opened(path).code(), 0); }
    EXPECT_EQ(contentOf(path), migrated) << "the next opening has nothing to do";
  }
}

TEST_F(StoreMigration, IsRefusedWithoutTheRightToDoIt) {
  const std::string path = old(1);
  const std::string before = contentOf(path);
  for (const std::string_view left :
       {kMigratePersistentStoresAutomaticallyOption, kInferMappingModelAutomaticallyOption,
        kReadOnlyPersistentStoreOption}) {
    Dictionary options = migratingOptions();
    options.set(std::string(left), left == kReadOnlyPersistentStoreOption);
    EXPECT_EQ(Opened(path, options).code(), 134100) << left;
  }
  const auto onlyPresent = [](ErrorPtr*) { return Versions({productModel()}); };
  EXPECT_EQ(Opened(path, migratingOptions(), productModel(), onlyPresent).code(), 134100);
  EXPECT_EQ(Opened(path, migratingOptions(), productModel(), nullptr).code(), 134100);
  const auto unread = [](ErrorPtr* error) { return ManagedObjectModel::loadAll("/nowhere", error); };
  const Opened blind(path, migratingOptions(), productModel(), unread);
  EXPECT_TRUE(blind.code() == 256 && isPassingFailure(*blind.error)) << "it may be any of them";
  EXPECT_TRUE(contentOf(path) == before);
  if (::geteuid() != 0) return;
  ::chmod(directory_.path().c_str(), 0755);
  ::chmod(path.c_str(), 0444);
  ASSERT_EQ(::seteuid(65534), 0);
  const Opened stack(path);
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_EQ(stack.code(), 134030);
  EXPECT_EQ(stack.error->underlying()->code(), 513);
  EXPECT_TRUE(isPassingFailure(*stack.error));
  EXPECT_TRUE(contentOf(path) == before);
}

constexpr const char* kEarlierEntities = R"(
  <dict><key>name</key><string>Device</string><key>attributes</key><array>
    <dict><key>name</key><string>name</string><key>type</key><string>string</string></dict>
    <dict><key>name</key><string>secret</string><key>type</key><string>binary</string></dict>
  </array><key>relationships</key><array>
    <dict><key>name</key><string>place</string><key>destination</key><string>Place</string></dict>
  </array><key>indexes</key><array><array><string>secret</string></array></array></dict>
  <dict><key>name</key><string>Gone</string><key>attributes</key><array>
    <dict><key>name</key><string>note</string><key>type</key><string>string</string></dict></array></dict>
  <dict><key>name</key><string>Place</string><key>attributes</key><array>
    <dict><key>name</key><string>note</string><key>type</key><string>string</string></dict></array></dict>)";

TEST_F(StoreMigration, DropsWhatIsGoneAndFillsInDefaults) {
  const auto earlier = model("1", kEarlierEntities);
  const auto present = model("2", R"(
    <dict><key>name</key><string>Added</string><key>attributes</key><array>
    <dict><key>name</key><string>note</string><key>type</key><string>string</string></dict></array></dict>
    <dict><key>name</key><string>Device</string><key>attributes</key><array>
      <dict><key>name</key><string>colour</string><key>type</key><string>string</string>
            <key>default</key><string>it's "grey"</string></dict>
      <dict><key>name</key><string>isOn</string><key>type</key><string>boolean</string>
            <key>default</key><true/></dict>
      <dict><key>name</key><string>name</string><key>type</key><string>string</string></dict>
    </array><key>relationships</key><array>
      <dict><key>name</key><string>place</string><key>destination</key><string>Place</string></dict>
      <dict><key>name</key><string>other</string><key>destination</key><string>Device</string></dict>
    </array><key>indexes</key><array><array><string>name</string></array></array></dict>
    <dict><key>name</key><string>Place</string><key>attributes</key><array>
    <dict><key>name</key><string>note</string><key>type</key><string>string</string></dict></array></dict>)");
  const std::string path = directory_ / "store";
  {
    Opened stack(path, {}, earlier, nullptr);
    const auto device = stack.context.insert("Device");
    device->setValue("name", "one");
    device->setValue("secret", Data("secret"));
    device->setRelated("place", stack.context.insert("Place"));
    ASSERT_TRUE(stack.context.save());
  }
  {
    Opened stack(path, migratingOptions(), present, [&](ErrorPtr*) { return Versions({earlier, present}); });
    ASSERT_EQ(stack.code(), 0) << stack.error->summary();
    const auto found = stack.context.fetch("Device", nullptr).value();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]->value("name"), Value("one"));
    EXPECT_EQ(found[0]->value("colour"), Value("it's \"grey\""));
    EXPECT_EQ(found[0]->value("isOn"), Value(true));
    EXPECT_NE(found[0]->related("place"), nullptr);
    EXPECT_EQ(found[0]->related("other"), nullptr);
  }
  { const Opened fresh(directory_ / "fresh", {}, present, nullptr); }
  EXPECT_EQ(schemaOf(path), schemaOf(directory_ / "fresh"));
}

TEST_F(StoreMigration, NamesWhatCannotBeInferred) {
  const auto earlier = model("1", kEarlierEntities);
  const std::string path = directory_ / "store";
  { ASSERT_EQ(Opened(path, {}, earlier, nullptr).code(), 0); }
  const std::string before = contentOf(path);
  const auto device = [](const std::string& attribute, const std::string& destination) {
    return "<dict><key>name</key><string>Device</string><key>attributes</key><array><dict><key>name</key>" +
           attribute + "</dict></array><key>relationships</key><array>" + destination + "</array></dict>" +
           "<dict><key>name</key><string>Place</string><key>attributes</key><array><dict><key>name</key>"
           "<string>note</string><key>type</key><string>string</string></dict></array></dict>";
  };
  const std::map<std::string, std::string> obstacles{
      {"Device.name", device("<string>name</string><key>type</key><string>date</string>", "")},
      {"Device.place", device("<string>place</string><key>type</key><string>integer</string>", "")},
      {"Device.place ", device("<string>name</string><key>type</key><string>string</string>",
                               "<dict><key>name</key><string>place</string><key>destination</"
                               "key><string>Device</string></dict>")},
  };
  for (const auto& [name, entities] : obstacles) {
    const auto present = model("2", entities);
    const Opened stack(path, migratingOptions(), present, [&](ErrorPtr*) { return Versions({earlier}); });
    EXPECT_EQ(stack.code(), 134100);
    EXPECT_NE(stack.error->localizedDescription().find(name.substr(0, 11)), std::string::npos)
        << stack.error->localizedDescription();
  }
  EXPECT_TRUE(contentOf(path) == before);
}

/// SQLite's count of the transactions that changed the file:
/// https://sqlite.org/fileformat2.html#file_change_counter
std::uint32_t changesOf(const std::string& path) {
  std::uint32_t count = 0;
  for (const char byte : contentOf(path).substr(24, 4))
    count = count << 8 | static_cast<unsigned char>(byte);
  return count;
}

TEST(ConcurrentStoreMigration, IsDoneByOneOfTheProcessesThatOpenTheStoreAtOnce) {
  constexpr int kRounds = 10;
  const TemporaryDirectory directory;
  for (int round = 0; round < kRounds; ++round) {
    const std::string path = directory / ("store" + std::to_string(round));
    fs::copy_file(std::string(QX_OLD_STORES) + "/version1.qxstore", path);
    const auto changes = changesOf(path);
    const auto open = [&](const ChildProcess::Line& line) {
      line.wait();
      Opened stack(path);
      return stack.store && stack.context.count("QXEvent", nullptr) == 7 ? 0 : 1;
    };
    std::array<ChildProcess, 4> processes{ChildProcess(open), ChildProcess(open), ChildProcess(open),
                                          ChildProcess(open)};
    for (const ChildProcess& process : processes)
      process.line().signal();
    for (ChildProcess& process : processes)
      EXPECT_EQ(process.exitStatus(), 0);
    EXPECT_EQ(changesOf(path), changes + 1) << "round " << round;
  }
}

}  // namespace
}  // namespace qx::test
