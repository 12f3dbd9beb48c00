// The store file from its first start on: where it stands and who may use it, what two processes see of each
// other's changes, and how a store of an earlier release is taken over.

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <chrono>
#include <utility>

#include "Tests/Support/Process.h"
#include "Tests/System/StoreMachine.h"

namespace {

namespace fs = std::filesystem;

using qx::test::ChildProcess;
using qx::test::contentsOf;
using qx::test::modeOf;
using qx::test::RawStore;
using qx::test::StoreMachine;
using qx::test::WorkerProcess;

/// Whether the file system and our rights allow it.
bool setImmutable(const std::string& path, bool immutable) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int flags = 0;
  bool done = file >= 0 && ::ioctl(file, FS_IOC_GETFLAGS, &flags) == 0;
  flags = immutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
  done = done && ::ioctl(file, FS_IOC_SETFLAGS, &flags) == 0;
  ::close(file);
  return done;
}

class StoreLife : public StoreMachine {};

TEST_F(StoreLife, FirstStartOpensTheStoreToEverybodyWhateverTheUmask) {
  WorkerProcess first(root(), {.umask = 077});
  ASSERT_EQ(first.askAll("add 1 first"), "done");

  EXPECT_EQ(modeOf(root() + "/Users/Shared"), 0777U);
  EXPECT_EQ(modeOf(root() + "/Users/Shared/QX"), 0777U);
  EXPECT_EQ(modeOf(storeDirectory()), 0777U);
  EXPECT_EQ(modeOf(store()), 0666U);

  WorkerProcess second(root(), {.user = anotherUser(), .umask = 077});
  ASSERT_EQ(second.askAll("add 1 second"), "done");
  ASSERT_EQ(second.ask("count"), "count 2");
  EXPECT_EQ(first.ask("count"), "count 2");
  expectSound(rawStore());
}

TEST_F(StoreLife, AnotherUserSeesEventsAndMarksThemRead) {
  auto owner = start();
  ASSERT_EQ(owner.askAll("add 1 event"), "done");
  auto reader = start(anotherUser());
  ASSERT_EQ(reader.ask("fetch event.0"), "event 0 0 0");
  ASSERT_EQ(reader.ask("save event.0 0 1"), "saved 1");
  EXPECT_EQ(owner.ask("fetch event.0"), "event 1 0 1");
}

TEST_F(StoreLife, AnOrdinaryUserMayStartFirst) {
  auto user = start(anotherUser());
  ASSERT_EQ(user.askAll("add 1 user"), "done");
  auto administrator = start();
  ASSERT_EQ(administrator.askAll("add 1 administrator"), "done");
  EXPECT_EQ(user.askAll("add 1 again"), "done");
  EXPECT_EQ(modeOf(store()), 0666U);
  EXPECT_EQ(rawStore().number("SELECT COUNT(*) FROM ZQXEVENT"), 3);
}

TEST_F(StoreLife, StartUnlocksAStoreThatWasLocked) {
  makeStore(1);
  ::chmod(storeDirectory().c_str(), 0755);
  ::chmod(store().c_str(), 0400);
  const bool immutable = setImmutable(store(), true);
  if (!immutable) std::cout << "[  NOTE    ] the immutable flag cannot be set here\n";

  auto worker = start();
  const std::string answer = worker.askAll("add 1 new");
  const bool stillImmutable = ::access(store().c_str(), W_OK) != 0;
  setImmutable(store(), false);
  ASSERT_EQ(answer, "done");
  EXPECT_FALSE(stillImmutable);
  EXPECT_EQ(modeOf(store()), 0666U);
  EXPECT_EQ(modeOf(storeDirectory()), 0777U);
  auto user = start(anotherUser());
  EXPECT_EQ(user.askAll("add 1 user"), "done");
}

TEST_F(StoreLife, TheShellOfSQLiteReadsIt) {
  constexpr const char* kShell = "/usr/bin/sqlite3";
  if (::access(kShell, X_OK) != 0) GTEST_SKIP() << kShell << " is not installed";
  auto worker = start();
  ASSERT_EQ(worker.askAll("add 3 event"), "done");
  const auto result = qx::test::Process::run(
      {kShell, "-readonly", store(),
       "SELECT ZEVENTID, ZSOURCENAME, ZEVENTHANDLER FROM ZQXEVENT e JOIN ZQXEVENTSOURCE s ON "
       "ZEVENTSOURCEID = s.ZSOURCEID JOIN ZQXEVENTCLASS c ON c.Z_PK = ZEVENTCLASS ORDER BY e.Z_PK"});
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "event.0|Printer PRINTER|com.qx.tests.handler\nevent.1|Printer PRINTER|com.qx.tests.handler\n"
            "event.2|Printer PRINTER|com.qx.tests.handler\n");
}

TEST_F(StoreLife, AStaleEventIsRefusedUntilItIsFetchedAgain) {
  auto one = start();
  auto other = start(anotherUser());
  ASSERT_EQ(one.askAll("add 1 event"), "done");
  ASSERT_EQ(one.ask("fetch event.0"), "event 0 0 0");
  ASSERT_EQ(other.ask("fetch event.0"), "event 0 0 0");
  ASSERT_EQ(other.ask("save event.0 5 1"), "saved 1");

  EXPECT_EQ(one.ask("save event.0 7 0"),
            "failed -994 The QXEvent not up to date. Please get the event from store");
  EXPECT_EQ(one.ask("fetch event.0"), "event 1 5 1");
  EXPECT_EQ(one.ask("save event.0 7 1"), "saved 2");
  EXPECT_EQ(other.ask("fetch event.0"), "event 2 7 1");
}

