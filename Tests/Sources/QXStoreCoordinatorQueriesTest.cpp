// Queries and blocks on real stores.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include <QXEventStoring/Platform/PredicateBuilder.h>

#include "Tests/Sources/EventStoreTesting.h"

namespace qx::test {
namespace {

using Texts = std::vector<std::string>;

PredicatePtr where(const std::string& format, const std::vector<Value>& arguments) {
  ErrorPtr error;
  auto predicate = Predicate::withFormat(format, arguments, &error);
  EXPECT_NE(predicate, nullptr) << error->summary();
  return predicate;
}

class QueryTest : public EventStoreTest {
 protected:
  static Texts sourceIDs() {
    Texts result;
    for (const auto& source : store().eventSources())
      result.push_back(*source->identifier());
    return result;
  }
};

TEST_F(QueryTest, RewritesPlaceholdersInPredicates) {
  const auto solved = makeEvent("solved", kKnownClass, makeSource("S1"));
  solved->setStatus({3, 3});
  solved->setReadStatus(true);
  solved->setTriggerTime(Date{2000});
  added(solved);
  added(makeEvent("open", kUnknownClass, makeSource("S%@\"\\S2")));

  const Value status = std::string(QXESAttributeEventSolutionStatus);
  const Value source = std::string(QXESAttributeEventSourceID);
  const Texts all{"solved", "open"};
  EXPECT_EQ(identifiers(nullptr), all);
  struct Case {
    const char* format;
    std::vector<Value> arguments;
    Texts found;
  };
  for (const Case& c : std::vector<Case>{
           {"%K == 1", {status}, {"solved"}},
           {"%K == 0", {status}, {"open"}},
           {"1 == %K", {status}, {"solved"}},
           {"0 == %K", {status}, {"open"}},
           {"NOT (%K == YES)", {status}, {"open"}},
           {"%K == 2", {status}, {"refused"}},
           {"%K == 10", {status}, {"refused"}},
           {"%K != 1", {status}, {"refused"}},
           {"noSuchKey == 1", {}, {"refused"}},
           {"%K == %@", {source, "S1"}, {"solved"}},
           {"%K == %@", {source, "S%@\"\\S2"}, {"open"}},
           {"%K == %@", {source, std::string(QXESAttributeEventSourceID)}, {}},
           {"%K == %@", {std::string(QXESAttributeEventClassID), kUnknownClass}, {"open"}},
           {"%K > %@", {std::string(QXESAttributeEventTriggerTime), Date{1500}}, {"solved"}},
           {"%K == NO", {std::string(QXESAttributeEventReadStatus)}, {"open"}},
           {"%K >= 0", {std::string(QXESAttributeEventSeverity)}, all},
           {"%K == 1 AND %K == %@", {status, source, "S9"}, {}},
           {"%K == 1 || 1 == %K", {status, status}, {"solved"}},
           {"%K == 1.5", {status}, {"refused"}},
           {"%K ==[c] 1", {status}, {"refused"}},
           {"%K IN {1}", {status}, {"refused"}},
           {"%K == %@", {source, "'); DROP TABLE ZQXEVENT; --"}, {}},
           {"%K == %@", {source, "\" OR \"1\" == \"1"}, {}},
           {"%K CONTAINS[c] %@", {source, "%@\"\\s2"}, {"open"}},
           {"%K LIKE 'S?' AND %K BETWEEN {0, 9}",
            {source, std::string(QXESAttributeEventSeverity)},
            {"solved"}},
       }) {
    const PredicatePtr predicate = where(c.format, c.arguments);
    EXPECT_EQ(identifiers(predicate), c.found) << predicate->predicateFormat();
    ErrorPtr error;
    const std::uint64_t count = store().countOfEventsWithPredicate(predicate, &error);
    if (c.found == Texts{"refused"}) {
      EXPECT_EQ(count, ManagedObjectContext::kNotFound) << predicate->predicateFormat();
      EXPECT_EQ(error ? error->code() : 0, 999) << predicate->predicateFormat();
    } else {
      EXPECT_EQ(count, c.found.size()) << predicate->predicateFormat();
      EXPECT_EQ(error, nullptr) << predicate->predicateFormat();
    }
  }
  added(makeEvent("evil", kSpecialClass, makeSource(std::string(60, 'a'))));
  EXPECT_EQ(identifiers(where("%K MATCHES '(a+)+b'", {source})), Texts{"refused"}) << "it never ends";
  EXPECT_EQ(identifiers(where("%K MATCHES 'a+'", {source})), Texts{"evil"});
  EXPECT_EQ(coordinator().eventsFromSource("S1", std::nullopt), Texts{"solved"});
  EXPECT_EQ(coordinator().eventsFromSource(std::nullopt, kUnknownClass), Texts{"open"});
  EXPECT_EQ(coordinator().eventsFromSource("S1", kUnknownClass), Texts());
  EXPECT_EQ(coordinator().eventsFromSource(std::nullopt, std::nullopt), Texts());
}

TEST_F(QueryTest, ExplainsAnEmptyResultOfABrokenStore) {
  EXPECT_EQ(coordinator().getAllSourceIds(), std::nullopt);
  ErrorPtr error = Error::make(kCocoaErrorDomain, 1);
  EXPECT_TRUE(store().eventsWithPredicate(nullptr, &error)->empty());
  EXPECT_EQ(error, nullptr);
  fs::remove(EventStoreTest::AccessorTest::store());
  EXPECT_TRUE(store().eventsWithPredicate(nullptr, &error)->empty());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), -996);
  EXPECT_EQ(store().countOfEventsWithPredicate(nullptr, &error), 0U);
  EXPECT_EQ(error->code(), -996);
  EXPECT_EQ(error->recoveryOptions().size(), 2U);
}

