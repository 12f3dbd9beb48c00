#include "Platform/FileWatch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <vector>

#include "Platform/BackgroundLoop.h"
#include "Platform/FileDescriptor.h"
#include "Tests/Platform/LoopTesting.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace qx {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using test::ChildProcess;
using test::kMayLackDescriptors;
using test::runsTasks;
using test::Signal;
using test::TemporaryDirectory;

/// A watched file, and a second one whose change tells that all earlier changes have been told.
class WatchedFile {
 public:
  WatchedFile(const TemporaryDirectory& directory, const std::string& path)
      : sentinel_(directory / "sentinel"),
        first_(watchFile(path, [this] { ++calls_; })),
        second_(watchFile(sentinel_, [this] { syncs_.fetch_add(1), syncs_.notify_all(); })) {}

  /// How often `change` makes the file be told as changed.
  int callsFor(const std::function<void()>& change) {
    const int before = calls_;
    change();
    const int syncs = syncs_;
    fs::create_directory(sentinel_);
    syncs_.wait(syncs);
    fs::remove(sentinel_);
    while (syncs_ - syncs < 2)
      syncs_.wait(syncs + 1);
    return calls_ - before;
  }

 private:
  const std::string sentinel_;
  std::atomic<int> calls_ = 0;
  std::atomic<int> syncs_ = 0;
  Observation first_;
  Observation second_;
};

struct Step {
  const char* what;
  std::function<void()> change;
  bool told = true;
};

void expectTold(WatchedFile& file, const std::vector<Step>& steps) {
  for (const Step& step : steps)
    EXPECT_EQ(file.callsFor(step.change) > 0, step.told) << step.what;
}

TEST(ConcurrentFileWatch, TellsOfEachChangeOfTheFileAndOfNoOther) {
  const TemporaryDirectory directory;
  const std::string path = directory / "a/b/file";
  fs::create_directories(directory / "a/b");
  WatchedFile file(directory, path);
  expectTold(file, {{"made", [&] { directory.write("a/b/file", "1"); }},
                    {"written", [&] { std::ofstream(path, std::ios::app) << "2"; }},
                    {"closed to others", [&] { fs::permissions(path, fs::perms::owner_read); }},
                    {"another made", [&] { directory.write("a/b/file2", "1"); }, false},
                    {"another's directory", [&] { directory.write("a/b2/file", "1"); }, false},
                    {"another read", [&] { std::ifstream(path).get(); }, false},
                    {"replaced", [&] { fs::rename(directory / "a/b/file2", path); }},
                    {"moved away", [&] { fs::rename(path, directory / "a/b/old"); }},
                    {"the old one written", [&] { directory.write("a/b/old", "1"); }, false},
                    {"linked", [&] { fs::create_hard_link(directory / "a/b/old", path); }},
                    {"removed", [&] { fs::remove(path); }}});
}

TEST(ConcurrentFileWatch, FollowsWhatHappensToTheDirectoriesOnTheWay) {
  const TemporaryDirectory directory;
  const auto at = [&](const char* name) { return directory / name; };
  WatchedFile file(directory, at("a/b//./c/../c/file"));
  expectTold(file,
             {{"nothing on the way", [&] { fs::create_directories(at("b/c")); }, false},
              {"first", [&] { fs::create_directory(at("a")); }},
              {"the rest", [&] { directory.write("a/b/c/file"); }},
              {"written", [&] { directory.write("a/b/c/file", "1"); }},
              {"above moved", [&] { fs::rename(at("a"), at("old")); }},
              {"no more there", [&] { directory.write("old/b/c/file", "2"); }, false},
              {"another in its place", [&] { directory.write("a/b/c/file"); }},
              {"all removed", [&] { fs::remove_all(at("a")); }},
              {"a file on the way", [&] { directory.write("a"); }},
              {"gone", [&] { fs::remove(at("a")); }},
              {"moved back", [&] { fs::rename(at("old"), at("a")); }},
              {"written there", [&] { directory.write("a/b/c/file", "3"); }},
              {"exchanged",
               [&] {
                 fs::create_directories(at("n/c"));
                 EXPECT_EQ(
                     ::renameat2(AT_FDCWD, at("n").c_str(), AT_FDCWD, at("a/b").c_str(), RENAME_EXCHANGE), 0);
               }},
              {"made in the new", [&] { directory.write("a/b/c/file", "4"); }}});
}

TEST(ConcurrentFileWatch, FollowsSymbolicLinks) {
  const TemporaryDirectory directory;
  const auto at = [&](const char* name) { return directory / name; };
  const auto link = [&](const char* to, const char* name) { fs::create_symlink(to, directory / name); };
  fs::create_directories(at("real/b"));
  link("loop", "loop");
  link("real", "a");
  WatchedFile file(directory, at("a/b/file"));
  expectTold(file, {{"behind a link", [&] { directory.write("real/b/file"); }},
                    {"link removed", [&] { fs::remove(at("a")); }},
                    {"unlinked", [&] { directory.write("real/b/file", "1"); }, false},
                    {"a loop", [&] { link("loop", "a"); }},
                    {"another link",
                     [&] {
                       fs::remove(at("a"));
                       link((directory.path() + "/later").c_str(), "a");
                     }},
                    {"its target", [&] { fs::create_directory(at("later")); }},
                    {"the file a link",
                     [&] {
                       fs::create_directory(at("later/b"));
                       link("../../f", "later/b/file");
                     }},
                    {"its target made", [&] { directory.write("f"); }},
                    {"its target written", [&] { directory.write("f", "1"); }}});
}