TEST_F(StoreLife, AnEventThatAnotherRemovedIsNotThere) {
  auto one = start();
  auto other = start(anotherUser());
  ASSERT_EQ(one.askAll("add 2 event"), "done");
  for (const char* const fetch : {"fetch event.0", "fetch event.1"}) {
    ASSERT_EQ(one.ask(fetch), "event 0 0 0");
    ASSERT_EQ(other.ask(fetch), "event 0 0 0");
  }
  ASSERT_EQ(other.ask("remove event.0"), "removed");
  EXPECT_EQ(one.ask("save event.0 1 1"), "failed -995 The QXEvent is not present in the store");
  EXPECT_TRUE(one.ask("remove event.0").starts_with("failed -995 "));
  EXPECT_EQ(one.ask("fetch event.0"), "missing");
  EXPECT_EQ(one.ask("save event.1 1 1"), "saved 1");
  EXPECT_EQ(rawStore().texts("SELECT ZEVENTID FROM ZQXEVENT"), std::vector<std::string>{"event.1"});
}

TEST_F(StoreLife, AStoppedProcessInTheQueueIsPassedBy) {
  using Clock = std::chrono::steady_clock;
  makeStore();
  const ChildProcess holder([&](const ChildProcess::Line& line) {
    const int directory = ::open(storeDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (::flock(directory, LOCK_EX) != 0) return 1;
    line.signal();
    line.wait();
    return 0;
  });
  ASSERT_TRUE(holder.line().wait());
  holder.kill(SIGSTOP);
  holder.awaitStop();

  const auto begin = Clock::now();
  auto worker = start(anotherUser());
  EXPECT_EQ(worker.askAll("add 1 first"), "done");
  const auto patience = Clock::now() - begin;

  // As long as it stays stopped nobody waits for it again.
  const auto again = Clock::now();
  EXPECT_EQ(worker.askAll("add 5 next"), "done");
  EXPECT_LT(Clock::now() - again, patience);
  EXPECT_EQ(worker.ask("count"), "count 6");
}

/// A store of an earlier release.
class LegacyStore : public StoreMachine {
 protected:
  /// Moves the store there as its writer left it: the last event is in the write-ahead log only.
  void makeLegacyStore() {
    makeStore(3, "legacy");
    fs::create_directories(legacyDirectory());
    {
      const RawStore raw = rawStore();
      ASSERT_EQ(raw.text("PRAGMA journal_mode = WAL"), "wal");
      raw.execute("PRAGMA wal_autocheckpoint = 0");
      raw.execute(
          "UPDATE ZQXEVENT SET ZEVENTREADSTATUS = 1, ZEVENTID = 'logged.0' WHERE ZEVENTID = 'legacy.2'");
      for (const char* const suffix : {"", "-wal", "-shm"}) {
        fs::copy_file(store() + suffix, legacy() + suffix);
        ::chmod((legacy() + suffix).c_str(), 0666);
      }
    }
    ASSERT_EQ(contentsOf(legacy()).find("logged.0"), std::string::npos);
    fs::remove_all(root() + "/Users/Shared/QX");
    for (const std::string& directory : {legacyDirectory(), root() + "/Users/Shared/Vantorix"})
      ::chmod(directory.c_str(), 0777);
  }

  std::string legacyDirectory() const { return root() + "/Users/Shared/Vantorix/QX Event Store"; }
  std::string legacy() const { return legacyDirectory() + "/QXEventStore.qxstore"; }

  void expectTakenOverBy(std::optional<uid_t> user) {
    makeLegacyStore();
    auto worker = start(user);
    ASSERT_EQ(worker.ask("status"), "open " + store());
    EXPECT_EQ(worker.ask("fetch legacy.0"), "event 0 0 0");
    EXPECT_EQ(worker.ask("fetch logged.0"), "event 0 0 1");
    EXPECT_EQ(worker.askAll("add 1 new"), "done");
    EXPECT_EQ(worker.ask("count"), "count 4");
    EXPECT_FALSE(fs::exists(root() + "/Users/Shared/Vantorix"));
    EXPECT_EQ(modeOf(store()), 0666U);
    expectSound(rawStore());
  }
};

TEST_F(LegacyStore, IsTakenOverWithItsLogByTheFirstStart) {
  expectTakenOverBy(std::nullopt);
}

TEST_F(LegacyStore, IsTakenOverByAnOrdinaryUser) {
  const auto user = anotherUser();
  if (!user) GTEST_SKIP() << "there is no second user";
  expectTakenOverBy(user);
}

TEST_F(LegacyStore, IsTakenOverOnceByProcessesThatStartTogether) {
  makeLegacyStore();
  WorkerProcess one(root());
  WorkerProcess other(root(), {.user = anotherUser()});
  one.tell("add 1 one");
  other.tell("add 1 other");
  EXPECT_EQ(one.lastLine(), "done");
  EXPECT_EQ(other.lastLine(), "done");
  EXPECT_EQ(rawStore().texts("SELECT ZEVENTID FROM ZQXEVENT ORDER BY ZEVENTID"),
            (std::vector<std::string>{"legacy.0", "legacy.1", "logged.0", "one.0", "other.0"}));
  EXPECT_FALSE(fs::exists(root() + "/Users/Shared/Vantorix"));
}

}  // namespace
