// What is left behind when a change fails half-way: nothing wrong in the store, nothing wrong in memory.
#include <gtest/gtest.h>

#include <fstream>

#include "Tests/Sources/EventStoreTesting.h"
#include "Tests/Support/RawDatabase.h"

namespace qx::test {
namespace {

class FailedChanges : public EventStoreTest {
 protected:
  std::string raw(const std::string& sql) const { return RawDatabase(AccessorTest::store())(sql); }

  /// Makes every further event with the trigger time of a stored one fail.
  void refuseEqualTimes() const {
    ASSERT_EQ(raw("CREATE UNIQUE INDEX u ON ZQXEVENT (ZEVENTTRIGGERTIME)"), "");
  }
  void allowEqualTimes() const { ASSERT_EQ(raw("DROP INDEX u"), ""); }

  /// Overwrites the pages of a table behind the back of everybody who has the file open.
  void damageTable(const std::string& table) const {
    const long page = std::stol(raw("SELECT rootpage FROM sqlite_master WHERE name = '" + table + "'"));
    std::fstream file(AccessorTest::store(), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp((page - 1) * 4096);
    file << std::string(4096, '\xFF');
    file.seekp(24);  // the change counter: who has read the page reads it again
    file << "\x7F";
  }
};

TEST_F(FailedChanges, LeaveTheRecordAsItWasAndAnnounceNothing) {
  const auto first = added(makeEvent("E1"));
  refuseEqualTimes();
  StoreUpdates updates;
  const auto second = makeEvent("E2");
  ErrorPtr error = Error::make("stale", 1);
  EXPECT_FALSE(store().addEvent(second, &error));
  EXPECT_EQ(error, nullptr) << "a constraint with room on the disk has no explanation";
  EXPECT_FALSE(second->isPersistentlyStored());

  first->setReadStatus(true);
  EXPECT_FALSE(store().saveEvent(first)) << "the event that waits fails it too";
  EXPECT_EQ(first->versionNumber(), 0);
  EXPECT_FALSE(store().removeEvent(first));
  EXPECT_TRUE(first->isPersistentlyStored());
  EXPECT_TRUE(updates.takeEvents().empty());

  EXPECT_FALSE(store().shouldBlock(true, kKnownClass, nullptr, &error));
  EXPECT_EQ(error->code(), -997);
}

TEST_F(FailedChanges, KeepTheClassThatAWaitingEventNeeds) {
  added(makeEvent("E1"));
  refuseEqualTimes();
  EXPECT_FALSE(store().addEvent(makeEvent("E2", kKnownClass)));
  allowEqualTimes();
  raw("INSERT INTO ZQXEVENTCLASS (Z_PK, Z_ENT, Z_OPT, ZEVENTCLASSID) VALUES (900, 4, 1, '" +
      std::string(kKnownClass) + "')");
  added(makeEvent("E3"));
  EXPECT_EQ(raw("SELECT COUNT(*) FROM ZQXEVENT"), "3") << "what waited goes with the next save";
  EXPECT_EQ(raw("SELECT COUNT(*) FROM ZQXEVENT JOIN ZQXEVENTCLASS ON ZQXEVENTCLASS.Z_PK = ZEVENTCLASS "
                "WHERE ZEVENTCLASSID IS NOT NULL"),
            "3");
}

TEST_F(FailedChanges, OfABatchAreForgottenAltogether) {
  const auto stored = added(makeEvent("E1", kUnknownClass, makeSource("S1")));
  refuseEqualTimes();
  const auto renamed = makeSource("S1");
  renamed->setName("Ours");
  EXPECT_FALSE(store().addEvents({makeEvent("E2", kUnknownClass, renamed)}));
  EXPECT_EQ(QXEventSource::eventSourceWithID("S1")->name(), "Printer S1");
  EXPECT_EQ(raw("UPDATE ZQXEVENTSOURCE SET ZSOURCENAME = 'Theirs'"), "");
  stored->setReadStatus(true);
  ErrorPtr error;
  EXPECT_TRUE(store().saveEvent(stored, &error)) << "nothing of the batch is in its way";
  EXPECT_EQ(raw("SELECT ZSOURCENAME FROM ZQXEVENTSOURCE"), "Theirs");
  EXPECT_EQ(raw("SELECT COUNT(*) FROM ZQXEVENT"), "1");
}

TEST_F(FailedChanges, TellDamageFromAbsence) {
  const auto event = added(makeEvent("E1"));
  StoreUpdates updates;
  damageTable("ZQXEVENT");
  EXPECT_FALSE(store().removeEvent(event)) << "what cannot be read is not gone";
  EXPECT_TRUE(event->isPersistentlyStored());
  ErrorPtr error;
  EXPECT_FALSE(store().removeEvent(event, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), -998);
  event->setReadStatus(true);
  EXPECT_FALSE(store().saveEvent(event, &error));
  EXPECT_EQ(error->code(), -998);
  EXPECT_TRUE(updates.takeEvents().empty());
}

TEST_F(FailedChanges, DoNotComeFromInformationThatIsTooLargeToReadBack) {
  const auto event = makeEvent("E1");
  event->setValue(std::string(std::size_t{40} << 20, 'x'), "huge");
  added(event);
  EXPECT_EQ(raw("SELECT ZEVENTADDITIONALINFO IS NULL FROM ZQXEVENT"), "1");
  EXPECT_TRUE(QXEvent::eventWithEventID("E1")->additionalInfo().empty());
}

TEST_F(FailedChanges, DoNotComeFromStatesThatFillAllBits) {
  const auto event = makeEvent("E1");
  event->setStatus({~std::uint64_t{0}, ~std::uint64_t{0}});
  added(event);
  EXPECT_EQ(coordinator().modifiedEventValueKeys(event), 0);
  EXPECT_EQ(coordinator().modifiedEventValueKeys(QXEvent::eventWithEventID("E1")), 0);
  EXPECT_EQ(QXEvent::eventWithEventID("E1")->status().location, ~std::uint64_t{0});
}

}  // namespace
}  // namespace qx::test
