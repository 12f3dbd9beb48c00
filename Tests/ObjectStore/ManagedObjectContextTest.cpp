#include "ObjectStore/ManagedObjectContext.h"

#include <QXEventStoring/Platform/PredicateBuilder.h>

#include <thread>

#include "Tests/ObjectStore/StoreFixture.h"

namespace qx::test {
namespace {

using ManagedObjectContextTest = StoreTest;

TEST_F(ManagedObjectContextTest, GivesBackEveryKindOfValueFromAnotherStack) {
  const std::string text("a\0\xC3\xA9\xF0\x9F\x96\xA8", 8);
  {
    Stack stack(path_);
    auto eventClass = stack.context.insert("QXEventClass");
    eventClass->setValue("eventClassID", "c");
    eventClass->setValue("eventSeverity", std::int64_t{-9223372036854775807 - 1});
    auto event = stack.addEvent(text, eventClass);
    event->setValue("eventReadStatus", true);
    event->setValue("eventTriggerTime", Date{-1234.567});
    event->setValue("eventAdditionalInfo", Data(std::string("\0\1\xFF", 3)));
    ErrorPtr error;
    ASSERT_TRUE(stack.context.save(&error)) << error->summary();
    EXPECT_EQ(event->rowNumber(), 1);
    EXPECT_FALSE(event->hasChanges());
  }
  Stack stack(path_);
  const auto event = stack.find(text);
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->value("eventReadStatus"), Value(true));
  EXPECT_EQ(event->value("eventTriggerTime"), Value(Date{-1234.567}));
  EXPECT_EQ(event->value("eventAdditionalInfo"), Value(Data(std::string("\0\1\xFF", 3))));
  EXPECT_TRUE(event->value("eventSourceID").isNull());
  ASSERT_NE(event->related("eventClass"), nullptr);
  EXPECT_EQ(event->valueForKeyPath({"eventClass", "eventSeverity"}), Value(INT64_MIN));
}

TEST_F(ManagedObjectContextTest, FindsTheSameObjectForTheSameRowAndSeesOthersChanges) {
  Stack mine(path_);
  mine.addEvent("e");
  ASSERT_TRUE(mine.context.save());
  Stack theirs(path_);
  const auto event = mine.find("e");
  EXPECT_EQ(event, mine.find("e"));
  theirs.find("e")->setValue("eventCurrentState", 7);
  ASSERT_TRUE(theirs.context.save());
  EXPECT_TRUE(event->value("eventCurrentState").isNull());
  mine.find("e");
  EXPECT_EQ(event->value("eventCurrentState"), Value(7));
}

TEST_F(ManagedObjectContextTest, KeepsUnsavedChangesThroughFetchAndRefreshAndWinsAtTheSave) {
  Stack mine(path_);
  mine.addEvent("e");
  ASSERT_TRUE(mine.context.save());
  Stack theirs(path_);
  const auto event = mine.find("e");
  event->setValue("eventCurrentState", 1);
  const auto other = theirs.find("e");
  other->setValue("eventCurrentState", 2);
  other->setValue("eventReadStatus", true);
  ASSERT_TRUE(theirs.context.save());
  mine.context.refresh(event);
  EXPECT_EQ(event->value("eventCurrentState"), Value(1));
  EXPECT_EQ(event->value("eventReadStatus"), Value(true));
  EXPECT_EQ(event->changedValues(), (Dictionary{{"eventCurrentState", 1}}));
  ASSERT_TRUE(mine.context.save());
  EXPECT_EQ(RawDatabase(path_)("SELECT ZEVENTCURRENTSTATE || ',' || ZEVENTREADSTATUS FROM ZQXEVENT"), "1,1");
}

TEST_F(ManagedObjectContextTest, FetchesWhatIsNotSavedYetByItsPresentValues) {
  Stack stack(path_);
  for (const char* name : {"a", "b", "c"})
    stack.addEvent(name);
  ASSERT_TRUE(stack.context.save());
  stack.find("a")->setValue("eventSourceID", "s");
  stack.context.remove(stack.find("b"));
  stack.addEvent("d")->setValue("eventSourceID", "s");
  const PredicatePtr ofSource = key("eventSourceID") == "s";
  const auto found = stack.context.fetch("QXEvent", ofSource);
  ASSERT_EQ(found->size(), 2U);
  EXPECT_EQ((*found)[0]->value("eventID"), Value("a"));
  EXPECT_EQ((*found)[1]->value("eventID"), Value("d"));
  EXPECT_EQ(stack.context.count("QXEvent", nullptr), 3U);
  ASSERT_TRUE(stack.context.save());
  EXPECT_EQ(stack.context.count("QXEvent", ofSource), 2U);
  EXPECT_EQ(RawDatabase(path_)("SELECT group_concat(Z_PK || ZEVENTID) FROM ZQXEVENT"), "1a,3c,4d");
}

TEST_F(ManagedObjectContextTest, WritesARowAgainThatAnotherProcessRemovedUnderAChange) {
  Stack stack(path_);
  stack.addEvent("e")->setValue("eventSourceID", "s");
  ASSERT_TRUE(stack.context.save());
  stack.find("e")->setValue("eventReadStatus", true);
  RawDatabase{path_}("DELETE FROM ZQXEVENT");
  ASSERT_TRUE(stack.context.save());
  EXPECT_EQ(RawDatabase(path_)("SELECT ZEVENTID || ZEVENTSOURCEID || ZEVENTREADSTATUS FROM ZQXEVENT"), "es1");
}

TEST_F(ManagedObjectContextTest, LeavesEverythingAsItWasWhenASaveFails) {
  Stack stack(path_);
  stack.addEvent("kept");
  ASSERT_TRUE(stack.context.save());
  RawDatabase raw(path_);
  EXPECT_EQ(raw("CREATE UNIQUE INDEX u ON ZQXEVENT (ZEVENTID)"), "");
  stack.context.insert("QXEventSource")->setValue("sourceID", "s");
  const auto second = stack.addEvent("kept");
  ErrorPtr error;
  EXPECT_FALSE(stack.context.save(&error));
  EXPECT_EQ(error->code(), 19);
  EXPECT_TRUE(second->isInserted());
  EXPECT_EQ(second->rowNumber(), 0);
  EXPECT_EQ(raw("SELECT COUNT(*) FROM ZQXEVENTSOURCE"), "0");
  EXPECT_EQ(raw("SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_NAME = 'QXEvent'"), "1");
  second->setValue("eventID", "other");
  EXPECT_TRUE(stack.context.save());
  EXPECT_EQ(raw("SELECT COUNT(*) FROM ZQXEVENTSOURCE"), "1");
}

TEST_F(ManagedObjectContextTest, HandsOutRowNumbersThatNobodyHas) {
  Stack stack(path_);
  RawDatabase{path_}("UPDATE Z_PRIMARYKEY SET Z_MAX = 'nonsense'");
  RawDatabase{path_}("INSERT INTO ZQXEVENT (Z_PK, ZEVENTID) VALUES (41, 'foreign')");
  const auto event = stack.addEvent("e");
  ErrorPtr error;
  ASSERT_TRUE(stack.context.save(&error)) << error->summary();
  EXPECT_EQ(event->rowNumber(), 42);
}

TEST_F(ManagedObjectContextTest, InvalidatesItsObjectsAtAReset) {
  Stack stack(path_);
  const auto event = stack.addEvent("e");
  ASSERT_TRUE(stack.context.save());
  event->setValue("eventReadStatus", true);
  stack.context.reset();
  EXPECT_FALSE(event->isValid());
  EXPECT_TRUE(event->value("eventID").isNull());
  event->setValue("eventID", "x");
  stack.context.remove(event);
  EXPECT_FALSE(stack.context.hasChanges());
  EXPECT_EQ(stack.find("e")->value("eventReadStatus"), Value());
}

TEST_F(ManagedObjectContextTest, TakesOnlyValuesThatTheAttributeHolds) {
  Stack stack(path_);
  const auto event = stack.addEvent("e");
  event->setValue("eventCurrentState", 3.0);
  EXPECT_EQ(event->value("eventCurrentState").kind(), Value::Kind::integer);
  event->setValue("eventCurrentState", "4");
  EXPECT_TRUE(event->value("eventCurrentState").isNull());
  event->setValue("eventID", 5);
  EXPECT_TRUE(event->value("eventID").isNull());
  event->setRelated("eventClass", stack.context.insert("QXEventSource"));
  EXPECT_EQ(event->related("eventClass"), nullptr);
}

TEST_F(ManagedObjectContextTest, RaisesWhenThereIsNothingToSaveTo) {
  Stack stack(path_);
  stack.addEvent("e");
  ASSERT_TRUE(stack.coordinator->removePersistentStore(stack.store));
  EXPECT_THROW(stack.context.save(), ObjectStoreException);
  ErrorPtr error;
  EXPECT_FALSE(stack.context.fetch("QXEvent", nullptr, &error));
  EXPECT_EQ(error->code(), 134060);
  EXPECT_EQ(stack.context.count("QXEvent", nullptr, &error), ManagedObjectContext::kNotFound);
}

TEST_F(ManagedObjectContextTest, ReportsUnknownEntitiesAndKeys) {
  Stack stack(path_);
  ErrorPtr error;
  EXPECT_FALSE(stack.context.fetch("QXNothing", nullptr, &error));
  EXPECT_EQ(error->code(), 134060);
  error = nullptr;
  EXPECT_FALSE(stack.context.fetch("QXEvent", key("ZEVENTID") == "x", &error));
  ASSERT_NE(error, nullptr);
  EXPECT_NE(error->localizedDescription().find("\"ZEVENTID\""), std::string::npos);
}

TEST_F(ManagedObjectContextTest, HoldsTheWriteLockForAScopeAndGivesItBack) {
  Stack stack(path_);
  {
    const ManagedObjectContext::WriteScope scope(stack.context);
    EXPECT_EQ(RawDatabase(path_)("BEGIN IMMEDIATE"), "database is locked");
    stack.addEvent("e");
    ASSERT_TRUE(stack.context.save());
    EXPECT_EQ(RawDatabase(path_)("BEGIN IMMEDIATE"), "");
  }
  { const ManagedObjectContext::WriteScope scope(stack.context); }
  EXPECT_EQ(RawDatabase(path_)("BEGIN IMMEDIATE"), "");
}

// Objects may die on a thread that does not hold the context's lock.
TEST_F(ManagedObjectContextTest, ConcurrentReleaseOfObjectsDoesNotDisturbFetches) {
  Stack stack(path_);
  for (int i = 0; i < 200; ++i)
    stack.addEvent("e" + std::to_string(i));
  ASSERT_TRUE(stack.context.save());
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20; ++i) {
        std::optional<ManagedObjects> found;
        {
          const std::lock_guard lock(stack.context);
          found = stack.context.fetch("QXEvent", nullptr);
        }
        EXPECT_EQ(found->size(), 200U);
      }
    });
  for (auto& thread : threads)
    thread.join();
}

}  // namespace
}  // namespace qx::test
