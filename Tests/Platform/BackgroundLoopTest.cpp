#include "Platform/BackgroundLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <future>
#include <set>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Platform/FileWatch.h"
#include "Tests/Platform/LoopTesting.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace qx {
namespace {

using std::chrono::milliseconds;
using test::ChildProcess;
using test::comesToRest;
using test::kMayForkAnyTime;
using test::kMayLackDescriptors;
using test::runsTasks;
using test::Signal;
using test::TemporaryDirectory;

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    reader = FileDescriptor(ends[0]);
    writer = FileDescriptor(ends[1]);
  }
  void put() const { EXPECT_EQ(::write(writer.get(), "x", 1), 1); }
  char take() const {
    char byte = 0;
    EXPECT_EQ(::read(reader.get(), &byte, 1), 1);
    return byte;
  }

  FileDescriptor reader;
  FileDescriptor writer;
};

TEST(ConcurrentBackgroundLoop, RunsTasksInOrderOfTheirTimeAndSurvivesTheirExceptions) {
  BackgroundLoop& loop = BackgroundLoop::shared();
  const auto start = std::chrono::steady_clock::now();
  std::vector<int> order;
  Signal all;
  loop.after(milliseconds::max(), [&] { order.push_back(9); });
  loop.after(milliseconds(60), [&] {
    order.push_back(3);
    all.send();
  });
  loop.after(milliseconds(30), [&] {
    order.push_back(2);
    throw std::runtime_error("ends here");
  });
  loop.after(milliseconds::min(), [&] {
    loop.after({}, [&] { order.push_back(1); });
    order.push_back(0);
  });
  ASSERT_TRUE(all.wait());
  EXPECT_EQ(order, (std::vector{0, 1, 2, 3}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(60));
}

TEST(ConcurrentBackgroundLoop, LetsStoppedTimePassByAdvanceOnly) {
  BackgroundLoop& loop = BackgroundLoop::shared();
  loop.stopTime();
  std::vector<int> order;
  std::thread::id thread;
  loop.after(milliseconds(20), [&] { order.push_back(20); });
  loop.after(milliseconds(10), [&] {
    order.push_back(10);
    loop.after(milliseconds(5), [&] { order.push_back(15); });
    loop.after(milliseconds(11), [&] { order.push_back(21); });
    thread = std::this_thread::get_id();
  });
  loop.advance(milliseconds(9));
  EXPECT_TRUE(order.empty());
  loop.advance(milliseconds(11));
  EXPECT_EQ(order, (std::vector{10, 15, 20}));
  EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST(ConcurrentBackgroundLoop, RunsATaskWheneverItsDescriptorIsReadable) {
  BackgroundLoop& loop = BackgroundLoop::shared();
  const Pipe question;
  const Pipe answer;
  ASSERT_TRUE(loop.watchReadable(question.reader.get(), [&] {
    question.take();
    answer.put();
  }));
  for (int i = 0; i < 20; ++i) {
    question.put();
    EXPECT_EQ(answer.take(), 'x');
    EXPECT_TRUE(runsTasks());
  }
  loop.unwatch(question.reader.get());
  question.put();
  EXPECT_TRUE(runsTasks() && runsTasks());
  EXPECT_EQ(question.take(), 'x') << "not taken by the loop";
}

TEST(ConcurrentBackgroundLoop, LetsARunningTaskEndBeforeUnwatchReturns) {
  BackgroundLoop& loop = BackgroundLoop::shared();
  const Pipe pipe;
  pipe.put();
  Signal entered;
  Signal release;
  std::atomic<bool> left = false;
  const auto held = std::make_shared<int>();
  ASSERT_TRUE(loop.watchReadable(pipe.reader.get(), [&, held] {
    entered.send();
    EXPECT_TRUE(release.wait());
    loop.unwatch(pipe.reader.get());  // inside: returns at once
    left = true;
  }));
  ASSERT_TRUE(entered.wait());
  auto unwatched = std::async(std::launch::async, [&] {
    loop.unwatch(pipe.reader.get());
    return left.load();
  });
  EXPECT_EQ(unwatched.wait_for(milliseconds(20)), std::future_status::timeout);
  release.send();
  EXPECT_TRUE(unwatched.get());
  EXPECT_TRUE(runsTasks() && runsTasks());
  EXPECT_EQ(held.use_count(), 1) << "a task is destroyed when it is not needed any more";
}

TEST(ConcurrentBackgroundLoop, ForgetsADescriptorThatIsClosed) {
  std::atomic<int> runs = 0;
  Pipe pipe;
  ASSERT_TRUE(BackgroundLoop::shared().watchReadable(pipe.reader.get(), [&] { ++runs; }));
  EXPECT_TRUE(runsTasks() && runsTasks());
  pipe.reader.reset();
  for (int i = 0; i < 5; ++i)
    EXPECT_TRUE(runsTasks());
  EXPECT_EQ(runs, 1);
}

TEST(ConcurrentBackgroundLoop, GoesOnWhileTheProcessMayHaveNoDescriptors) {
  if (!kMayLackDescriptors) GTEST_SKIP();
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const Pipe pipe;
  Signal read;
  const auto take = [&] {
    pipe.take();
    read.send();
  };
  const auto limitTo = [&](int descriptors) {
    const rlimit lower{static_cast<rlim_t>(descriptors), limit.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &lower), 0);
  };
  limitTo(0);  // now poll(2) fails
  EXPECT_TRUE(runsTasks());
  EXPECT_TRUE(BackgroundLoop::shared().watchReadable(pipe.reader.get(), take));
  EXPECT_TRUE(runsTasks() && runsTasks());
  limitTo(pipe.writer.get() + 1);  // now only new descriptors cannot be had
  pipe.put();
  EXPECT_TRUE(read.wait());
  BackgroundLoop::shared().unwatch(pipe.reader.get());
}

std::set<int> openSockets() {
  std::set<int> sockets;
  for (int number = 0; number < 100; ++number) {
    struct stat status {};
    if (::fstat(number, &status) == 0 && S_ISSOCK(status.st_mode)) sockets.insert(number);
  }
  return sockets;
}

TEST(ConcurrentBackgroundLoop, LeavesAloneWhatHasTakenTheNumbersOfItsDescriptors) {
  if (!kMayLackDescriptors) GTEST_SKIP();
  constexpr std::string_view kContent = "0123456789abcdef";
  const TemporaryDirectory directory;
  std::ofstream(directory.path() + "/file") << kContent;
  const FileDescriptor file(::open((directory.path() + "/file").c_str(), O_RDWR | O_CLOEXEC));
  const Pipe quiet;
  const Pipe watched;
  const std::set<int> before = openSockets();
  for (const int taker : {file.get(), quiet.reader.get()}) {
    ASSERT_TRUE(BackgroundLoop::shared().watchReadable(watched.reader.get(), [] {}) && runsTasks());
    ASSERT_TRUE(comesToRest()) << "it could look at a number just before it is taken, and close it after";
    int taken = 0;
    for (const int number : openSockets()) {
      if (before.count(number) == 0) ++taken, ::dup2(taker, number);
    }
    EXPECT_GT(taken, 0);
    const auto spentBefore = std::clock();
    Signal due;
    BackgroundLoop::shared().after(milliseconds(300), [&] { due.send(); });
    EXPECT_TRUE(due.wait());
    EXPECT_LT(std::clock() - spentBefore, CLOCKS_PER_SEC / 5) << "processor time of a loop that rests";
    BackgroundLoop::shared().unwatch(watched.reader.get());
  }
  EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 0);
  std::string content(2 * kContent.size(), '\0');
  content.resize(static_cast<std::size_t>(::pread(file.get(), content.data(), content.size(), 0)));
  EXPECT_EQ(content, kContent);
}

