// The coordinator on real stores: mapping, registered applications, failures.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <functional>

#include "Platform/UUID.h"
#include "Sources/QXESErrorProvider.h"
#include "Tests/Sources/EventStoreTesting.h"

namespace qx::test {
namespace {

using Texts = std::vector<std::string>;

/// The event's own row of its class.
class ClassRow {
 public:
  explicit ClassRow(const std::string& eventID) {
    const std::lock_guard lock(*QXDatabaseAccessor::sharedDBAccessor());
    const auto event = QXStoreCoordinator::sharedInstance().managedObjectForEventWithID(eventID);
    const auto row = event ? event->related(kEventClass) : nullptr;
    if (!row) return;
    number = row->rowNumber();
    sourceID = row->value(kSourceID);
    totalStates = row->value(kEventTotalStates).integerValue();
  }
  std::int64_t number = 0;
  Value sourceID;
  std::int64_t totalStates = 0;
};

class CoordinatorTest : public EventStoreTest {};

TEST_F(CoordinatorTest, ReadsBackWhatWasAdded) {
  const auto event = makeEvent("E1", kSpecialClass, makeSource("S1"));
  event->setSeverity(2);
  event->setReadStatus(true);
  event->setStatus({1, 4});
  event->setTriggerTime(Date{0.123456789});
  event->setVersionNumber(7);
  event->setValue(Array{"Cyan", 3, 2.5, Date{5}, Data(std::string("\0b", 2))}, "Event: Supply Color");
  added(event);

  const auto stored = QXEvent::eventWithEventID("E1");
  ASSERT_NE(stored, nullptr);
  EXPECT_TRUE(stored->isPersistentlyStored());
  EXPECT_EQ(stored->identifier(), "E1");
  EXPECT_EQ(stored->classID(), event->classID());
  EXPECT_EQ(stored->handler(), event->handler());
  EXPECT_EQ(stored->severity(), 2) << "the row's, for a special class";
  EXPECT_EQ(stored->status(), (QXEventStatus{1, 4}));
  EXPECT_EQ(stored->triggerTime(), event->triggerTime());
  EXPECT_TRUE(stored->isRead());
  EXPECT_EQ(stored->versionNumber(), 7);
  EXPECT_EQ(stored->additionalInfo(), event->additionalInfo());
  EXPECT_EQ(stored->source(), event->source()) << "the record that was added is the process's one";
  EXPECT_EQ(QXEventSource::eventSourceWithID("S1"), event->source());
  EXPECT_EQ(QXEventSource::eventSourceWithID("S2"), nullptr);
  EXPECT_EQ(QXEvent::eventWithEventID("E2"), nullptr);
  EXPECT_EQ(QXEvent::eventWithEventID(std::nullopt), nullptr);
}

TEST_F(CoordinatorTest, TakesTheSeverityOfOtherClassesFromTheDatabase) {
  const auto event = makeEvent("E1", kKnownClass);
  event->setSeverity(9);
  added(event);
  EXPECT_EQ(QXEvent::eventWithEventID("E1")->severity(), 0);
  added(makeEvent("E2"))->setSeverity(9);
  EXPECT_EQ(QXEvent::eventWithEventID("E2")->severity(), 0) << "unknown: 0";
}

TEST_F(CoordinatorTest, GivesASourceItsOwnClassRowWhereItDiffers) {
  const auto withStates = [](const char* eventID, const char* sourceID, std::uint64_t states) {
    const auto event = QXEvent::eventWithEventClassID(kKnownClass);
    auto copy = makeEvent(eventID, kKnownClass, makeSource(sourceID));
    copy->setHandler(event->handler());
    copy->setSeverity(event->severity());
    copy->setStatus({0, states});
    return added(copy);
  };
  const auto known = QXEvent::eventWithEventClassID(kKnownClass);
  ASSERT_EQ(known->classID(), kKnownClass);
  ASSERT_EQ(known->status(), (QXEventStatus{0, 1}));
  EXPECT_FALSE(known->isPersistentlyStored());
  const auto before = rows(kEventClassEntity);

  withStates("generic", "S1", 1);
  withStates("own1", "S2", 5);
  withStates("own2", "S3", 6);
  withStates("again", "S2", 7);
  withStates("back", "S2", 1);
  EXPECT_EQ(rows(kEventClassEntity), before + 2);
  EXPECT_TRUE(ClassRow("generic").sourceID.isNull());
  EXPECT_EQ(ClassRow("own1").sourceID, Value("S2"));
  EXPECT_EQ(ClassRow("own1").totalStates, 7) << "follows the source's latest event";
  EXPECT_EQ(ClassRow("own1").number, ClassRow("again").number);
  EXPECT_EQ(ClassRow("own2").totalStates, 6);
  EXPECT_EQ(ClassRow("back").number, ClassRow("generic").number) << "agrees with the generic row again";
}

TEST_F(CoordinatorTest, MakesAnEmptyGenericRowForAClassNobodyKnows) {
  const auto before = rows(kEventClassEntity);
  added(makeEvent("E1"));
  EXPECT_EQ(rows(kEventClassEntity), before + 2);
  EXPECT_EQ(ClassRow("E1").sourceID, Value("S1"));
  EXPECT_EQ(rows(kEventClassEntity, Predicate::withFormat("eventClassID == nil AND sourceID == nil")), 1U);

  const auto unknown = QXEvent::eventWithEventClassID("com.example.other");
  ASSERT_NE(unknown, nullptr);
  EXPECT_TRUE(isUUID(*unknown->identifier()));
  EXPECT_EQ(unknown->classID(), std::nullopt);
  EXPECT_EQ(unknown->handler(), std::nullopt);
  EXPECT_EQ(unknown->status(), QXEventStatus{});
  for (int i = 0; i < 3; ++i)
    QXEvent::eventWithEventClassID("com.example.other");
  EXPECT_EQ(rows(kEventClassEntity), before + 3) << "asking leaves one row to save, not one per call";
  const auto classes = QXEvent::knownEventClassIDs();
  ASSERT_TRUE(classes);
  EXPECT_EQ(std::count(classes->begin(), classes->end(), kKnownClass), 1);
  EXPECT_EQ(std::count(classes->begin(), classes->end(), kUnknownClass), 0);
}

TEST_F(CoordinatorTest, ReadsStatesAs32BitNumbers) {
  const auto event = makeEvent("E1");
  event->setStatus({(1ULL << 32) + 1, (1ULL << 32) + 2});
  added(event);
  EXPECT_EQ(coordinator().modifiedEventValueKeys(event), 0);
  const auto stored = QXEvent::eventWithEventID("E1");
  EXPECT_EQ(stored->status(), (QXEventStatus{1, 2}));
  EXPECT_EQ(coordinator().modifiedEventValueKeys(stored), 0) << "reading changes nothing";
  setStored("E1", kEventCurrentState, -1);
  EXPECT_EQ(QXEvent::eventWithEventID("E1")->status().location, ~0ULL);
}

TEST_F(CoordinatorTest, FindsWhatChangedAndRaisesTheVersionOnce) {
  added(makeEvent("E1"));
  struct Step {
    const char* title;
    std::function<void(QXEvent&)> change;
    std::int64_t mask;
  };
  const std::vector<Step> steps{
      {"nothing", [](QXEvent&) {}, 0},
      {"looked at", [](QXEvent& e) { e.additionalInfo(); }, 0},
      {"read", [](QXEvent& e) { e.setReadStatus(true); }, 16},
      {"unread", [](QXEvent& e) { e.setReadStatus(false); }, 32},
      {"read and state",
       [](QXEvent& e) {
         e.setReadStatus(true), e.setStatus({2, 3});
       },
       20},
      {"info", [](QXEvent& e) { e.setValue(1, "x"); }, 2},
      {"equal info", [](QXEvent& e) { e.setValue(true, "x"); }, 0},
      {"everything",
       [](QXEvent& e) {
         e.setReadStatus(false), e.setStatus({3, 3}), e.setValue({}, "x");
       },
       38},
      {"what is never saved", [](QXEvent& e) { e.setTriggerTime(Date{7}), e.setHandler("other"); }, 0},
      {"what no property list holds", [](QXEvent& e) { e.additionalInfo().set("x", Value()); }, 2},
      {"info that was not stored", [](QXEvent& e) { e.additionalInfo().clear(); }, 2},
  };
  std::int64_t version = 0;
  for (const Step& step : steps) {
    const auto event = QXEvent::eventWithEventID("E1");
    ASSERT_EQ(event->versionNumber(), version) << step.title;
    step.change(*event);
    EXPECT_EQ(coordinator().modifiedEventValueKeys(event), step.mask) << step.title;
    ASSERT_TRUE(coordinator().saveEvent(event));
    if (step.mask != 0) ++version;
    EXPECT_EQ(coordinator().storedVersionNumberForEvent(event), version) << step.title;
  }
  const auto event = makeEvent("E1");
  event->setVersionNumber(version - 1);
  event->setReadStatus(true);
  EXPECT_EQ(coordinator().modifiedEventValueKeys(event), QXStoreCoordinator::kEventIsStale);
  EXPECT_FALSE(QXEvent::eventWithEventID("E1")->isRead());
  EXPECT_EQ(coordinator().modifiedEventValueKeys(makeEvent("E2")), QXStoreCoordinator::kEventIsMissing);
  EXPECT_EQ(coordinator().storedVersionNumberForEvent(makeEvent("E2")), 0);
}

TEST_F(CoordinatorTest, MergesStoredInfoOverWhatTheRecordHas) {
  const auto event = makeEvent("E1");
  event->additionalInfo() = {{"a", 1}, {"b", 2}};
  added(event);
  QXEvent record("E1");
  record.setValue("old", "a");
  record.setValue("kept", "c");
  {
    const std::lock_guard lock(accessor());
    coordinator().setValuesForFromEventManagedObject(record,
                                                     *coordinator().managedObjectForEventWithID("E1"));
  }
  record.setValue("new", "b");
  EXPECT_EQ(record.additionalInfo(), (Dictionary{{"a", 1}, {"b", "new"}, {"c", "kept"}}));
}

TEST_F(CoordinatorTest, ReadsDamagedValuesAsMissing) {
  added(makeEvent("E1"));
  setStored("E1", kEventAdditionalInfo, Data("bplist00 damaged"));
  const auto event = QXEvent::eventWithEventID("E1");
  EXPECT_TRUE(event->additionalInfo().empty());
  EXPECT_EQ(coordinator().modifiedEventValueKeys(event), 2) << "written anew";
  setStored("E1", kEventSourceID, nullptr);
  setStored("E1", kEventTriggerTime, nullptr);
  const auto poor = QXEvent::eventWithEventID("E1");
  EXPECT_EQ(poor->source(), nullptr);
  EXPECT_FALSE(poor->isValidEvent());
  EXPECT_EQ(identifiers(nullptr), Texts{"E1"});
}

TEST_F(CoordinatorTest, AnnouncesASourceWhoseStoredValuesChange) {
  StoreUpdates updates;
  const auto changes = [&] {
    std::vector<Dictionary> result;
    for (auto& notification : updates.take()) {
      if (notification.userInfo.contains(kModifiedSourceId))
        result.push_back(std::move(notification.userInfo));
    }
    return result;
  };
  const auto info = [](Dictionary values) {
    return std::vector<Dictionary>{{{"Current User Name", Host::current().userName()},
                                    {"Modified source id", "S1"},
                                    {"Modified source dictionary", std::move(values)}}};
  };
  const auto first = makeSource("S1");
  added(makeEvent("E1", kUnknownClass, first));
  EXPECT_EQ(changes(), info({{"sourceID", "S1"}, {"sourceName", "Printer S1"}}));
  added(makeEvent("E2", kUnknownClass, makeSource("S1")));
  EXPECT_EQ(changes(), std::vector<Dictionary>());

  const auto renamed = makeSource("S1");
  renamed->setName("Renamed");
  renamed->setServiceID("svc");
  added(makeEvent("E3", kUnknownClass, renamed));
  EXPECT_EQ(changes(), info({{"sourceName", "Renamed"}, {"serviceID", "svc"}}));
  EXPECT_EQ(QXEventSource::eventSourceWithID("S1"), first);
  EXPECT_EQ(first->name(), "Renamed") << "the process's record follows";
  EXPECT_EQ(first->serviceID(), "svc");
}

TEST_F(CoordinatorTest, KeepsRegisteredApplications) {
  const std::string viewer = root.path() + "/viewer";
  writeFile(viewer, "");
  const auto code = [](const ErrorPtr& error) { return error ? error->code() : 0; };
  ErrorPtr error;
  EXPECT_FALSE(coordinator().storeApplicationPath(root.path() + "/none", &error));
  EXPECT_EQ(code(error), -995);
  EXPECT_EQ(error->description(), "The path is invalid");
  error = nullptr;
  EXPECT_TRUE(coordinator().storeApplicationPath(viewer, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_FALSE(coordinator().storeApplicationPath(viewer, &error));
  EXPECT_EQ(code(error), -998);
  EXPECT_FALSE(coordinator().storeApplicationPath(viewer));
  EXPECT_EQ(rows(kDestinationAppEntity), 1U);
  EXPECT_TRUE(coordinator().removeApplicationPath(viewer, &error));
  EXPECT_EQ(error->description(), "Application path is not present in the store.");
  EXPECT_EQ(code(error), -995);
  error = nullptr;
  EXPECT_FALSE(coordinator().removeApplicationPath(viewer, &error));
  EXPECT_EQ(error, nullptr);
}

TEST_F(CoordinatorTest, StartsRegisteredApplicationsThatDoNotRun) {
  ArrangedHost host;
  const ScopedHost scope(host);
  EXPECT_TRUE(coordinator().launchApplicationsWithArgument("E1")) << "none are registered";
  const std::string plain = root.path() + "/plain";
  const std::string bundle = root.path() + "/Viewer.app";
  const std::string gone = root.path() + "/gone";
  for (const auto& file : {plain, gone, bundle + "/Contents/MacOS/Viewer"})
    writeFile(file, "");
  writeFile(bundle + "/Contents/Info.plist",
            "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
            "<string>Viewer</string></dict></plist>");
  for (const auto& path : {plain, gone, bundle})
    ASSERT_TRUE(coordinator().storeApplicationPath(path));
  fs::remove(gone);

  EXPECT_TRUE(coordinator().launchApplicationsWithArgument("E1"));
  EXPECT_EQ(host.started, (Texts{plain + " -eventID E1", bundle + "/Contents/MacOS/Viewer -eventID E1"}));
  host.started.clear();
  host.processes = "1 /sbin/init\n2 " + bundle + "/Contents/MacOS/Viewer\n3 vi " + plain + "\n";
  EXPECT_TRUE(coordinator().launchApplicationsWithArgument("E2"));
  EXPECT_EQ(host.started, Texts());
  host.processes = std::nullopt;
  host.startable = false;
  EXPECT_FALSE(coordinator().launchApplicationsWithArgument("E3"));
  EXPECT_EQ(host.started.size(), 2U) << "one failure does not stop the others";
}

TEST_F(CoordinatorTest, LooksForRelativeApplicationsBesideTheLibrary) {
  ArrangedHost host;
  const ScopedHost scope(host);
  const std::string directory = Bundle::library().path();
  const std::string name = "tool-" + makeEvent("E")->identifier().value() + "-" + std::to_string(::getpid());
  writeFile(directory + "/" + name, "");
  addApplication("./Tools/../" + name);
  EXPECT_TRUE(coordinator().launchApplicationsWithArgument("E1"));
  fs::remove(directory + "/" + name);
  EXPECT_EQ(host.started, Texts{directory + "/" + name + " -eventID E1"});
}

TEST_F(CoordinatorTest, TranslatesFailuresByCodeAndByTheStateOfTheDisk) {
  ArrangedHost host;
  const ScopedHost scope(host);
  coordinator();
  const ErrorPtr notPermitted = Error::make(kCocoaErrorDomain, 513);
  struct Case {
    std::int64_t code;
    ErrorPtr underlying;
    bool writable;
    double freeMegabytes;
    std::int64_t expected;  // 0: no error
  };
  const auto translated = [&](const Case& c) -> std::int64_t {
    host.writable = c.writable;
    host.freeBytes = static_cast<std::uint64_t>(c.freeMegabytes * 1e6);
    Error::Details details;
    details.underlying = c.underlying;
    const ErrorPtr error = coordinator().generateError(Error::make(kSQLiteErrorDomain, c.code, details));
    EXPECT_TRUE(!error || error->domain() == QXEventStoreErrorDomain);
    return error ? error->code() : 0;
  };
  for (const Case& c : std::vector<Case>{
           {19, {}, true, 10, 0},
           {19, {}, true, 0.5, -993},
           {778, {}, true, 1, 0},
           {778, {}, true, 0.999999, -993},
           {256, {}, true, 10, 0},
           {256, {}, true, 0.5, -993},
           {256, {}, false, 0.5, -997},
           {259, {}, false, 0.5, -998},
           {260, {}, true, 10, -998},
           {134030, {}, true, 0.5, -993},
           {134030, {}, true, 10, -998},
           {134030, {}, false, 10, -997},
           {134030, notPermitted, true, 10, -997},
           {1570, {}, false, 10, -997},
           {1570, {}, true, 0.5, -993},
           {1570, {}, true, 10, 0},
       }) {
    EXPECT_EQ(translated(c), c.expected) << c.code << " " << c.freeMegabytes << " " << c.writable;
  }
  ASSERT_TRUE(DistributedNotificationCenter::defaultCenter().drain(10'000));
  FileUpdates repairs;
  translated({1570, {}, false, 10, 0});
  EXPECT_EQ(repairs.takeCodes().size(), 1U) << "a repair was tried";
  fs::remove(AccessorTest::store());
  EXPECT_EQ(translated({260, {}, true, 10, 0}), -996);
  EXPECT_EQ(translated({134030, notPermitted, false, 10, 0}), -996);
  EXPECT_EQ(translated({1570, {}, true, 10, 0}), -996);
  EXPECT_EQ(translated({259, {}, true, 10, 0}), -998);
}

TEST_F(CoordinatorTest, TakesTheSeverityOfSpecialClassesFromTheirRows) {
  const char* const special[] = {
      "com.qx.printer.frontpanelevent.scan",
      "com.qx.printer.state.devicestatus.attentionneeded.inreservemode",
      "com.qx.printer.state.devicestatus.outputbinclosed",
      "com.qx.printer.state.supply.installed.previouslyused.acknowledge",
      "com.qx.printer.state.supply.status.defectivememory",
      "com.qx.printer.state.supply.status.memorymissing",
      "com.qx.printer.state.supply.status.unsupported",
      "com.qx.printer.state.supply.installed.genuineqx",
      "com.qx.printer.state.devicestatus.phastartupblocked",
  };
  for (const char* classID : special) {
    const auto event = makeEvent(classID, classID);
    event->setSeverity(9);
    added(event);
    EXPECT_EQ(QXEvent::eventWithEventID(classID)->severity(), 9) << classID;
  }
}

TEST_F(CoordinatorTest, MeasuresFreeSpaceOnlyWithoutASlot) {
  ArrangedHost host;
  const ScopedHost scope(host);
  host.freeBytes = 2'500'000;
  EXPECT_EQ(coordinator().availableSpaceInDisk("/"), 2.5);
  ErrorPtr error;
  EXPECT_EQ(coordinator().availableSpaceInDisk("/", &error), std::nullopt);
  EXPECT_EQ(error, nullptr);
  host.freeBytes = std::nullopt;
  EXPECT_EQ(coordinator().availableSpaceInDisk("/"), std::nullopt);
  EXPECT_EQ(coordinator().generateError(Error::make(kSQLiteErrorDomain, 778))->code(), -993)
      << "a disk that cannot be measured counts as full";
}

TEST(ErrorProvider, GivesEachCodeItsTextsAndOptions) {
  const auto corrupted = QXESErrorProvider::errorWithCode(-998);
  const auto missing = QXESErrorProvider::errorWithCode(-996);
  EXPECT_EQ(corrupted->recoveryOptions().size(), 2U);
  EXPECT_EQ(corrupted->recoveryOptions(), missing->recoveryOptions());
  EXPECT_EQ(corrupted->suggestion(), missing->suggestion());
  EXPECT_NE(corrupted->description(), missing->description());
  EXPECT_EQ(QXESErrorProvider::errorWithCode(-993)->recoveryOptions().size(), 1U);
  EXPECT_NE(QXESErrorProvider::errorWithCode(-997)->recoveryOptions(), missing->recoveryOptions());
  for (const std::int64_t code : {-999, -995, -994}) {
    const auto error = QXESErrorProvider::errorWithCode(code);
    EXPECT_EQ(error->userInfo().size(), 1U) << code;
    EXPECT_EQ(error->code(), code);
  }
  EXPECT_EQ(QXESErrorProvider::errorWithCode(-994)->description(),
            QXESErrorProvider::errorWithCode(-999)->description());
  for (const std::int64_t code : {0, -1000, 999}) {
    const auto error = QXESErrorProvider::errorWithCode(code);
    EXPECT_EQ(error->domain(), "com.qx.eventstoring");
    EXPECT_TRUE(error->userInfo().empty()) << code;
  }
  for (const std::int64_t code : {-998, -997, -996, -993}) {
    const auto error = QXESErrorProvider::errorWithCode(code);
    EXPECT_NE(error->description()->find(' '), std::string::npos) << "a text, not its key";
    EXPECT_NE(error->suggestion()->find(' '), std::string::npos) << code;
  }
}

}  // namespace
}  // namespace qx::test
