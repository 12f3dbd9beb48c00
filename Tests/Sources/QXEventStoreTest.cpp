// The facade: what it refuses, how it keeps records in step, what it announces and passes on.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "Tests/Sources/EventStoreTesting.h"

namespace qx::test {
namespace {

using Texts = std::vector<std::string>;

class FacadeTest : public EventStoreTest {
 protected:
  static std::int64_t codeOf(const ErrorPtr& error) { return error ? error->code() : 0; }
};

TEST_F(FacadeTest, RefusesRecordsThatDoNotFitTheOperation) {
  const auto invalid = std::make_shared<QXEvent>();
  const auto detached = makeEvent("E1");
  const auto stored = added(makeEvent("E2"));
  const char* const invalidEvent = "Operation failed due to invalid QXEvent object";
  const char* const invalidParameter = "Operation failed due to invalid parameter";
  const auto refused = [](const std::function<bool(ErrorPtr*)>& operation, const char* description) {
    ErrorPtr error;
    EXPECT_FALSE(operation(&error));
    EXPECT_FALSE(operation(nullptr));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), QXEventStoreErrorDomain);
    EXPECT_EQ(error->code(), -999);
    EXPECT_EQ(error->userInfo(), (Dictionary{{"NSLocalizedDescription", description}}));
  };
  for (const auto& event : {QXEventPtr(), invalid, stored}) {
    refused([&](ErrorPtr* error) { return store().addEvent(event, error); }, invalidEvent);
  }
  for (const auto& event : {QXEventPtr(), invalid, detached}) {
    refused([&](ErrorPtr* error) { return store().saveEvent(event, error); }, invalidParameter);
    refused([&](ErrorPtr* error) { return store().removeEvent(event, error); }, invalidParameter);
  }
  refused([&](ErrorPtr* error) { return store().shouldApplicationAtPath({}, true, error); },
          invalidParameter);
  refused([&](ErrorPtr* error) { return store().shouldBlock(true, {}, nullptr, error); },
          "Failed operation due to invalid input parameters");
}

TEST_F(FacadeTest, KeepsRecordsInStepAndAnnouncesChanges) {
  StoreUpdates updates;
  const auto event = added(makeEvent("E1"));
  EXPECT_TRUE(event->isPersistentlyStored());
  EXPECT_EQ(updates.takeEvents(), (std::vector<Dictionary>{change(Array{"E1"}, 1)}));

  ErrorPtr error;
  EXPECT_TRUE(store().saveEvent(event, &error)) << "unchanged";
  EXPECT_EQ(event->versionNumber(), 0);
  EXPECT_TRUE(updates.takeEvents().empty());

  const auto other = QXEvent::eventWithEventID("E1");
  event->setReadStatus(true);
  event->setStatus({2, 3});
  EXPECT_TRUE(store().saveEvent(event, &error));
  EXPECT_EQ(event->versionNumber(), 1);
  EXPECT_EQ(updates.takeEvents(), (std::vector<Dictionary>{change(Array{"E1"}, 20)}));

  other->setReadStatus(true);
  EXPECT_FALSE(store().saveEvent(other, &error));
  EXPECT_EQ(codeOf(error), -994);
  EXPECT_EQ(error->description(), "The QXEvent not up to date. Please get the event from store");
  EXPECT_EQ(other->versionNumber(), 0);
  const auto again = QXEvent::eventWithEventID("E1");
  again->setReadStatus(false);
  EXPECT_TRUE(store().saveEvent(again, &error));
  EXPECT_EQ(again->versionNumber(), 2);

  EXPECT_TRUE(store().removeEvent(event, &error));
  EXPECT_FALSE(event->isPersistentlyStored());
  EXPECT_EQ(updates.takeEvents(), (std::vector<Dictionary>{change(Array{"E1"}, 8), change(Array{"E1"}, 32)}));
  EXPECT_FALSE(store().saveEvent(again, &error));
  EXPECT_EQ(codeOf(error), -995);
  EXPECT_EQ(error->description(), "The QXEvent is not present in the store");
  EXPECT_TRUE(again->isPersistentlyStored());
  EXPECT_TRUE(updates.takeEvents().empty());
}