TEST(ConcurrentFileWatch, EndsWithItsObservation) {
  const TemporaryDirectory directory;
  const std::string path = directory.write("file");
  Signal entered;
  Signal release;
  std::atomic<int> calls = 0;
  std::atomic<bool> left = false;
  Observation observation = watchFile(path, [&] {
    if (++calls > 1) return;
    entered.send();
    EXPECT_TRUE(release.wait());
    left = true;
  });
  directory.write("file", "1");
  ASSERT_TRUE(entered.wait());
  auto ended = std::async(std::launch::async, [&] {
    observation.cancel();
    return left.load();
  });
  EXPECT_EQ(ended.wait_for(milliseconds(20)), std::future_status::timeout);
  release.send();
  EXPECT_TRUE(ended.get());
  const int before = calls;
  WatchedFile other(directory, path);
  EXPECT_GT(other.callsFor([&] { directory.write("file", "2"); }), 0);
  EXPECT_EQ(calls, before);

  Observation inside;
  Signal kept;
  Signal gone;
  inside = watchFile(path, [&] {
    EXPECT_TRUE(kept.wait());
    inside.cancel();
    gone.send();
  });
  kept.send();
  directory.write("file", "3");
  EXPECT_TRUE(gone.wait());
}

TEST(ConcurrentFileWatch, TellsEveryoneWhenTheKernelLosesCount) {
  const TemporaryDirectory directory;
  const std::string path = directory.write("file");
  WatchedFile file(directory, path);
  Signal release;
  BackgroundLoop::shared().after({}, [&] { release.wait(); });
  int queued = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queued;
  const std::string others[] = {directory.write("other"), directory.write("another")};
  const auto flood = [&] {
    for (int i = 0; i <= queued; ++i)
      FileDescriptor(::open(others[i % 2].c_str(), O_WRONLY | O_CLOEXEC)).reset();
    std::ofstream(path) << "1";
    release.send();
  };
  EXPECT_GT(file.callsFor(flood), 0);
  EXPECT_GT(file.callsFor([&] { std::ofstream(path) << "2"; }), 0);
}

TEST(ConcurrentFileWatch, BeginsAnewWhenItsDescriptorHasBecomeAnothersFile) {
  const TemporaryDirectory directory;
  const std::string path = directory.write("file", "content");
  const FileDescriptor another(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  WatchedFile file(directory, path);
  EXPECT_TRUE(runsTasks() && runsTasks());
  const int inotify = another.get() + 1;  // the next that was opened
  ASSERT_EQ(::dup2(another.get(), inotify), inotify);
  EXPECT_TRUE(runsTasks() && runsTasks());
  EXPECT_EQ(::lseek(another.get(), 0, SEEK_CUR), 0) << "it was read from";
  EXPECT_EQ(::fcntl(inotify, F_GETFD), 0) << "it was closed";
  const auto write = [&] { std::ofstream(path) << "1"; };
  EXPECT_GT(file.callsFor(write), 0);
  EXPECT_GT(file.callsFor(write), 0);
}

TEST(ConcurrentFileWatch, LooksOnceASecondWhereThereIsNoInotify) {
  if (!kMayLackDescriptors) GTEST_SKIP();
  const TemporaryDirectory directory;
  const std::string path = directory / "a/file";
  BackgroundLoop& loop = BackgroundLoop::shared();
  loop.stopTime();
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  int calls = 0;
  Observation observation = watchFile(path, [&] { ++calls; });
  const auto callsFor = [&](const std::function<void()>& change) {
    const int before = calls;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    change();
    ::setrlimit(RLIMIT_NOFILE, &none);
    loop.advance(milliseconds(999));
    EXPECT_EQ(calls, before);
    loop.advance(milliseconds(1));
    return calls - before;
  };
  EXPECT_EQ(callsFor([] {}), 0);
  EXPECT_EQ(callsFor([&] { directory.write("a/file"); }), 1);
  EXPECT_EQ(callsFor([&] { directory.write("a/file", "longer"); }), 1);
  EXPECT_EQ(callsFor([] {}), 0);
  EXPECT_EQ(callsFor([&] { fs::remove(path); }), 1);
  observation.cancel();
  EXPECT_EQ(callsFor([&] { directory.write("a/file"); }), 0);
}

TEST(ConcurrentFileWatch, LooksOnceASecondWhereTheDirectoryIsClosedToReading) {
  const TemporaryDirectory directory;
  fs::permissions(directory.path(), fs::perms(0711));
  const std::string path = directory.write("closed/open/file");
  fs::permissions(directory / "closed", fs::perms(0711));
  ChildProcess child([&](const ChildProcess::Line& line) {
    if (::geteuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) return 1;
    BackgroundLoop::shared().stopTime();
    std::atomic<int> calls = 0;
    const Observation byInotify = watchFile(path, [&] { ++calls, calls.notify_all(); });
    int looks = 0;
    const Observation byLooking = watchFile(directory / "closed/file", [&] { ++looks; });
    line.signal();
    if (!line.wait()) return 2;
    calls.wait(0);
    if (looks != 0) return 3;
    BackgroundLoop::shared().advance(milliseconds(1000));
    return looks == 1 ? 0 : 4;
  });
  ASSERT_TRUE(child.line().wait());
  directory.write("closed/file");
  fs::rename(directory / "closed/open", directory / "closed/moved");
  child.line().signal();
  EXPECT_EQ(child.exitStatus(), 0);
}

}  // namespace
}  // namespace qx
