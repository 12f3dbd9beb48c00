// A process that dies, or finds no more room, while it brings a store of an earlier version up to date: the
// records are in the old store or in the new one, whole, and the next start goes on from there.

#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <random>
#include <thread>

#include "Tests/System/StoreMachine.h"

namespace {

using qx::test::RawStore;
using qx::test::StoreMachine;
using qx::test::WorkerProcess;
namespace fs = std::filesystem;

constexpr int kEvents = 10'000;
// Kills at random moments. After so many of them a process is killed once it is done, besides.
constexpr int kKillsBetweenFinishedRounds = QX_TESTS_SANITIZED != 0 ? 5 : 10;
constexpr int kLegacyKills = QX_TESTS_SANITIZED != 0 ? 10 : 100;
constexpr int kInPlaceKills = QX_TESTS_SANITIZED != 0 ? 5 : 40;

class ConcurrentKilledMigration : public StoreMachine {
 protected:
  using Clock = std::chrono::steady_clock;

  /// What a crash left.
  struct State {
    bool isNew = false;         // the new store holds the records
    bool isBroughtUp = false;   // the old file is of the present version
    bool hasLeftovers = false;  // a journal or an unfinished file
  };

  std::string legacy() const { return root() + "/Users/Shared/Vantorix/QX Event Store/QXEventStore.qxstore"; }