TEST_F(FacadeTest, RemovesAnUnknownEventOnlyForThoseWhoDoNotAsk) {
  const auto event = makeEvent("E1");
  event->setAsPersistentlyStored(true);
  ErrorPtr error;
  EXPECT_FALSE(store().removeEvent(event, &error));
  EXPECT_EQ(codeOf(error), -995);
  EXPECT_TRUE(event->isPersistentlyStored());
  EXPECT_TRUE(store().removeEvent(event));
  EXPECT_FALSE(event->isPersistentlyStored());
}

TEST_F(FacadeTest, AnnouncesBlocksForEachEventAndStartsNothingForABlockedOne) {
  ArrangedHost host;
  const ScopedHost scope(host);
  const std::string viewer = root.path() + "/viewer";
  writeFile(viewer, "");
  ASSERT_TRUE(store().shouldApplicationAtPath(viewer, true));
  const auto source = makeSource("S1");
  added(makeEvent("E1", kUnknownClass, source));
  added(makeEvent("E2", kUnknownClass, source));
  EXPECT_EQ(host.started, (Texts{viewer + " -eventID E1", viewer + " -eventID E2"}));

  StoreUpdates updates;
  EXPECT_TRUE(store().shouldBlock(true, kUnknownClass, nullptr));
  EXPECT_EQ(updates.takeEvents(), (std::vector<Dictionary>{change("E1", 64), change("E2", 64)}));
  added(makeEvent("E3", kUnknownClass, source));
  EXPECT_EQ(updates.takeEvents(), (std::vector<Dictionary>{change(Array{"E3"}, 65)}));
  EXPECT_EQ(host.started.size(), 2U);

  ErrorPtr error;
  EXPECT_FALSE(store().shouldBlock(false, kUnknownClass, source, &error)) << "another pair";
  EXPECT_EQ(codeOf(error), -998);
  EXPECT_EQ(error->description(), "Operation failed while writing to the file");
  EXPECT_TRUE(store().shouldBlock(false, kUnknownClass, nullptr));
  EXPECT_EQ(updates.takeEvents(),
            (std::vector<Dictionary>{change("E1", 128), change("E2", 128), change("E3", 128)}));
  EXPECT_TRUE(store().shouldApplicationAtPath(viewer, false));
  EXPECT_EQ(rows(kDestinationAppEntity), 0U);
}

TEST_F(FacadeTest, AddsManyEventsAtOnce) {
  ArrangedHost host;
  const ScopedHost scope(host);
  writeFile(root.path() + "/viewer", "");
  ASSERT_TRUE(store().shouldApplicationAtPath(root.path() + "/viewer", true));
  ASSERT_TRUE(coordinator().blockEventClass(kKnownClass, "S2"));
  const auto before = rows(kEventClassEntity);

  StoreUpdates updates;
  std::vector<QXEventPtr> events;
  Array open;
  Array blocked;
  for (int i = 0; i < 1200; ++i) {
    const bool isBlocked = i % 3 == 0;
    events.push_back(makeEvent("E" + std::to_string(i), isBlocked ? kKnownClass : kUnknownClass,
                               makeSource(isBlocked ? "S2" : "S1")));
    events.back()->setValue(i, "number");
    (isBlocked ? blocked : open).emplace_back(*events.back()->identifier());
  }
  ErrorPtr error;
  ASSERT_TRUE(store().addEvents(events, &error)) << error->summary();
  EXPECT_EQ(updates.takeEvents(), (std::vector<Dictionary>{change(open, 1), change(blocked, 65)}));
  EXPECT_EQ(host.started, Texts{root.path() + "/viewer -eventID E1"});
  EXPECT_EQ(rows(kEventEntity), 1200U);
  EXPECT_EQ(rows(kSourceEntity), 2U);
  EXPECT_EQ(rows(kEventClassEntity), before + 3) << "an empty generic row and one for each source";
  EXPECT_TRUE(events.back()->isPersistentlyStored());
  EXPECT_EQ(QXEvent::eventWithEventID("E1199")->valueForKey("number"), Value(1199));
  EXPECT_EQ(QXEventSource::eventSourceWithID("S2"), events.front()->source());
  EXPECT_TRUE(store().addEvents({}, &error));
}