// Not under the thread sanitizer, which has no threads in the child of a process with threads.
TEST(ForkedBackgroundLoop, BeginsEmptyWhateverOthersDoMeanwhile) {
  if (!kMayForkAnyTime) GTEST_SKIP();
  BackgroundLoop& loop = BackgroundLoop::shared();
  const TemporaryDirectory directory;
  const std::string file = directory.write("file");
  const Pipe pipe;
  const pid_t parent = ::getpid();
  std::atomic<bool> inherited = false;
  const auto note = [&] { inherited = inherited || ::getpid() != parent; };
  ASSERT_TRUE(loop.watchReadable(pipe.reader.get(), note));
  Observation observation = watchFile(file, note);
  std::atomic<bool> stop = false;
  std::thread busy([&] {
    while (!stop) {
      loop.after(milliseconds(1), note);
      const Observation watched = watchFile(file, note);
    }
  });
  for (int i = 0; i < 30; ++i) {
    ChildProcess child([&](const ChildProcess::Line&) {
      observation.cancel();
      Signal changed;
      std::atomic<bool> told = false;
      Observation own = watchFile(file, [&] {
        if (!told.exchange(true)) changed.send();
      });
      std::ofstream(file) << "new";
      const bool works = changed.wait() && runsTasks() && !inherited;
      own.cancel();
      loop.unwatch(pipe.reader.get());
      return works ? 0 : 1;
    });
    EXPECT_EQ(child.exitStatus(), 0);
  }
  stop = true;
  busy.join();
  EXPECT_TRUE(runsTasks()) << "the parent's goes on";
  observation.cancel();
  loop.unwatch(pipe.reader.get());
}

TEST(ForkedBackgroundLoop, LetsATaskFork) {
  std::promise<int> status;
  BackgroundLoop::shared().after({}, [&] {
    ChildProcess child([](const ChildProcess::Line&) { return runsTasks() ? 7 : 1; });
    status.set_value(child.exitStatus());
  });
  EXPECT_EQ(status.get_future().get(), 7);
}

TEST(ForkedBackgroundLoop, RunsOnWhileTheProcessExits) {
  const auto exitBusily = [] {
    static std::function<void()> again = [] { BackgroundLoop::shared().after({}, [] { again(); }); };
    again();
    std::exit(runsTasks() ? 0 : 1);
  };
  EXPECT_EXIT(exitBusily(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qx
