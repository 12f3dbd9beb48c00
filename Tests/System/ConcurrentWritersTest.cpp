// Many who write at once: processes of two users, and the threads of one process.

#include <QXEventStoring/QXEventStoring.h>

#include <atomic>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <thread>

#include "Tests/Support/VolumeRoot.h"
#include "Tests/System/StoreMachine.h"

namespace {

using qx::test::RawStore;
using qx::test::StoreMachine;
using qx::test::WorkerProcess;

constexpr bool kSanitized = QX_TESTS_SANITIZED != 0;
using Workers = std::list<WorkerProcess>;

class ConcurrentProcesses : public StoreMachine {
 protected:
  /// Workers, every second one of another user where there can be one, that have not used the store yet.
  void startWorkers(Workers& workers, int count) const {
    const std::optional<uid_t> another = anotherUser();
    for (int i = 0; i < count; ++i)
      workers.emplace_back(root(), WorkerProcess::Options{.user = i % 2 == 1 ? another : std::nullopt});
  }

  /// Tells all of them at once, each with its own number for '#'; all must end with "done".
  static void runAll(Workers& workers, const std::string& command) {
    std::list<std::future<std::string>> ends;
    int number = 0;
    for (WorkerProcess& worker : workers) {
      std::string own = command;
      own.replace(own.find('#'), 1, std::to_string(number++));
      worker.tell(own);
    }
    for (WorkerProcess& worker : workers)
      ends.push_back(std::async(std::launch::async, [&worker] { return worker.lastLine(); }));
    for (auto& end : ends)
      EXPECT_EQ(end.get(), "done");
    for (WorkerProcess& worker : workers)
      EXPECT_EQ(worker.finish(), 0);
  }
};

TEST_F(ConcurrentProcesses, MakeOneStoreWhenTheyStartTogether) {
  Workers workers;
  startWorkers(workers, 6);
  runAll(workers, "add 1 worker#");

  const RawStore raw = rawStore();
  expectSound(raw);
  EXPECT_EQ(raw.number("SELECT COUNT(*) FROM ZQXEVENT"), 6);
  EXPECT_GT(raw.number("SELECT COUNT(*) FROM ZQXEVENTCLASS"), 10);
  for (const auto& entry : std::filesystem::directory_iterator(storeDirectory()))
    EXPECT_EQ(entry.path().string(), store());
}

TEST_F(ConcurrentProcesses, LoseAndDoubleNothing) {
  constexpr int kEach = kSanitized ? 100 : 500;
  makeStore();
  std::string command = "add " + std::to_string(kEach) + " worker#";
  std::size_t classCount = 0;
  {
    // From here on the known classes are new to the store, too.
    const RawStore raw = rawStore();
    for (const std::string& name : raw.texts("SELECT ZEVENTCLASSID FROM ZQXEVENTCLASS LIMIT 50")) {
      command += " " + name;
      ++classCount;
    }
    raw.execute("DELETE FROM ZQXEVENTCLASS");
  }
  ASSERT_EQ(classCount, 50U);
  Workers workers;
  startWorkers(workers, 4);
  for (WorkerProcess& worker : workers)
    ASSERT_EQ(worker.ask("status"), "open " + store());
  runAll(workers, command);

  const RawStore raw = rawStore();
  expectSound(raw);
  EXPECT_EQ(raw.number("SELECT COUNT(*) FROM ZQXEVENT"), 4 * kEach);
  EXPECT_EQ(raw.number("SELECT MAX(Z_PK) FROM ZQXEVENT"), 4 * kEach);
  EXPECT_EQ(raw.number("SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_NAME = 'QXEvent'"), 4 * kEach);
  EXPECT_EQ(raw.number("SELECT COUNT(*) FROM ZQXEVENTSOURCE"), 20);
  EXPECT_EQ(raw.number("SELECT COUNT(*) FROM ZQXEVENTCLASS WHERE ZSOURCEID IS NULL"), 50);
  EXPECT_GT(raw.number("SELECT COUNT(*) FROM ZQXEVENTCLASS WHERE ZSOURCEID IS NOT NULL"), 20);
}

TEST_F(ConcurrentProcesses, NeverOverwriteEachOthersChanges) {
  constexpr int kEach = kSanitized ? 30 : 150;
  makeStore(1, "shared");
  Workers workers;
  startWorkers(workers, 3);
  runAll(workers, "raise shared.0 " + std::to_string(kEach) + " #");

  const RawStore raw = rawStore();
  expectSound(raw);
  EXPECT_EQ(raw.number("SELECT ZEVENTCURRENTSTATE FROM ZQXEVENT"), 3 * kEach);
  EXPECT_EQ(raw.number("SELECT ZEVENTVERSIONNUMBER FROM ZQXEVENT"), 3 * kEach);
}

/// One process, on a store of its own.
class ConcurrentThreads : public testing::Test {
 protected:
  static constexpr int kRounds = kSanitized ? 15 : 60;

  ConcurrentThreads() { qx::Bundle::setMainBundleIdentifier("com.qx.tests.threads"); }

  static QXEventStore& store() { return QXEventStore::sharedQXEventStore(); }

  static QXEventPtr makeEvent(const std::string& eventID, const std::string& sourceID) {
    auto event = std::make_shared<QXEvent>(eventID);
    event->setClassID("com.qx.printer.state.media.empty");
    event->setHandler("com.qx.tests.handler");
    event->setStatus({0, 1'000'000});
    event->setTriggerTime(qx::Date::now());
    event->setValue("Tray 2", std::string(QXDeviceMonitoringInputBinKey));
    const auto source = std::make_shared<QXEventSource>();
    source->setIdentifier(sourceID);
    source->setName("Printer " + sourceID);
    event->setSource(source);
    return event;
  }