TEST_F(FacadeTest, AddsNoneOfManyWhenOneIsRefused) {
  added(makeEvent("stored"));
  const auto invalid = std::make_shared<QXEvent>("invalid");
  const auto marked = makeEvent("marked");
  marked->setAsPersistentlyStored(true);
  StoreUpdates updates;
  ErrorPtr error;
  const std::vector<QXEventPtr> events{
      makeEvent("new"),   nullptr, invalid, marked, makeEvent("twice"), makeEvent("twice"),
      makeEvent("stored")};
  EXPECT_FALSE(store().addEvents(events));
  EXPECT_FALSE(store().addEvents(events, &error));
  EXPECT_EQ(codeOf(error), -999);
  std::vector<std::size_t> refused;
  for (const Error::Item& item : error->items()) {
    refused.push_back(item.index);
    EXPECT_EQ(codeOf(item.error), -999);
  }
  EXPECT_EQ(refused, (std::vector<std::size_t>{1, 2, 3, 5, 6}));
  EXPECT_EQ(error->items().back().error->description(),
            "Event not added: an event with the ID \"stored\" is stored already");
  EXPECT_FALSE(events.front()->isPersistentlyStored());
  EXPECT_EQ(rows(kEventEntity), 1U);
  EXPECT_TRUE(updates.take().empty());
}

TEST_F(FacadeTest, TakesABatchBackWhenItCannotBeSaved) {
  const auto source = makeSource("S1");
  added(makeEvent("E1", kUnknownClass, source));
  StoreUpdates updates;
  const auto renamed = makeSource("S1");
  renamed->setName("Renamed");
  std::vector<QXEventPtr> events{makeEvent("E2", kUnknownClass, renamed),
                                 makeEvent("E3", "com.example.another", makeSource("S2"))};
  events.front()->setStatus({0, 9});
  const fs::path file = AccessorTest::store();
  const fs::path aside = file.string() + ".aside";
  fs::rename(file, aside);
  ErrorPtr error;
  EXPECT_FALSE(store().addEvents(events, &error));
  EXPECT_EQ(codeOf(error), -996);
  EXPECT_FALSE(events.front()->isPersistentlyStored());
  EXPECT_EQ(QXEventSource::eventSourceWithID("S2"), nullptr);
  fs::rename(aside, file);
  EXPECT_TRUE(updates.take().empty());

  ASSERT_TRUE(save(&error)) << error->summary();
  EXPECT_EQ(identifiers(nullptr), Texts{"E1"});
  EXPECT_EQ(QXEvent::eventWithEventID("E1")->status().length, 3U) << "the class row has its old values";
  EXPECT_EQ(rows(kSourceEntity, key(kSourceName) == "Printer S1"), 1U);
  EXPECT_EQ(rows(kSourceEntity), 1U);
  EXPECT_TRUE(store().addEvents(events, &error)) << error->summary();
}

TEST_F(FacadeTest, GathersSavesAndRemovalsOfHalfASecond) {
  std::vector<QXEventPtr> events;
  for (const char* identifier : {"E1", "E2", "E3"})
    events.push_back(added(makeEvent(identifier)));
  StoreUpdates updates;
  for (const auto& event : events) {
    event->setReadStatus(true);
    ASSERT_TRUE(store().saveEvent(event));
  }
  ASSERT_TRUE(store().removeEvent(events[1]));
  ASSERT_TRUE(updates.waitFor(2)) << "the flush thread posts by itself";
  EXPECT_EQ(updates.takeEvents(),
            (std::vector<Dictionary>{change(Array{"E2"}, 8), change(Array{"E1", "E2", "E3"}, 16)}));
  events[0]->setReadStatus(false);
  ASSERT_TRUE(store().saveEvent(events[0]));
  ASSERT_TRUE(updates.waitFor(1)) << "and starts anew for the next burst";
  EXPECT_EQ(updates.takeEvents(), (std::vector<Dictionary>{change(Array{"E1"}, 32)}));
}