  /// Makes an old store outside the machine's tree, the last of its rows in a write-ahead log.
  void prepare(const char* modelFile) {
    qx::test::ChildProcess maker([&](const qx::test::ChildProcess::Line&) {
      const std::string model = std::string(QX_MODEL_DIRECTORY "/") + modelFile;
      ::execl(QX_OLD_STORE_MAKER, QX_OLD_STORE_MAKER, model.c_str(), (prepared_ / "store").c_str(),
              std::to_string(kEvents).c_str(), "killed", nullptr);
      return 127;
    });
    ASSERT_EQ(maker.exitStatus(), 0);
    ASSERT_GT(fs::file_size(prepared_ / "store-wal"), 100'000U);
    const qx::test::TemporaryDirectory directory;
    for (const char* const suffix : {"", "-wal"})
      fs::copy_file(prepared_ / "store" + suffix, directory / "copy" + suffix);
    expectedChecksum_ = checksumOf(RawStore(directory / "copy"));
  }

  /// Of all that the events hold, but the number of their entity, as the present version has it.
  static std::size_t checksumOf(const RawStore& raw) {
    const bool hasVersions =
        raw.number("SELECT COUNT(*) FROM pragma_table_info('ZQXEVENT') WHERE name = 'ZEVENTVERSIONNUMBER'") !=
        0;
    std::string values =
        "Z_PK || ' ' || Z_OPT || ' ' || " + std::string(hasVersions ? "ZEVENTVERSIONNUMBER" : "0");
    for (const char* const name : {"EVENTID", "EVENTREADSTATUS", "EVENTTRIGGERTIME", "EVENTCURRENTSTATE",
                                   "EVENTSOURCEID", "EVENTADDITIONALINFO", "EVENTCLASS"})
      values += std::string(" || ' ' || QUOTE(Z") + name + ")";
    std::string all;
    for (const std::string& row : raw.texts("SELECT " + values + " FROM ZQXEVENT ORDER BY Z_PK"))
      all += row + "\n";
    return std::hash<std::string>()(all);
  }

  /// Everything is as it was before the first start, the old store at `place`.
  void reset(const std::string& place) const {
    for (const auto& entry : fs::directory_iterator(root_ / "Users/Shared"))
      fs::remove_all(entry.path());
    const std::string directory = fs::path(place).parent_path();
    fs::create_directories(directory);
    for (const char* const suffix : {"", "-wal"})
      fs::copy_file(prepared_ / "store" + suffix, place + suffix);
    if (place == legacy()) {
      for (const std::string& name :
           {place + "-shm", directory + "/~QXEventStore.qxstore", directory + "/~QXEventStore.qxstore-shm",
            directory + "/~QXEventStore.qxstore-wal"})
        std::ofstream(name) << "left over";
    }
    fs::create_directories(root_ / "Users/Shared/QX/QX Event Store");
  }

  /// Until it has started; it does not touch the store yet.
  static void awaitStart(WorkerProcess& worker) {
    EXPECT_EQ(worker.ask("hello"), "failed 0 unknown command hello");
  }

  Clock::duration durationFrom(const std::string& place) const {
    reset(place);
    WorkerProcess worker(root());
    awaitStart(worker);
    const auto start = Clock::now();
    EXPECT_EQ(worker.ask("status"), "open " + store());
    const auto duration = Clock::now() - start;
    EXPECT_EQ(worker.ask("count"), "count " + std::to_string(kEvents));
    return duration;
  }

  /// Kills a worker that long after it was told to open the store; when it has answered, with no time given.
  void killAfter(std::optional<Clock::duration> time) const {
    WorkerProcess worker(root());
    awaitStart(worker);
    worker.tell("status");
    if (time) {
      std::this_thread::sleep_for(*time);
    } else {
      EXPECT_EQ(worker.nextLine(), "open " + store());
    }
    worker.kill(SIGKILL);
    EXPECT_EQ(worker.exitStatus(), -1);
  }

  /// Looks at a copy: what has to be put in order is left for the next start.
  void expectWholeCopy(const std::string& path, State& state) const {
    const qx::test::TemporaryDirectory directory;
    for (const char* const suffix : {"", "-wal", "-journal"})
      if (fs::exists(path + suffix)) fs::copy_file(path + suffix, directory / "copy" + suffix);
    const RawStore raw(directory / "copy");
    EXPECT_EQ(raw.texts("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
    EXPECT_EQ(raw.number("SELECT COUNT(DISTINCT ZEVENTID) FROM ZQXEVENT JOIN ZQXEVENTCLASS AS c ON "
                         "ZEVENTCLASS = c.Z_PK"),
              kEvents);
    EXPECT_EQ(checksumOf(raw), expectedChecksum_);
    state.isBroughtUp = raw.number("SELECT COUNT(*) FROM Z_PRIMARYKEY") == 6;
    EXPECT_EQ(raw.number("SELECT COUNT(*) FROM sqlite_master WHERE name = 'ZQXBLOCKEDEVENT'"),
              state.isBroughtUp ? 1 : 0);
  }

  State stateAfterCrash(const std::string& place) const {
    State state;
    for (const auto& entry : fs::recursive_directory_iterator(root_ / "Users/Shared"))
      if (const std::string name = entry.path().extension(); name == ".new" || name == ".qxstore-journal")
        state.hasLeftovers = true;
    state.isNew = place != store() && fs::exists(store());
    expectWholeCopy(state.isNew ? store() : place, state);
    return state;
  }

  static std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
      names.push_back(entry.path().filename());
    return names;
  }

  /// Nothing of the old place is left, and nothing half-done in the new one.
  void expectOnlyTheNewStore() const {
    EXPECT_EQ(namesIn(root_ / "Users/Shared"), std::vector<std::string>{"QX"});
    EXPECT_EQ(namesIn(storeDirectory()), std::vector<std::string>{"QXEventStore.qxstore"});
  }

  void expectNextStartFinishes() const {
    WorkerProcess worker(root());
    EXPECT_EQ(worker.ask("status"), "open " + store());
    EXPECT_EQ(worker.ask("count"), "count " + std::to_string(kEvents));
    EXPECT_EQ(worker.ask("fetch EVENT-9999").substr(0, 6), "event ");
    EXPECT_EQ(worker.finish(), 0);
  }

  /// Kills a process at that moment and looks at what it left, then lets the next one finish.
  State killOnce(const std::string& place, std::optional<Clock::duration> time) const {
    reset(place);
    killAfter(time);
    const State state = stateAfterCrash(place);
    if (!time) {
      EXPECT_TRUE(state.isBroughtUp && state.isNew == (place != store()));
      expectOnlyTheNewStore();
    }
    expectNextStartFinishes();
    if (!time || !state.isNew) {
      expectSound(rawStore());
      EXPECT_EQ(namesIn(root_ / "Users/Shared"), std::vector<std::string>{"QX"});
      EXPECT_EQ(checksumOf(rawStore()), expectedChecksum_);
    }
    return state;
  }

  void killAtRandomMoments(const std::string& place, int kills) {
    const auto duration = std::min({durationFrom(place), durationFrom(place), durationFrom(place)});
    const double longest = std::chrono::duration<double>(duration).count() * 1.15;
    std::mt19937 random(20261121);
    std::uniform_real_distribution moment(0.0, longest);
    std::array<int, 3> counts{};  // untouched, brought up to date, moved
    int leftovers = 0;
    for (int kill = 1; kill <= kills && !HasFailure(); ++kill) {
      SCOPED_TRACE("kill " + std::to_string(kill));
      const std::chrono::duration<double> time(moment(random));
      const State state = killOnce(place, std::chrono::duration_cast<Clock::duration>(time));
      ++counts[state.isNew ? 2 : (state.isBroughtUp ? 1 : 0)];
      leftovers += state.hasLeftovers ? 1 : 0;
      if (kill % kKillsBetweenFinishedRounds == 0) killOnce(place, std::nullopt);
    }
    std::cout << "[  NOTE    ] " << kills << " times killed within " << longest << " s: untouched "
              << counts[0] << ", brought up " << counts[1] << ", moved " << counts[2]
              << "; something half-done lay about " << leftovers << " times\n";
    if (QX_TESTS_SANITIZED != 0) return;
    EXPECT_GT(counts[0], 0);
    EXPECT_GT(leftovers, 0) << "no process was killed at work";
  }

  qx::test::TemporaryDirectory prepared_;
  std::size_t expectedChecksum_ = 0;
};

TEST_F(ConcurrentKilledMigration, LosesNoRecordOfALegacyStore) {
  ASSERT_NO_FATAL_FAILURE(prepare("QXStoreModel.mom"));
  killAtRandomMoments(legacy(), kLegacyKills);
}

TEST_F(ConcurrentKilledMigration, LosesNoRecordOfAStoreInItsPlace) {
  ASSERT_NO_FATAL_FAILURE(prepare("QXStoreModel 2.mom"));
  killAtRandomMoments(store(), kInPlaceKills);
}

TEST_F(ConcurrentKilledMigration, IsDoneOnceWhenSeveralProcessesStartTogether) {
  constexpr int kRounds = QX_TESTS_SANITIZED != 0 ? 1 : 5;
  ASSERT_NO_FATAL_FAILURE(prepare("QXStoreModel.mom"));
  for (int round = 0; round < kRounds; ++round) {
    reset(legacy());
    std::array<WorkerProcess, 4> workers{start(), start(), start(), start()};
    for (WorkerProcess& worker : workers)
      awaitStart(worker);
    for (const WorkerProcess& worker : workers)
      worker.tell("status");
    for (WorkerProcess& worker : workers)
      EXPECT_EQ(worker.nextLine(), "open " + store());
    for (WorkerProcess& worker : workers) {
      EXPECT_EQ(worker.ask("count"), "count " + std::to_string(kEvents));
      EXPECT_EQ(worker.finish(), 0);
    }
    expectSound(rawStore());
    expectOnlyTheNewStore();
    EXPECT_EQ(checksumOf(rawStore()), expectedChecksum_);
  }
}

/// A disk of its own, which nobody outside the calling process sees.
class SmallDisk {
 public:
  explicit SmallDisk(std::string place) : place_(std::move(place)) {}

  bool mount(int kibibytes) const {
    return ::mount("tmpfs", place_.c_str(), "tmpfs", 0, options(kibibytes).c_str()) == 0;
  }
  bool grow(int kibibytes) const {
    return ::mount("tmpfs", place_.c_str(), "tmpfs", MS_REMOUNT, options(kibibytes).c_str()) == 0;
  }
  void unmount() const { ::umount2(place_.c_str(), MNT_DETACH); }

 private:
  static std::string options(int kibibytes) { return "mode=0777,size=" + std::to_string(kibibytes) + "k"; }
  std::string place_;
};

class ConcurrentFullDisk : public ConcurrentKilledMigration {
 protected:
  static constexpr int kRoomy = 64 << 10;
  static constexpr int kNoMounts = 42;

  /// Starts on disks of growing sizes, from one that just holds the old store to one with room for all.
  int fillUp(const std::string& place) const {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      return kNoMounts;
    const SmallDisk disk(root_ / "Users/Shared");
    int failed = 0;
    int opened = 0;
    const auto held = (fs::file_size(prepared_ / "store") + fs::file_size(prepared_ / "store-wal")) >> 10;
    for (int size = static_cast<int>(held) + 40; opened == 0 && !HasFailure(); size += 350) {
      SCOPED_TRACE("disk of " + std::to_string(size) + " KiB");
      if (!disk.mount(size)) return kNoMounts;
      reset(place);
      const std::string answer = WorkerProcess(root()).ask("status");
      if (answer == "open " + store()) {
        ++opened;
      } else {
        ++failed;
        EXPECT_TRUE(answer.starts_with("closed ")) << answer;
        EXPECT_EQ(fs::exists(store()), place == store());
        State state;
        expectWholeCopy(place, state);
        EXPECT_TRUE(disk.grow(kRoomy));
      }
      expectNextStartFinishes();
      expectSound(rawStore());
      EXPECT_FALSE(fs::exists(root_ / "Users/Shared/Vantorix"));
      disk.unmount();
    }
    std::cout << "[  NOTE    ] the disk was full " << failed << " times\n";
    EXPECT_GT(failed, 3);
    return HasFailure() ? 1 : 0;
  }

  void expectNothingLost(const std::string& place) const {
    qx::test::ChildProcess child([&](const qx::test::ChildProcess::Line&) {
      const int result = fillUp(place);
      std::cout.flush();
      return result;
    });
    const int result = child.exitStatus();
    if (result == kNoMounts) GTEST_SKIP() << "no disk can be mounted here: not run by root, or refused";
    EXPECT_EQ(result, 0);
  }
};

TEST_F(ConcurrentFullDisk, CostsNoRecordOfALegacyStore) {
  ASSERT_NO_FATAL_FAILURE(prepare("QXStoreModel.mom"));
  expectNothingLost(legacy());
}

TEST_F(ConcurrentFullDisk, CostsNoRecordOfAStoreInItsPlace) {
  ASSERT_NO_FATAL_FAILURE(prepare("QXStoreModel 2.mom"));
  expectNothingLost(store());
}

}  // namespace