  static void add(const std::string& eventID, const std::string& sourceID) {
    qx::ErrorPtr error;
    EXPECT_TRUE(store().addEvent(makeEvent(eventID, sourceID), &error)) << eventID << summary(error);
  }

  static std::string summary(const qx::ErrorPtr& error) {
    return error ? " " + error->summary() : " no error";
  }

  /// The body in `count` threads, each with its number.
  static std::vector<std::thread> threads(int count, const std::function<void(int)>& body) {
    std::vector<std::thread> result;
    result.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
      result.emplace_back([body, i] { body(i); });
    return result;
  }

  static std::uint64_t countOf(const std::string& sourceID) {
    return store().countOfEventsWithPredicate(qx::key(QXESAttributeEventSourceID) == sourceID);
  }

  qx::test::VolumeRoot root_;
};

TEST_F(ConcurrentThreads, FirstUseMakesOneStore) {
  for (std::thread& thread : threads(4, [](int i) { add("first-" + std::to_string(i), "FIRST"); }))
    thread.join();
  EXPECT_EQ(countOf("FIRST"), 4U);
  EXPECT_EQ(store().eventSources().size(), 1U);
}

TEST_F(ConcurrentThreads, AddSaveQueryAndRemoveAtOnce) {
  constexpr int kWriters = 2;
  add("shared", "SHARED");
  std::atomic<int> raised = 0;
  std::atomic<bool> ended = false;

  auto writers = threads(kWriters, [](int i) {
    for (int k = 0; k < kRounds; ++k)
      add("single-" + std::to_string(i) + "-" + std::to_string(k), "ADDED");
  });
  const auto append = [&](std::vector<std::thread> more) {
    for (std::thread& thread : more)
      writers.push_back(std::move(thread));
  };
  append(threads(1, [](int) {
    for (int k = 0; k < kRounds; ++k) {
      std::vector<QXEventPtr> events;
      for (const char* const part : {"a", "b", "c"})
        events.push_back(makeEvent("batch-" + std::to_string(k) + part, "BATCH"));
      qx::ErrorPtr error;
      EXPECT_TRUE(store().addEvents(events, &error)) << summary(error);
    }
  }));
  append(threads(kWriters, [&](int) {
    for (int k = 0; k < kRounds; ++k) {
      const QXEventPtr event = QXEvent::eventWithEventID("shared");
      ASSERT_NE(event, nullptr);
      event->setStatus({event->status().location + 1, event->status().length});
      qx::ErrorPtr error;
      if (store().saveEvent(event, &error)) {
        ++raised;
      } else {
        EXPECT_TRUE(error && error->code() == -994) << summary(error);
      }
    }
  }));
  append(threads(1, [](int) {
    for (int k = 0; k < kRounds; ++k) {
      const std::string eventID = "gone-" + std::to_string(k);
      add(eventID, "REMOVED");
      qx::ErrorPtr error;
      EXPECT_TRUE(store().removeEvent(QXEvent::eventWithEventID(eventID), &error)) << summary(error);
    }
  }));
  auto readers = threads(2, [&](int) {
    while (!ended) {
      qx::ErrorPtr error;
      const auto found = store().eventsWithPredicate(qx::key(QXESAttributeEventSourceID) == "BATCH", &error);
      ASSERT_TRUE(found && !error) << summary(error);
      EXPECT_EQ(found->size() % 3, 0U) << "half a batch was seen";
      for (const QXEventPtr& event : *found)
        EXPECT_EQ(event->valueForKey(std::string(QXDeviceMonitoringInputBinKey)), qx::Value("Tray 2"));
      store().status();
      store().eventSources();
    }
  });
  for (std::thread& thread : writers)
    thread.join();
  ended = true;
  for (std::thread& thread : readers)
    thread.join();

  EXPECT_EQ(countOf("ADDED"), static_cast<std::uint64_t>(kWriters) * kRounds);
  EXPECT_EQ(countOf("BATCH"), std::uint64_t{3} * kRounds);
  EXPECT_EQ(countOf("REMOVED"), 0U);
  EXPECT_GE(raised, kRounds / 2);
  const QXEventPtr shared = QXEvent::eventWithEventID("shared");
  ASSERT_NE(shared, nullptr);
  EXPECT_EQ(shared->status().location, static_cast<std::uint64_t>(raised));
  EXPECT_EQ(shared->versionNumber(), raised);
}

TEST_F(ConcurrentThreads, BlockAndAddAtOnce) {
  const auto source = std::make_shared<QXEventSource>();
  source->setIdentifier("BLOCKED");
  source->setName("Printer");
  auto all = threads(1, [&](int) {
    for (int k = 0; k < kRounds; ++k) {
      EXPECT_TRUE(store().shouldBlock(true, std::nullopt, source));
      EXPECT_TRUE(store().shouldBlock(false, std::nullopt, source));
    }
  });
  for (std::thread& thread : threads(2, [](int i) {
         for (int k = 0; k < kRounds; ++k)
           add(std::to_string(i) + "-" + std::to_string(k), "BLOCKED");
       }))
    all.push_back(std::move(thread));
  for (std::thread& thread : all)
    thread.join();
  EXPECT_TRUE(store().blockedEventSources().empty());
  const auto events = store().eventsWithPredicate(nullptr);
  ASSERT_TRUE(events);
  EXPECT_EQ(events->size(), std::size_t{2} * kRounds);
}

}  // namespace
