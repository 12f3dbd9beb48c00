// A writer that dies: whatever it reported is stored, what it was about is stored whole or not at all, and
// the next one goes on without help.

#include <chrono>
#include <map>
#include <random>
#include <set>

#include "Tests/System/StoreMachine.h"

namespace {

using qx::test::RawStore;
using qx::test::StoreMachine;
using qx::test::WorkerProcess;

constexpr int kRounds = QX_TESTS_SANITIZED != 0 ? 20 : 200;
constexpr int kRoundsBetweenLooks = QX_TESTS_SANITIZED != 0 ? 5 : 25;
constexpr int kBatch = 7;

class KilledWriter : public StoreMachine {
 protected:
  /// Starts a writer, kills it at a random moment, and remembers what it reported.
  void runRound(int round) {
    const bool inBatches = round % 2 == 1;
    const std::string name = (inBatches ? "batch" : "single") + std::to_string(round);
    WorkerProcess worker(root(), {.user = round % 4 < 2 ? std::nullopt : another_});
    worker.tell(inBatches ? "batch 1000 " + std::to_string(kBatch) + " " + name : "add 1000 " + name);
    const int reports = std::uniform_int_distribution(0, 6)(random_);
    for (int i = 0; i < reports; ++i) {
      const auto line = worker.nextLine().value_or("(ended)");
      ASSERT_TRUE(line.starts_with("added ")) << "round " << round << ": " << line;
      remember(line);
    }
    spin(std::chrono::microseconds(std::uniform_int_distribution(0, 4000)(random_)));
    worker.kill(SIGKILL);
    while (const auto line = worker.nextLine())
      if (line->starts_with("added ")) remember(*line);
    ASSERT_EQ(worker.exitStatus(), -1);
    if (std::filesystem::exists(store() + "-journal")) ++hotJournals_;
  }

  /// The next writer puts the store in order, not the look that is taken at it afterwards.
  void look(int round) {
    const std::string eventID = "after" + std::to_string(round);
    WorkerProcess next(root(), {.user = another_});
    ASSERT_EQ(next.askAll("add 1 " + eventID), "done");
    ASSERT_EQ(next.finish(), 0);
    remember("added " + eventID + ".0");

    const RawStore raw = rawStore();
    expectSound(raw);
    std::set<std::string> stored;
    std::map<std::string, int> sizes;
    for (const std::string& found : raw.texts("SELECT ZEVENTID FROM ZQXEVENT")) {
      stored.insert(found);
      if (found.starts_with("batch")) ++sizes[found.substr(0, found.rfind('.'))];
    }
    for (const auto& [batch, size] : sizes)
      EXPECT_EQ(size, kBatch) << batch;
    for (const std::string& reported : reported_)
      EXPECT_TRUE(stored.contains(reported) || sizes.contains(reported)) << reported << " was lost";
  }

  std::size_t reportedCount() const { return reported_.size(); }
  int hotJournals() const { return hotJournals_; }

 private:
  void remember(const std::string& line) { reported_.insert(line.substr(line.find(' ') + 1)); }

  static void spin(std::chrono::microseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
    }
  }

  std::mt19937 random_{20261102};
  const std::optional<uid_t> another_ = anotherUser();
  std::set<std::string> reported_;
  int hotJournals_ = 0;
};

TEST_F(KilledWriter, LeavesWhatItReportedAndNoHalfTransaction) {
  makeStore();
  for (int round = 1; round <= kRounds; ++round) {
    runRound(round);
    if (round % kRoundsBetweenLooks == 0) look(round);
    if (HasFailure()) return;
  }
  EXPECT_GT(reportedCount(), static_cast<std::size_t>(kRounds));
  EXPECT_GT(hotJournals(), 0) << "no writer was killed inside a transaction";
  RecordProperty("killed inside a transaction", hotJournals());
}

}  // namespace
