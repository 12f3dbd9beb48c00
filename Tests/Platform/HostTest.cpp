#include "Platform/Host.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <QXEventStoring/Platform/Volume.h>

#include "Platform/DirectoryLock.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace qx {
namespace {

using std::chrono::milliseconds;
using test::ChildProcess;
using test::TemporaryDirectory;

constexpr milliseconds kLong{20000};

mode_t permissionsOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

std::int64_t codeOf(const ErrorPtr& error) {
  return error ? error->code() : 0;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(SetAttributes, SetsPermissionsExactlyAndLeavesTheRestAlone) {
  const TemporaryDirectory directory;
  const std::string file = directory.write("file", "content");
  Host& host = Host::current();
  for (const mode_t permissions : {0666, 0, 0777, 0600}) {
    ASSERT_TRUE(host.setAttributes(file, {permissions, std::nullopt}));
    EXPECT_EQ(permissionsOf(file), permissions);
    EXPECT_EQ(host.status(file)->permissions, permissions);
  }
  ASSERT_TRUE(host.setAttributes(file, {std::nullopt, false}));
  ASSERT_TRUE(host.setAttributes(directory.path(), {0777, false}));
  EXPECT_EQ(permissionsOf(file), 0600u);
  EXPECT_EQ(permissionsOf(directory.path()), 0777u);
}

TEST(SetAttributes, UnlocksAndLocksAnImmutableFile) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may change the immutable flag";
  const TemporaryDirectory directory;
  const std::string file = directory.write("file");
  Host& host = Host::current();
  ErrorPtr error;
  if (!host.setAttributes(file, {0400, true}, &error)) {
    GTEST_SKIP() << "no immutable flag here: " << error->localizedDescription();
  }
  EXPECT_TRUE(host.status(file)->immutable);
  EXPECT_FALSE(host.isWritable(file));
  EXPECT_FALSE(host.setAttributes(file, {0666, std::nullopt}, &error));
  EXPECT_EQ(codeOf(error), 513);
  EXPECT_TRUE(host.setAttributes(file, {0640, true})) << "unlocked for it and locked again";
  EXPECT_TRUE(host.status(file)->immutable);
  EXPECT_TRUE(host.setAttributes(file, {0666, false}, &error));
  EXPECT_EQ(permissionsOf(file), 0666u);
  EXPECT_FALSE(host.status(file)->immutable);
}

TEST(SetAttributes, KeepsTheRecordLocksOfTheProcess) {
  const TemporaryDirectory directory;
  const std::string file = directory.write("file", "content");
  const int descriptor = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(::fcntl(descriptor, F_SETLK, &lock), 0);

  Host& host = Host::current();
  ASSERT_TRUE(host.setAttributes(file, {0640, std::nullopt}));
  ASSERT_TRUE(host.setAttributes(file, {0666, false}));
  if (host.setAttributes(file, {std::nullopt, true})) {
    ASSERT_TRUE(host.setAttributes(file, {0600, false}));
  } else if (::geteuid() == 0) {
    GTEST_LOG_(INFO) << "no immutable flag here, checked with permissions only";
  }

  ChildProcess other([&](const ChildProcess::Line&) {
    const int own = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    struct flock found {};
    found.l_type = F_WRLCK;
    return ::fcntl(own, F_GETLK, &found) == 0 && found.l_type == F_WRLCK ? 0 : 1;
  });
  EXPECT_EQ(other.exitStatus(), 0) << "the lock is gone";
  ::close(descriptor);
}

TEST(Host, NeverFollowsAPlantedLink) {
  const TemporaryDirectory directory;
  const std::string victim = directory.write("victim/file", "content");
  const std::string victimDirectory = directory / "victim";
  ASSERT_TRUE(Host::current().setAttributes(victim, {0600, std::nullopt}));
  const std::string toFile = directory / "to file";
  const std::string toDirectory = directory / "tree/to directory";
  directory.write("tree/deep/file");
  ASSERT_EQ(::symlink(victim.c_str(), toFile.c_str()), 0);
  ASSERT_EQ(::symlink(victimDirectory.c_str(), toDirectory.c_str()), 0);

  Host& host = Host::current();
  ErrorPtr error;
  EXPECT_FALSE(host.setAttributes(toFile, {0666, false}, &error));
  EXPECT_EQ(codeOf(error), 513);
  EXPECT_FALSE(host.isWritable(toFile));
  EXPECT_TRUE(host.fileExists(toFile));
  EXPECT_TRUE(host.status(toFile)->isSymbolicLink);
  EXPECT_FALSE(host.contentsOfDirectory(toDirectory, false, &error));
  EXPECT_FALSE(host.createDirectory(toDirectory, true, 0777, &error));
  EXPECT_EQ(codeOf(error), 516);
  EXPECT_EQ(DirectoryLock::forDirectory(toDirectory, &error), nullptr);

  EXPECT_TRUE(host.removeItem(toFile));
  EXPECT_TRUE(host.removeItem(directory / "tree")) << "with the link in it";
  EXPECT_EQ(host.contentsOfDirectory(directory.path(), false), std::vector<std::string>{"victim"});
  EXPECT_EQ(readFile(victim), "content");
  EXPECT_EQ(permissionsOf(victim), 0600u);
}

TEST(Host, CreatesDirectoriesWithExactPermissionsWhateverTheUmask) {
  const TemporaryDirectory directory;
  const mode_t before = ::umask(077);
  Host& host = Host::current();
  EXPECT_TRUE(host.createDirectory(directory / "a/b/c", true, 0777));
  EXPECT_TRUE(host.createDirectory(directory / "plain/", false, std::nullopt));
  EXPECT_TRUE(host.createDirectory(directory / "a/b/c", true, 0700)) << "there already";
  ::umask(before);
  EXPECT_EQ(permissionsOf(directory / "a/b/c"), 0777u);
  EXPECT_EQ(permissionsOf(directory / "a"), 0755u) << "a parent shuts nobody out";
  EXPECT_EQ(permissionsOf(directory / "plain"), 0700u);
}

TEST(Host, ListsNamesInOrder) {
  const TemporaryDirectory directory;
  for (const char* const name : {"b", "a", ".hidden", "c d"})
    directory.write(name);
  const Host& host = Host::current();
  EXPECT_EQ(host.contentsOfDirectory(directory.path(), true), (std::vector<std::string>{"a", "b", "c d"}));
  EXPECT_EQ(host.contentsOfDirectory(directory.path(), false)->size(), 4u);
  EXPECT_GT(host.freeSize(directory.path()).value_or(0), 0u);
}

TEST(Host, TellsWhyInTheDomainOfTheFileErrors) {
  const TemporaryDirectory directory;
  const std::string file = directory.write("file");
  const std::string secret = directory / "closed/secret";
  directory.write("closed/secret");
  Host& host = Host::current();
  ASSERT_TRUE(host.setAttributes(directory / "closed", {0700, std::nullopt}));
  ASSERT_TRUE(host.setAttributes(directory.path(), {0755, std::nullopt}));
  const bool dropped = ::geteuid() == 0 && ::seteuid(65534) == 0;

  const std::string missing = directory / "missing";
  const std::string withNul = missing + std::string("\0/x", 3);
  struct Case {
    std::function<bool(ErrorPtr*)> operation;
    std::int64_t code;
    int underlying;
    bool needsOtherUser = false;
  };
  const std::vector<Case> cases = {
      {[&](ErrorPtr* e) { return host.status(missing, e).has_value(); }, 260, ENOENT},
      {[&](ErrorPtr* e) { return host.status(file + "/x", e).has_value(); }, 260, ENOTDIR},
      {[&](ErrorPtr* e) {
         return host.setAttributes(missing, {0666, false}, e);
       },
       260, ENOENT},
      {[&](ErrorPtr* e) { return host.removeItem(missing, e); }, 260, ENOENT},
      {[&](ErrorPtr* e) { return host.freeSize(missing, e).has_value(); }, 260, ENOENT},
      {[&](ErrorPtr* e) { return host.contentsOfDirectory(missing, true, e).has_value(); }, 260, ENOENT},
      {[&](ErrorPtr* e) { return host.createDirectory(missing + "/x", false, 0777, e); }, 260, ENOENT},
      {[&](ErrorPtr* e) { return host.createDirectory(file, true, 0777, e); }, 516, EEXIST},
      {[&](ErrorPtr* e) { return host.startDetached(missing, {}, e); }, 260, ENOENT},
      {[&](ErrorPtr* e) { return host.status(withNul, e).has_value(); }, 256, EINVAL},
      {[&](ErrorPtr* e) { return host.removeItem(withNul, e); }, 512, EINVAL},
      {[&](ErrorPtr* e) { return host.startDetached(withNul, {}, e); }, 256, EINVAL},
      {[&](ErrorPtr* e) { return host.startDetached(file, {}, e); }, 257, EACCES},
      {[&](ErrorPtr* e) { return host.status(secret, e).has_value(); }, 257, EACCES, true},
      {[&](ErrorPtr* e) {
         return host.setAttributes(file, {0666, {}}, e);
       },
       513, EPERM, true},
      {[&](ErrorPtr* e) { return host.removeItem(file, e); }, 513, EACCES, true},
      {[&](ErrorPtr* e) { return host.createDirectory(missing, true, 0777, e); }, 513, EACCES, true},
  };
  for (const Case& one : cases) {
    if (one.needsOtherUser && !dropped) continue;
    ErrorPtr error;
    EXPECT_FALSE(one.operation(&error));
    ASSERT_TRUE(error) << "case " << &one - cases.data();
    EXPECT_EQ(error->domain(), kCocoaErrorDomain);
    EXPECT_EQ(error->code(), one.code) << "case " << &one - cases.data();
    ASSERT_TRUE(error->underlying());
    EXPECT_EQ(error->underlying()->code(), one.underlying) << "case " << &one - cases.data();
    EXPECT_NE(error->localizedDescription().find(directory.path()), std::string::npos);
  }
  ASSERT_TRUE(!dropped || ::seteuid(0) == 0);
}

TEST(VolumeRoot, StandsBelowTheDirectoryUntilItIsInUse) {
  const TemporaryDirectory directory;
  const std::string file = directory.write("file");
  ASSERT_EQ(::symlink(directory.path().c_str(), (directory / "link").c_str()), 0);
  ErrorPtr error;
  EXPECT_EQ(volumeRoot(), "");
  EXPECT_FALSE(setVolumeRoot(directory / "missing", &error));
  EXPECT_EQ(codeOf(error), 260);
  EXPECT_FALSE(setVolumeRoot(file, &error));
  EXPECT_TRUE(setVolumeRoot("/"));
  EXPECT_EQ(volumeRoot(), "");
  EXPECT_TRUE(setVolumeRoot(directory / "link/"));
  EXPECT_EQ(volumeRoot(), directory.path());
  EXPECT_EQ(Host::current().resolve("/Users/Shared"), directory.path() + "/Users/Shared");
  EXPECT_EQ(Host::current().resolve("/"), directory.path());
  EXPECT_FALSE(setVolumeRoot("/", &error));
  EXPECT_EQ(codeOf(error), 256);
}

TEST(ScopedHost, IsInForceForItsLifetime) {
  struct NamedHost : PosixHost {
    std::string userName() const override { return "somebody"; }
  } named;
  {
    const ScopedHost scope(named);
    EXPECT_EQ(Host::current().userName(), "somebody");
  }
  EXPECT_NE(Host::current().userName(), "somebody");
}

/// A named pipe: what a program that nobody waits for has to say.
std::string launchAndRead(const TemporaryDirectory& directory, const std::string& script,
                          std::vector<std::string> arguments) {
  const std::string pipe = directory / "pipe";
  EXPECT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  arguments.insert(arguments.begin(), {"-c", "exec > '" + pipe + "'\n" + script});
  ErrorPtr error;
  EXPECT_TRUE(Host::current().startDetached("/bin/sh", arguments, &error));
  return error ? error->localizedDescription() : readFile(pipe);
}

TEST(StartDetached, RunsTheProgramInASessionOfItsOwnAndLeavesNoChild) {
  const TemporaryDirectory directory;
  const int inherited = ::open("/dev/zero", O_RDONLY);  // without O_CLOEXEC, as applications do
  ::signal(SIGPIPE, SIG_IGN);
  const std::string said = launchAndRead(directory,
                                         "read -r _ _ _ _ _ session _ < /proc/$$/stat\n"
                                         "[ $session = $$ ] && echo session\n"
                                         "readlink /proc/$$/fd/0 /proc/$$/fd/2\n"
                                         "ls -l /proc/$$/fd | grep -c zero\n"
                                         "grep SigIgn /proc/$$/status | grep -o '[^0]*$'\n"
                                         "for a; do echo \"<$a>\"; done",
                                         {"name", "-eventID", "a b $HOME"});
  EXPECT_EQ(said, "session\n/dev/null\n/dev/null\n0\n<-eventID>\n<a b $HOME>\n");
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  ::close(inherited);
}

/// A shell that waits, with `argument` in its command line, until the test ends it.
int waitAsShell(const ChildProcess::Line& line, const std::string& argument) {
  ::dup2(line.descriptor(), STDIN_FILENO);
  ::dup2(line.descriptor(), STDOUT_FILENO);
  return ::execl("/bin/sh", "sh", "-c", "printf x; read -r _; :", argument.c_str(), "two\nlines", nullptr);
}

TEST(ProcessListing, HoldsTheCommandLinesOfTheUsersProcessesOnly) {
  const TemporaryDirectory directory;
  const std::string viewer = directory / "My Viewer.app";
  ChildProcess own([&](const ChildProcess::Line& line) { return waitAsShell(line, viewer + "\xFF"); });
  ASSERT_TRUE(own.line().wait());
  ChildProcess others([&](const ChildProcess::Line& line) {
    return ::geteuid() == 0 && ::setuid(65534) == 0 ? waitAsShell(line, "other") : 1;
  });
  const bool otherRuns = others.line().wait();

  const std::string listing = "\n" + Host::current().processListing().value_or("");
  EXPECT_TRUE(isValidUTF8(listing));
  EXPECT_NE(listing.find("\n" + std::to_string(own.number()) + " sh -c printf x; read -r _; : " + viewer +
                         "\xEF\xBF\xBD two?lines\n"),
            std::string::npos)
      << listing;
  EXPECT_NE(listing.find("\n" + std::to_string(::getpid()) + " "), std::string::npos);
  const bool listed = listing.find("\n" + std::to_string(others.number()) + " ") != std::string::npos;
  EXPECT_FALSE(otherRuns && listed) << listing;
}

// Directory locks.

TEST(DirectoryLock, IsOneForAllAndReentrantForItsThread) {
  const TemporaryDirectory directory;
  const auto lock = DirectoryLock::forDirectory(directory.path());
  EXPECT_EQ(lock, DirectoryLock::forDirectory(directory.path() + "/."));
  int counter = 0;
  std::atomic<int> inside{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int turn = 0; turn < 300; ++turn) {
        ASSERT_TRUE(lock->lock(kLong));
        ASSERT_TRUE(lock->lock(kLong));
        EXPECT_EQ(++inside, 1);
        ++counter;
        lock->unlock();
        --inside;
        lock->unlock();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(counter, 1200);
}

TEST(DirectoryLock, OfAReplacedDirectoryIsANewOne) {
  const TemporaryDirectory directory;
  const std::string path = directory / "store";
  ErrorPtr error;
  EXPECT_EQ(DirectoryLock::forDirectory(path, &error), nullptr);
  EXPECT_EQ(codeOf(error), 260);
  std::filesystem::create_directory(path);
  const auto first = DirectoryLock::forDirectory(path);
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_NE(first, DirectoryLock::forDirectory(path));
}

TEST(DirectoryLock, KeepsProcessesApart) {
  const TemporaryDirectory directory;
  const std::string file = directory.write("counter", "0");
  constexpr int kProcesses = 4;
  constexpr int kTurns = 100;
  const auto work = [&](const ChildProcess::Line& line) {
    const auto lock = DirectoryLock::forDirectory(directory.path());
    line.wait();
    for (int turn = 0; turn < kTurns; ++turn) {
      if (!lock->lock(kLong)) return 1;
      const int value = std::stoi(readFile(file));
      std::ofstream(file) << value + 1;
      lock->unlock();
    }
    return 0;
  };
  std::vector<std::unique_ptr<ChildProcess>> children;
  children.reserve(kProcesses);
  for (int child = 0; child < kProcesses; ++child)
    children.push_back(std::make_unique<ChildProcess>(work));
  for (const auto& child : children)
    child->line().signal();
  for (const auto& child : children)
    EXPECT_EQ(child->exitStatus(), 0);
  EXPECT_EQ(readFile(file), std::to_string(kProcesses * kTurns));
}

TEST(DirectoryLock, LetsAWaiterInAlthoughAnotherKeepsAskingForIt) {
  const TemporaryDirectory directory;
  void* const shared =
      ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto& turnsOfTheOther = *new (shared) std::atomic<int>(0);
  ChildProcess other([&](const ChildProcess::Line&) {
    const auto lock = DirectoryLock::forDirectory(directory.path());
    for (;;) {
      lock->lock(kLong);
      ++turnsOfTheOther;
      std::this_thread::sleep_for(milliseconds(1));  // the work under the lock
      lock->unlock();
    }
    return 0;
  });
  const auto lock = DirectoryLock::forDirectory(directory.path());
  int waitedFor = 0;
  constexpr int kTurns = 30;
  for (int turn = 0; turn < kTurns; ++turn) {
    const int before = turnsOfTheOther;
    while (turnsOfTheOther == before)
      std::this_thread::yield();
    ASSERT_TRUE(lock->lock(kLong));
    waitedFor += turnsOfTheOther - before;
    lock->unlock();
  }
  EXPECT_LT(waitedFor, 5 * kTurns) << "the other went first again and again";
}

int holdUntilTold(const TemporaryDirectory& directory, const ChildProcess::Line& line) {
  const auto lock = DirectoryLock::forDirectory(directory.path());
  if (!lock->lock(kLong)) return 1;
  line.signal();
  line.wait();
  lock->unlock();
  return 0;
}

TEST(DirectoryLock, IsFreeWhenItsHolderIsKilled) {
  const TemporaryDirectory directory;
  ChildProcess holder([&](const ChildProcess::Line& line) { return holdUntilTold(directory, line); });
  ASSERT_TRUE(holder.line().wait());
  const auto lock = DirectoryLock::forDirectory(directory.path());
  EXPECT_FALSE(lock->lock(milliseconds(0)));
  std::thread waiter([&] {
    EXPECT_TRUE(lock->lock(kLong));
    lock->unlock();
  });
  holder.kill(SIGKILL);
  waiter.join();
}

TEST(DirectoryLock, PassesByAHolderThatIsStopped) {
  using Clock = std::chrono::steady_clock;
  const TemporaryDirectory directory;
  ChildProcess holder([&](const ChildProcess::Line& line) { return holdUntilTold(directory, line); });
  ASSERT_TRUE(holder.line().wait());
  holder.kill(SIGSTOP);
  holder.awaitStop();

  const auto lock = DirectoryLock::forDirectory(directory.path());
  constexpr milliseconds kPatience{200};
  const auto start = Clock::now();
  EXPECT_FALSE(lock->lock(kPatience));
  lock->unlock();
  const auto passed = Clock::now();
  EXPECT_GE(passed - start, kPatience);
  for (int call = 0; call < 100; ++call) {
    EXPECT_FALSE(lock->lock(kPatience));
    lock->unlock();
  }
  EXPECT_LT(Clock::now() - passed, 20 * kPatience) << "later calls pass at once";

  holder.kill(SIGCONT);
  holder.line().signal();
  EXPECT_EQ(holder.exitStatus(), 0);
  EXPECT_TRUE(lock->lock(kLong)) << "the holder has gone";
  lock->unlock();
  EXPECT_TRUE(lock->lock(kLong));
  lock->unlock();
}

TEST(CoordinateWriting, RunsTheAccessorWithAndWithoutTheLock) {
  const TemporaryDirectory directory;
  int runs = 0;
  ErrorPtr error;
  Host& host = Host::current();
  host.coordinateWriting(directory.path(), &error, [&] {
    ++runs;
    host.coordinateWriting(directory.path(), &error, [&] { ++runs; });
    std::thread([&] {
      EXPECT_FALSE(DirectoryLock::forDirectory(directory.path())->lock(milliseconds(1)));
    }).join();
  });
  EXPECT_EQ(error, nullptr);
  host.coordinateWriting(directory / "missing", &error, [&] { ++runs; });
  EXPECT_EQ(codeOf(error), 260);
  EXPECT_EQ(runs, 3);
}

}  // namespace
}  // namespace qx
