#pragma once

// What the tests of the coordinator and of the facade share: records to store, and a list of what was
// announced.

#include <chrono>
#include <condition_variable>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <QXEventStoring/QXEventStore.h>

#include "Platform/Host.h"
#include "Sources/QXESDistributedNotificationCenter.h"
#include "Sources/QXStoreCoordinator.h"
#include "Tests/Sources/AccessorTesting.h"

namespace qx::test {

// A class that the event-class database knows, one whose severity is its row's, and one nobody knows.
inline constexpr const char* kKnownClass = "com.qx.printer.frontpanelevent.copy";
inline constexpr const char* kSpecialClass = "com.qx.printer.frontpanelevent.scan";
inline constexpr const char* kUnknownClass = "com.example.unknown";

inline QXEventSourcePtr makeSource(const std::string& identifier) {
  auto source = std::make_shared<QXEventSource>();
  source->setIdentifier(identifier);
  source->setName("Printer " + identifier);
  return source;
}

/// A valid, detached event in state 0 of 3.
inline QXEventPtr makeEvent(const std::string& identifier, const std::string& classID = kUnknownClass,
                            const QXEventSourcePtr& source = makeSource("S1")) {
  auto event = std::make_shared<QXEvent>(identifier);
  event->setClassID(classID);
  event->setHandler("com.example.handler");
  event->setTriggerTime(Date{1000});
  event->setStatus({0, 3});
  event->setSource(source);
  return event;
}

/// Every "Store Updated" that is posted while it lives.
class StoreUpdates {
 public:
  StoreUpdates() {
    auto& center = DistributedNotificationCenter::defaultCenter();
    EXPECT_TRUE(center.drain(10'000)) << "what was posted before";
    observation_ = center.addObserver(std::string(kStoreUpdated), std::nullopt,
                                      [this](const Notification& notification) {
                                        const std::lock_guard guard(mutex_);
                                        received_.push_back(notification);
                                        arrived_.notify_all();
                                      });
  }

  /// What came since the last call, pending announcements included.
  std::vector<Notification> take() {
    EXPECT_TRUE(QXESDistributedNotificationCenter::defaultCenter().drain(10'000));
    const std::lock_guard guard(mutex_);
    return std::exchange(received_, {});
  }

  /// Their user infos, without the user's name and without those of changed sources.
  std::vector<Dictionary> takeEvents() {
    std::vector<Dictionary> result;
    for (Notification& notification : take()) {
      if (notification.userInfo.contains(kModifiedSourceId)) continue;
      EXPECT_EQ(notification.object, String(std::string(kTestApplication)));
      EXPECT_EQ(notification.userInfo[QXEventStoreModifierUserName], Value(Host::current().userName()));
      notification.userInfo.erase(QXEventStoreModifierUserName);
      result.push_back(std::move(notification.userInfo));
    }
    return result;
  }

  /// Waits until as many have come by themselves.
  bool waitFor(std::size_t count) {
    std::unique_lock guard(mutex_);
    return arrived_.wait_for(guard, std::chrono::seconds(20), [&] { return received_.size() >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Notification> received_;  // guarded by mutex_
  Observation observation_;
};

/// The user info of an announcement, without the user's name.
inline Dictionary change(Value eventIDs, std::int64_t mask) {
  return {{"Event ID", std::move(eventIDs)}, {"QXEventStoreChangeKey", mask}};
}

/// A machine of which tests decide how much of the disk is free and what runs.
class ArrangedHost : public PosixHost {
 public:
  std::optional<std::uint64_t> freeSize(const std::string&, ErrorPtr*) const override { return freeBytes; }
  bool isWritable(const std::string& path) const override { return writable && PosixHost::isWritable(path); }
  String processListing() const override { return processes; }
  bool startDetached(const std::string& executable, const std::vector<std::string>& arguments,
                     ErrorPtr* error) override {
    started.push_back(executable);
    for (const std::string& argument : arguments)
      started.back() += " " + argument;
    if (startable) return true;
    setError(error, Error::make(kPOSIXErrorDomain, 13));
    return false;
  }

  std::optional<std::uint64_t> freeBytes = 10'000'000;
  bool writable = true;
  String processes = "1 /sbin/init";
  bool startable = true;
  std::vector<std::string> started;
};

class EventStoreTest : public AccessorTest {
 protected:
  static QXStoreCoordinator& coordinator() { return QXStoreCoordinator::sharedInstance(); }
  static QXEventStore& store() { return QXEventStore::sharedQXEventStore(); }

  static QXEventPtr added(const QXEventPtr& event) {
    ErrorPtr error;
    EXPECT_TRUE(store().addEvent(event, &error)) << (error ? error->summary() : "");
    return event;
  }

  static std::uint64_t rows(std::string_view entity, const PredicatePtr& predicate = nullptr) {
    return accessor().countOfManagedObjects(entity, predicate, nullptr);
  }

  /// Sets a value of a stored event behind the records' back, and saves it.
  static void setStored(const std::string& eventID, std::string_view attribute, Value value) {
    const std::lock_guard lock(accessor());
    const ManagedObjectPtr row = coordinator().managedObjectForEventWithID(eventID);
    ASSERT_NE(row, nullptr);
    row->setValue(attribute, std::move(value));
    ErrorPtr error;
    ASSERT_TRUE(accessor().saveEventToStore(&error)) << error->summary();
  }

  static std::vector<std::string> identifiers(const PredicatePtr& predicate) {
    ErrorPtr error;
    const auto events = store().eventsWithPredicate(predicate, &error);
    if (!events) return {"refused"};
    std::vector<std::string> result;
    for (const QXEventPtr& event : *events) {
      EXPECT_TRUE(event->isPersistentlyStored());
      result.push_back(event->identifier().value_or("(null)"));
    }
    return result;
  }
};

}  // namespace qx::test