TEST_F(QueryTest, HidesWhatIsBlocked) {
  for (const char* classID : {kKnownClass, kUnknownClass}) {
    for (const char* sourceID : {"S1", "S2"}) {
      added(makeEvent(std::string(classID) + "/" + sourceID, classID, makeSource(sourceID)));
    }
  }
  const std::string known = kKnownClass;
  const std::string unknown = kUnknownClass;
  struct Case {
    String classID, sourceID;
    Texts visible;
    std::uint64_t count;
    std::size_t classes, sources, partial;
  };
  for (const Case& c : std::vector<Case>{
           {kKnownClass, std::nullopt, {unknown + "/S1", unknown + "/S2"}, 4, 1, 0, 0},
           {std::nullopt, "S1", {known + "/S2", unknown + "/S2"}, 4, 0, 1, 0},
           {kKnownClass, "S1", {known + "/S2", unknown + "/S1", unknown + "/S2"}, 3, 0, 0, 1},
       }) {
    ErrorPtr untouched = Error::make(kCocoaErrorDomain, 1);
    const ErrorPtr before = untouched;
    EXPECT_TRUE(coordinator().blockEventClass(c.classID, c.sourceID, &untouched));
    EXPECT_TRUE(coordinator().blockEventClass(c.classID, c.sourceID, &untouched)) << "blocked already";
    EXPECT_EQ(rows(kBlockedEventEntity), 1U);
    EXPECT_EQ(identifiers(nullptr), c.visible);
    EXPECT_EQ(store().countOfEventsWithPredicate(nullptr), c.count);
    EXPECT_EQ(store().countOfEventsWithPredicate(key(QXESAttributeEventSourceID) != "S9"), c.count);
    EXPECT_EQ(store().blockedEventClasses().size(), c.classes);
    EXPECT_EQ(coordinator().blockedEventClassBySource("S9"), store().blockedEventClasses());
    EXPECT_EQ(store().blockedEventSources().size(), c.sources);
    for (const char* sourceID : {"S1", "S2"}) {
      const Texts& visible = c.visible;
      const std::string eventID = known + "/" + sourceID;
      EXPECT_EQ(store().isEventBlocked(makeEvent("any", kKnownClass, makeSource(sourceID))),
                std::find(visible.begin(), visible.end(), eventID) == visible.end());
    }
    {
      const std::lock_guard lock(accessor());
      EXPECT_EQ(coordinator().partiallyBlockedManagedObjects().size(), c.partial);
    }
    EXPECT_FALSE(coordinator().unblockEventClass(c.classID, "S9", &untouched)) << "only the exact pair";
    EXPECT_TRUE(coordinator().unblockEventClass(c.classID, c.sourceID, &untouched));
    EXPECT_FALSE(coordinator().unblockEventClass(c.classID, c.sourceID, &untouched));
    EXPECT_EQ(untouched, before);
    EXPECT_EQ(identifiers(nullptr).size(), 4U);
  }
  EXPECT_TRUE(coordinator().blockEventClass(std::nullopt, "not stored"));
  EXPECT_TRUE(store().blockedEventSources().empty());
}

