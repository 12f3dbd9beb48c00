// The store's directory is everybody's: what others leave or plant in it, beside the file.

#include <fcntl.h>
#include <sys/stat.h>

#include <string>

#include "Tests/System/StoreMachine.h"

namespace {

using qx::test::contentsOf;
using qx::test::modeOf;
using qx::test::RawStore;
using qx::test::StoreMachine;
using qx::test::WorkerProcess;

namespace fs = std::filesystem;

class HostileNeighbours : public StoreMachine {
 protected:
  std::string beside(const std::string& suffix) const { return store() + suffix; }
};

TEST_F(HostileNeighbours, AJournalWithoutItsStoreDoesNotGetIntoANewOne) {
  makeStore(300, "old");
  std::string journal;
  {
    const RawStore raw(store());
    raw.execute("PRAGMA cache_size = 1");
    raw.execute("BEGIN");
    raw.execute("UPDATE ZQXEVENT SET ZEVENTSOURCEID = 'changed'");
    journal = contentsOf(beside("-journal"));
    raw.execute("ROLLBACK");
  }
  ASSERT_GT(journal.size(), 512U);
  fs::remove(store());
  std::ofstream(beside("-journal"), std::ios::binary) << journal;
  auto worker = start();
  EXPECT_EQ(worker.askAll("add 1 new"), "done");
  EXPECT_EQ(worker.ask("count"), "count 1");
  EXPECT_EQ(rawStore().text("PRAGMA integrity_check"), "ok");
}

TEST_F(HostileNeighbours, APipeInTheJournalsPlaceStopsNobodyForLong) {
  makeStore(1, "kept");
  ASSERT_EQ(::mkfifo(beside("-journal").c_str(), 0666), 0);
  auto worker = start();
  EXPECT_EQ(worker.askAll("add 1 lost").substr(0, 6), "failed");
  fs::remove(beside("-journal"));
  auto next = start();
  EXPECT_EQ(next.askAll("add 1 new"), "done");
  EXPECT_EQ(next.ask("count"), "count 2");
}

TEST_F(HostileNeighbours, AJournalThatOnlyItsDeadOwnerMayWriteStopsNobody) {
  makeStore(1, "kept");
  std::ofstream(beside("-journal")).close();
  ::chmod(beside("-journal").c_str(), 0644);
  auto worker = start(anotherUser());
  EXPECT_EQ(worker.askAll("add 1 new"), "done");
  EXPECT_FALSE(fs::exists(beside("-journal")));
}

TEST_F(HostileNeighbours, ALogThatIsCutShortEndsNoProcess) {
  makeStore(1, "kept");
  auto worker = start();
  EXPECT_EQ(worker.ask("count"), "count 1");
  // In a process of its own: it is the one that a cut mapping ends.
  qx::test::ChildProcess other([this](const qx::test::ChildProcess::Line& line) {
    const RawStore raw(store());
    raw.text("PRAGMA journal_mode = WAL");
    raw.execute("UPDATE ZQXEVENT SET ZEVENTREADSTATUS = 1");
    line.signal();
    line.wait();
    ::_exit(0);
    return 0;
  });
  ASSERT_TRUE(other.line().wait());
  ASSERT_EQ(::truncate(beside("-shm").c_str(), 0), 0);
  const std::string answer = worker.askAll("add 1 more");
  EXPECT_TRUE(answer == "done" || answer.starts_with("failed")) << answer;
  EXPECT_NE(worker.ask("count"), "(ended)");
}

TEST_F(HostileNeighbours, ALegacyStoreThatIsStillInUseIsTakenOver) {
  makeStore(3, "legacy");
  const std::string legacy = root() + "/Users/Shared/Vantorix/QX Event Store/QXEventStore.qxstore";
  fs::create_directories(fs::path(legacy).parent_path());
  fs::rename(store(), legacy);
  const RawStore user(legacy);  // an agent of an earlier release, still running
  EXPECT_EQ(user.text("PRAGMA journal_mode = WAL"), "wal");
  user.execute("UPDATE ZQXEVENT SET ZEVENTREADSTATUS = 1");
  auto worker = start();
  EXPECT_EQ(worker.ask("count"), "count 3");
  EXPECT_EQ(rawStore().number("SELECT SUM(ZEVENTREADSTATUS) FROM ZQXEVENT"), 3);
}

TEST_F(HostileNeighbours, ALegacyStoreOfAnUnknownModelIsRemoved) {
  makeStore(3, "legacy");
  const std::string legacy = root() + "/Users/Shared/Vantorix/QX Event Store/QXEventStore.qxstore";
  fs::create_directories(fs::path(legacy).parent_path());
  fs::rename(store(), legacy);
  RawStore(legacy).execute(
      "UPDATE Z_METADATA SET Z_PLIST = CAST(REPLACE(Z_PLIST, CAST('QXBlockedEvent' AS BLOB), "
      "CAST('QXBlockedOther' AS BLOB)) AS BLOB)");
  auto worker = start();
  EXPECT_EQ(worker.askAll("add 1 new"), "done");
  EXPECT_EQ(worker.ask("count"), "count 1");
  EXPECT_FALSE(fs::exists(legacy));
}

TEST_F(HostileNeighbours, ANarrowUmaskAtTheFirstStartShutsNobodyOut) {
  fs::remove_all(root() + "/Users");
  WorkerProcess first(root(), {.umask = 077});
  EXPECT_EQ(first.askAll("add 1 first"), "done");
  EXPECT_EQ(modeOf(root() + "/Users"), 0755U);
  auto other = start(anotherUser());
  EXPECT_EQ(other.askAll("add 1 other"), "done");
}

TEST_F(HostileNeighbours, ASecondNameForAFileIsNotOpenedUp) {
  makeStore(1, "kept");
  fs::remove(store());
  const std::string victim = root() + "/victim";
  std::ofstream(victim) << "precious";
  ::chmod(victim.c_str(), 0600);
  fs::create_hard_link(victim, store());
  auto worker = start();
  EXPECT_EQ(worker.askAll("add 1 lost").substr(0, 6), "failed");
  EXPECT_EQ(modeOf(victim), 0600U);
  EXPECT_EQ(contentsOf(victim), "precious");
}

}  // namespace