TEST_F(FacadeTest, GathersAnnouncementsByMaskUnderTheFirstUser) {
  auto& center = QXESDistributedNotificationCenter::defaultCenter();
  StoreUpdates updates;
  const auto announce = [&](Value eventID, Value mask, const char* user) {
    Dictionary info{{"Current User Name", user}};
    if (!eventID.isNull()) info.set("Event ID", eventID);
    if (!mask.isNull()) info.set("QXEventStoreChangeKey", mask);
    center.postNotificationName("any", "object", info, 0);
  };
  announce("E1", 16, "first");
  announce("E1", 16, "second");
  announce({}, 16, "no ID");
  announce("E2", {}, "no mask");
  announce(Array{"E2"}, "16", "no number");
  const auto posted = updates.take();
  ASSERT_EQ(posted.size(), 1U);
  EXPECT_EQ(posted.front().object, String(std::string(kTestApplication)));
  EXPECT_EQ(posted.front().userInfo, (Dictionary{{"Event ID", Array{"E1", "E1"}},
                                                 {"QXEventStoreChangeKey", 16},
                                                 {"Current User Name", "first"}}));
}

/// Local notifications of the shared store.
class LocalChanges {
 public:
  LocalChanges() {
    EXPECT_TRUE(DistributedNotificationCenter::defaultCenter().drain(10'000)) << "what was posted before";
    observation_ = NotificationCenter::defaultCenter().addObserver(
        std::nullopt, &QXEventStore::sharedQXEventStore(), [this](const Notification& notification) {
          const std::lock_guard guard(mutex_);
          received_.push_back(notification);
        });
  }

  /// Posts an announcement as `application` and returns what it led to.
  std::vector<Notification> after(const String& application, Dictionary userInfo) {
    auto& center = DistributedNotificationCenter::defaultCenter();
    center.post(std::string(kStoreUpdated), application, std::move(userInfo), 3);
    EXPECT_TRUE(center.drain(10'000));
    const std::lock_guard guard(mutex_);
    return std::exchange(received_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<Notification> received_;  // guarded by mutex_
  Observation observation_;
};

TEST_F(FacadeTest, PassesAnnouncementsOnAsInternalOrExternal) {
  LocalChanges local;
  const std::string me = Host::current().userName();
  const String self = std::string(kTestApplication);
  struct Case {
    const char* title;
    String application;
    Value user;
    bool isInternal;
  };
  for (const Case& c : std::vector<Case>{{"this application and user", self, me, true},
                                         {"no user named", self, {}, true},
                                         {"another user", self, "somebody", false},
                                         {"a user that is no text", self, 5, false},
                                         {"another application", "com.example.other", me, false},
                                         {"no application", std::nullopt, me, false}}) {
    Dictionary info = change(Array{"E1", 7, "E2"}, 16);
    if (!c.user.isNull()) info.set("Current User Name", c.user);
    const auto received = local.after(c.application, info);
    ASSERT_EQ(received.size(), 2U) << c.title;
    for (std::size_t i = 0; i < 2; ++i) {
      Dictionary expected = change(i == 0 ? "E1" : "E2", 16);
      expected.set("Current User Name", c.user.isNull() ? Value(me) : c.user);
      if (!c.isInternal && c.application) {
        expected.set("QXEventStoreModifierApplicationIDKey", *c.application);
      }
      EXPECT_EQ(received[i].userInfo, expected) << c.title;
      EXPECT_EQ(received[i].name, c.isInternal ? "QXEventStoreChangedNotification"
                                               : "QXEventStoreChangedExternallyNotification")
          << c.title;
    }
  }
  EXPECT_EQ(local.after(self, change("E1", 64)).size(), 1U) << "a single ID is a list of one";
  EXPECT_EQ(local.after(self, {{"Event ID", 5}}).size(), 0U);
  const Dictionary repaired{{"QXEventStoreChangeKey", 4096}, {"Current User Name", "somebody"}};
  const auto received = local.after(self, repaired);
  ASSERT_EQ(received.size(), 1U);
  EXPECT_EQ(received.front().userInfo, repaired) << "without IDs it goes on as it is";
  EXPECT_EQ(received.front().name, "QXEventStoreChangedExternallyNotification");
  Bundle::setMainBundleIdentifier("");
  EXPECT_EQ(local.after(std::nullopt, change("E1", 1)).front().name,
            "QXEventStoreChangedExternallyNotification")
      << "nobody knows whose it is";
}

TEST_F(FacadeTest, AppliesChangesOfSourcesBeforeItPassesThemOn) {
  added(makeEvent("E1"));
  const auto source = QXEventSource::eventSourceWithID("S1");
  source->setMakeAndModel("Model");
  LocalChanges local;
  String nameInObserver;
  const auto observation = NotificationCenter::defaultCenter().addObserver(
      std::nullopt, &store(), [&](const Notification&) { nameInObserver = source->name(); });
  const auto received = local.after(
      "com.example.other", {{"Modified source id", "S1"},
                            {"Modified source dictionary",
                             Dictionary{{"sourceName", "Renamed"}, {"serviceID", 5}, {"other", 1}}}});
  EXPECT_EQ(received.size(), 1U);
  EXPECT_EQ(nameInObserver, "Renamed");
  EXPECT_EQ(source->makeAndModel(), "Model");
  EXPECT_EQ(source->serviceID(), std::nullopt);
  local.after(
      {}, {{"Modified source id", "S9"}, {"Modified source dictionary", Dictionary{{"sourceName", "x"}}}});
  EXPECT_EQ(QXEventSource::eventSourceWithID("S9"), nullptr);
}

TEST_F(FacadeTest, NamesNoUserInTheLog) {
  LocalChanges local;
  CollectedLines collected(journal);
  for (const std::string& user : {Host::current().userName(), std::string("somebody")}) {
    local.after("app", {{"Current User Name", user}});
  }
  Texts lines = collected.take();
  std::erase_if(lines,
                [](const std::string& line) { return line.find("notifyListener") == std::string::npos; });
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_NE(lines[0].find("<current>"), std::string::npos);
  EXPECT_NE(lines[1].find("<another>"), std::string::npos);
  EXPECT_EQ(lines[1].find("somebody"), std::string::npos);
}

TEST_F(FacadeTest, TellsHowTheStoreStands) {
  added(makeEvent("E1"));
  ASSERT_TRUE(coordinator().blockEventClass(kKnownClass, std::nullopt));
  auto status = store().status();
  EXPECT_EQ(status.path, AccessorTest::store().string());
  EXPECT_TRUE(status.exists && status.open && status.writable && status.compatible);
  EXPECT_GT(status.size, 0U);
  EXPECT_TRUE(status.freeMegabytes.has_value());
  EXPECT_EQ(status.problem, nullptr);
  EXPECT_EQ(status.rows.size(), 6U);
  EXPECT_EQ(status.rows.front().count, 1U);
  EXPECT_EQ(status.blocks, 1U);
  fs::remove(AccessorTest::store());
  status = store().status();
  EXPECT_FALSE(status.exists || status.compatible);
  EXPECT_EQ(codeOf(status.problem), -996);
}

TEST_F(FacadeTest, ServesManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kEvents = 25;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < kEvents; ++i) {
        const auto event = added(makeEvent(std::to_string(thread) + "/" + std::to_string(i), kUnknownClass,
                                           makeSource("S" + std::to_string(i % 2))));
        event->setReadStatus(true);
        ErrorPtr error;
        EXPECT_TRUE(store().saveEvent(event, &error)) << error->summary();
        for (const auto& source : store().eventSources())
          EXPECT_TRUE(source->isValidSource());
        EXPECT_TRUE(i % 5 != 0 || store().removeEvent(event, &error));
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(rows(kEventEntity, key(kEventReadStatus) == true), kThreads * kEvents * 4U / 5U);
  EXPECT_EQ(rows(kSourceEntity), 2U);
}

}  // namespace
}  // namespace qx::test