/// Random events and blocks: whatever is asked must be what a look at every event gives.
TEST_F(QueryTest, LooksAtEveryEventAsOneByOneWould) {
  std::mt19937 random(11);
  const auto any = [&](std::initializer_list<const char*> texts) {
    return *(texts.begin() + random() % texts.size());
  };
  std::vector<QXEventPtr> events;
  for (int i = 0; i < 60; ++i) {
    auto event = makeEvent("E" + std::to_string(i), any({kKnownClass, kSpecialClass, kUnknownClass}),
                           makeSource(any({"S4", "S2", "S5", "S1", "S3"})));
    event->setTriggerTime(Date{static_cast<double>(random() % 20)});
    events.push_back(std::move(event));
  }
  ASSERT_TRUE(store().addEvents(events));
  for (int round = 0; round < 40; ++round) {
    const String classID =
        random() % 3 != 0 ? String(any({kKnownClass, kSpecialClass, kUnknownClass})) : std::nullopt;
    const String sourceID =
        random() % 3 != 0 || !classID ? String(any({"S1", "S2", "S3", "S4"})) : std::nullopt;
    if (!coordinator().unblockEventClass(classID, sourceID)) {
      ASSERT_TRUE(coordinator().blockEventClass(classID, sourceID));
    }
    Texts visible, sources;
    std::vector<QXEventPtr> newest;
    for (const QXEventPtr& event : events) {
      if (store().isEventBlocked(event)) continue;
      visible.push_back(*event->identifier());
      newest.insert(newest.begin(), event);
      const std::string source = *event->source()->identifier();
      if (std::find(sources.begin(), sources.end(), source) == sources.end()) sources.push_back(source);
    }
    EXPECT_EQ(identifiers(nullptr), visible);
    EXPECT_EQ(sourceIDs(), sources);
    std::stable_sort(newest.begin(), newest.end(), [](const QXEventPtr& a, const QXEventPtr& b) {
      return a->triggerTime() > b->triggerTime();
    });
    newest.resize(std::min<std::size_t>(newest.size(), 7));
    const auto found = store().newestEventsWithPredicate(nullptr, 7);
    ASSERT_TRUE(found);
    EXPECT_TRUE(std::equal(found->begin(), found->end(), newest.begin(), newest.end(),
                           [](const QXEventPtr& a, const QXEventPtr& b) {
                             return a->identifier() == b->identifier() && a->isPersistentlyStored();
                           }));
  }
}

TEST_F(QueryTest, SeesWhatWaitsToBeSaved) {
  for (const char* sourceID : {"S2", "S1"})
    added(makeEvent(sourceID, kKnownClass, makeSource(sourceID)));
  const std::lock_guard lock(accessor());
  const auto row = coordinator().managedObjectForEventWithID("S2");
  row->setValue(kEventSourceID, "S1");
  row->setValue(kEventTriggerTime, Date{5000});
  EXPECT_EQ(sourceIDs(), Texts{"S1"});
  EXPECT_EQ(store().newestEventsWithPredicate(nullptr, 1)->front()->identifier(), "S2");
  accessor().context().discardChanges(row);
  EXPECT_EQ(sourceIDs(), (Texts{"S2", "S1"}));
  EXPECT_EQ(store().newestEventsWithPredicate(nullptr, 0)->size(), 0U);
}

TEST_F(QueryTest, TellsEveryBlock) {
  ASSERT_TRUE(coordinator().blockEventClass(kKnownClass, "S1"));
  ASSERT_TRUE(coordinator().blockEventClass(std::nullopt, "S2"));
  ASSERT_TRUE(coordinator().blockEventClass(kKnownClass, std::nullopt));
  const auto blocks = store().blocks();
  ASSERT_TRUE(blocks);
  ASSERT_EQ(blocks->size(), 3U);
  EXPECT_EQ(blocks->at(0).classID, kKnownClass);
  EXPECT_EQ(blocks->at(0).sourceID, "S1");
  EXPECT_EQ(blocks->at(1).classID, std::nullopt);
  EXPECT_EQ(blocks->at(2).sourceID, std::nullopt);
}

TEST_F(QueryTest, ListsSourcesWithAnEventThatIsNotBlocked) {
  added(makeEvent("E1", kKnownClass, makeSource("S2")));
  added(makeEvent("E2", kUnknownClass, makeSource("S1")));
  added(makeEvent("E3", kKnownClass, makeSource("S1")));
  EXPECT_EQ(sourceIDs(), (Texts{"S2", "S1"}));
  ASSERT_TRUE(coordinator().blockEventClass(kKnownClass, std::nullopt));
  EXPECT_EQ(sourceIDs(), Texts{"S1"});
  ASSERT_TRUE(coordinator().blockEventClass(std::nullopt, "S1"));
  EXPECT_EQ(sourceIDs(), Texts());
  EXPECT_EQ(QXEventSource::knownEventSourceIDs(), (Texts{"S2", "S1"}));
}

}  // namespace
}  // namespace qx::test
