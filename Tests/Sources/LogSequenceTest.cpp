// Every line that an event's life writes, in order: as they arrive at the journal's socket.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <QXEventStoring/QXEventStore.h>

#include "Tests/Sources/EventStoreTesting.h"

namespace qx::test {
namespace {

using Lines = std::vector<std::string>;

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// A save that succeeds.
const Lines kSaved{"saveEventToStore called",
                   "saveContext called",
                   "IsMetaDataCompatible?? [1] ",
                   "Error while saving the context : [Code = 0] :[Description = (null)]",
                   "******Is successfully saved = [1]******",
                   "[QXDatabaseAccessor savestatus[1]]"};

/// What an announcement through the coalescing centre writes before it is posted.
const Lines kAnnounced{
    "Recieved notification:[Store Updated] in QXEventStoring Notification Center sender:[com.qx.tests] "
    "Option[3]",
    "Handle notification called"};

/// What the delivery of one event's change writes; the mask is decimal in the first and hexadecimal after.
Lines delivered(int mask) {
  std::ostringstream hexadecimal;
  hexadecimal << std::hex << mask;
  return {
      "QXEventStore notifyListener notification: {name = Store Updated; object = com.qx.tests; userInfo = {\n"
      "    \"Current User Name\" = \"<current>\";\n    \"Event ID\" = (\n        E2\n    );\n"
      "    QXEventStoreChangeKey = " +
          std::to_string(mask) + ";\n}}",
      "Operation performed =====================[" + hexadecimal.str() + "]",
      "Post internal notification count = [1]", "Posted event store change notification with event ID 'E2'."};
}

bool isFlushThreads(const std::string& line) {
  return line == "Start* timer is called" ||
         line.starts_with("QXEventStoreNotificationCenter==>>Timer fired:[") ||
         line.starts_with("m_pNotifications ====== [");
}

class LogSequence : public AccessorTest {
 protected:
  LogSequence() { EXPECT_TRUE(store().addEvent(makeEvent("E1", kUnknownClass, source))); }

  static QXEventStore& store() { return QXEventStore::sharedQXEventStore(); }

  /// Runs `change` and waits for its announcement; the lines of this thread, and those of the others.
  template <typename Change>
  std::pair<Lines, Lines> linesOf(Change change) {
    StoreUpdates updates;  // waits for what was announced before
    CollectedLines lines(journal);
    change();
    EXPECT_EQ(updates.takeEvents().size(), 1U);
    EXPECT_TRUE(DistributedNotificationCenter::defaultCenter().drain(10'000));
    auto found = lines.takeByThread();
    std::erase_if(found.second, isFlushThreads);  // whose time is its own
    return found;
  }

  QXEventSourcePtr source = makeSource("S1");
};

TEST_F(LogSequence, IsCompleteForAnAddASaveAndARemove) {
  const auto event = makeEvent("E2", kUnknownClass, source);
  ErrorPtr error;
  const auto [added, addDelivered] = linesOf([&] { EXPECT_TRUE(store().addEvent(event, &error)); });
  const Lines before{"Add event to store:[" + event->description() + "]",
                     "Valid Event",
                     "[QXStoreCordinator]lock acquired",
                     "createManagedObjectForEntity[QXEvent]",
                     "createManagedObjectForEntity[QXEventClass]",  // the class's empty row for all sources
                     "setValueForEvent:[" + event->description() + "]"};
  const Lines after{"[QXStoreCordinator]Release lock", "[QXStoreCordinator]Added successfully[1]",
                    "[QXStoreCordinator] Error [(null)]", "Event is added successfully"};
  EXPECT_EQ(added, before + kSaved + after);
  EXPECT_EQ(addDelivered, delivered(1));

  event->setReadStatus(true);
  const auto [saved, saveDelivered] = linesOf([&] { EXPECT_TRUE(store().saveEvent(event, &error)); });
  const Lines changes{"Set as read", "Version number = [1]", "Modified key = [16]"};
  EXPECT_EQ(saved, changes + kSaved + Lines(1, "Post notification for save") + kAnnounced);
  EXPECT_EQ(saveDelivered, delivered(16));

  const auto [removed, removeDelivered] = linesOf([&] { EXPECT_TRUE(store().removeEvent(event, &error)); });
  EXPECT_EQ(removed, Lines(1, "Remove Event = [" + event->description() + "]") + kSaved +
                         Lines(1, "Event is deleted") + kAnnounced);
  EXPECT_EQ(removeDelivered, delivered(8));
}

TEST_F(LogSequence, TellsOfTheTimerThatFlushesAnnouncements) {
  CollectedLines lines(journal);
  EXPECT_TRUE(store().removeEvent(QXEvent::eventWithEventID("E1")));
  const auto isLast = [](const std::string& datagram) {
    return journalFields(datagram)["MESSAGE"].starts_with("m_pNotifications ====== [");
  };
  EXPECT_TRUE(journal.waitFor(isLast));
  auto [own, others] = lines.takeByThread();
  std::erase_if(others, [](const std::string& line) { return !isFlushThreads(line); });
  EXPECT_EQ(others, (Lines{"Start* timer is called",
                           "QXEventStoreNotificationCenter==>>Timer fired:[repeats every 500 ms]",
                           "m_pNotifications ====== [{\n}]"}));
}

}  // namespace
}  // namespace qx::test
