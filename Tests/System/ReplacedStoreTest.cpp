// A store file that is removed or replaced while processes have it open: they say so, leave what is not
// theirs as it is, and go on once a usable file is back.

#include <string>

#include "Tests/System/StoreMachine.h"

namespace {

using qx::test::contentsOf;
using qx::test::RawStore;
using qx::test::StoreMachine;
using qx::test::WorkerProcess;

namespace fs = std::filesystem;

class ReplacedStore : public StoreMachine {
 protected:
  ReplacedStore() {
    makeStore(2, "kept");
    EXPECT_EQ(worker_.ask("fetch kept.0"), "event 0 0 0");
  }

  std::string aside() const { return root() + "/Users/Shared/aside"; }
  void putAside() const { fs::rename(store(), aside()); }
  void putBack() const { fs::rename(aside(), store()); }

  void writeGarbage() const {
    std::ofstream file(store(), std::ios::binary);
    for (int i = 0; i < 4096; ++i)
      file << "no store ";
  }

  static void becomeAnotherModel(const std::string& path) {
    // Any change of a hash, of the same length, makes it another model's.
    const RawStore raw(path);
    const std::string list = raw.text("SELECT HEX(Z_PLIST) FROM Z_METADATA");
    std::string changed = list;
    const auto key = changed.find("4E5353746F72654D6F64656C56657273696F6E486173686573");  // the hashes' name
    ASSERT_NE(key, std::string::npos);
    const auto hash = changed.find("4F10");  // data of 16 bytes
    ASSERT_NE(hash, std::string::npos);
    changed[hash + 4] = changed[hash + 4] == '0' ? '1' : '0';
    raw.execute("UPDATE Z_METADATA SET Z_PLIST = X'" + changed + "'");
  }

  static bool failsWith(const std::string& answer, int code) {
    return answer.starts_with("failed " + std::to_string(code) + " ");
  }

  WorkerProcess& worker() { return worker_; }

 private:
  WorkerProcess worker_{root()};
};

TEST_F(ReplacedStore, AMissingFileIsReportedAndNotMadeBehindTheUsersBack) {
  putAside();
  EXPECT_PRED2(failsWith, worker().askAll("add 1 lost"), -996);
  EXPECT_PRED2(failsWith, worker().ask("save kept.0 1 1"), -996);
  EXPECT_FALSE(fs::exists(store()));

  putBack();
  EXPECT_EQ(worker().askAll("add 1 found"), "done");
  // What could not be saved stayed in memory, for the next save to write.
  EXPECT_EQ(rawStore().texts("SELECT ZEVENTID FROM ZQXEVENT ORDER BY Z_PK"),
            (std::vector<std::string>{"kept.0", "kept.1", "lost.0", "found.0"}));
}

TEST_F(ReplacedStore, AFileThatIsNoStoreIsReportedAndLeftAsItIs) {
  putAside();
  writeGarbage();
  const std::string garbage = contentsOf(store());
  EXPECT_PRED2(failsWith, worker().askAll("add 1 lost"), -998);
  EXPECT_PRED2(failsWith, worker().ask("save kept.0 1 1"), -998);
  EXPECT_EQ(contentsOf(store()), garbage);

  fs::remove(store());
  putBack();
  EXPECT_EQ(worker().askAll("add 1 found"), "done");
}

TEST_F(ReplacedStore, AStoreThatIsOverwrittenInPlaceIsReportedAndLeftAsItIs) {
  fs::copy_file(store(), aside());
  writeGarbage();
  const std::string garbage = contentsOf(store());
  EXPECT_PRED2(failsWith, worker().askAll("add 1 lost"), -998);
  EXPECT_PRED2(failsWith, worker().askAll("batch 1 3 lost"), -998);
  EXPECT_EQ(contentsOf(store()), garbage);
}

TEST_F(ReplacedStore, AStoreOfAnotherModelIsReportedAndLeftAsItIs) {
  fs::copy_file(store(), aside());
  becomeAnotherModel(aside());
  const std::string foreign = contentsOf(aside());
  fs::rename(aside(), store());
  EXPECT_PRED2(failsWith, worker().askAll("add 1 lost"), -998);
  EXPECT_PRED2(failsWith, worker().ask("save kept.0 1 1"), -998);
  EXPECT_EQ(contentsOf(store()), foreign);
}

TEST_F(ReplacedStore, AStoreThatBecomesAnotherModelsInPlaceIsReportedAndLeftAsItIs) {
  becomeAnotherModel(store());
  const std::string foreign = contentsOf(store());
  EXPECT_PRED2(failsWith, worker().askAll("add 1 lost"), -998);
  EXPECT_EQ(contentsOf(store()), foreign);
}

TEST_F(ReplacedStore, AnotherGoodStoreIsNotWrittenThroughTheOldOne) {
  putAside();
  {
    auto maker = start();  // makes a new one
    ASSERT_EQ(maker.askAll("add 1 new"), "done");
    ASSERT_EQ(maker.finish(), 0);
  }
  const std::string fresh = contentsOf(store());
  EXPECT_EQ(worker().askAll("add 1 lost"), "failed 0") << "nothing that a user could repair";
  EXPECT_EQ(contentsOf(store()), fresh);
  EXPECT_EQ(worker().askAll("add 1 next"), "done") << "the store that stands there was opened meanwhile";
  EXPECT_EQ(RawStore(store()).number("SELECT COUNT(*) FROM ZQXEVENT"), 2);
  EXPECT_EQ(RawStore(aside()).number("SELECT COUNT(*) FROM ZQXEVENT"), 2);
}

TEST_F(ReplacedStore, AProcessThatStartedWithoutAStoreOpensItOnceItIsThere) {
  putAside();
  writeGarbage();
  const std::string garbage = contentsOf(store());
  auto late = start(anotherUser());
  EXPECT_EQ(late.ask("status").substr(0, 6), "closed");
  EXPECT_PRED2(failsWith, late.askAll("batch 1 3 lost"), -998);
  EXPECT_EQ(contentsOf(store()), garbage);

  fs::remove(store());
  putBack();
  EXPECT_PRED2(failsWith, late.ask("count"), -998);  // finds nothing open, and opens it
  EXPECT_EQ(late.ask("count"), "count 2");
  EXPECT_EQ(late.askAll("add 1 found"), "done");
  EXPECT_EQ(worker().ask("fetch found.0"), "event 0 0 0");
  EXPECT_EQ(worker().askAll("add 1 too"), "done");
}

}  // namespace
