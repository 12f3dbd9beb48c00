// Datagrams to a reader that is slow, away, restarted or hostile. Whatever is sent in a test while nobody
// reads is sent by the thread that reads later: had a send waited, the test would never end.

#include "Logging/LogTransport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Platform/BackgroundLoop.h"
#include "Platform/FileDescriptor.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/LogSocket.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace qx::log {
namespace {

using test::ChildProcess;
using test::LogSocket;
using Datagrams = LogSocket::Datagrams;

constexpr std::chrono::minutes kPatience{1};

std::string lostMessage(std::uint64_t count) {
  return "lost " + std::to_string(count);
}

Datagrams numbered(const std::string& prefix, int count) {
  Datagrams result;
  for (int i = 0; i < count; ++i)
    result.push_back(prefix + std::to_string(i));
  return result;
}

std::string filled(std::size_t size, char character) {
  return std::string(size, character);
}

class ConcurrentLogTransport : public testing::Test {
 protected:
  void sendAll(const Datagrams& datagrams) {
    for (const auto& datagram : datagrams)
      transport_.send(datagram);
  }
  /// The next `count` datagrams.
  Datagrams received(LogSocket& socket, std::size_t count) {
    EXPECT_TRUE(socket.waitFor(count));
    return socket.take();
  }

  const test::TemporaryDirectory directory_;
  const std::string path_ = directory_ / "run/log/socket";
  LogTransport transport_{path_, LogTransport::Oversize::memoryFile, lostMessage};
};

TEST_F(ConcurrentLogTransport, SendsAtOnceWhatTheReaderTakes) {
  BackgroundLoop::shared().stopTime();
  LogSocket socket(path_);
  sendAll({"one", "", "three"});
  EXPECT_EQ(received(socket, 3), (Datagrams{"one", "", "three"}));
}

TEST_F(ConcurrentLogTransport, ReachesASocketWhosePathIsLongerThanAnAddress) {
  const std::string path = directory_ / (std::string(90, 'd') + "/" + std::string(70, 'e') + "/log");
  LogTransport transport(path, LogTransport::Oversize::cut, lostMessage);
  transport.send("before there is one");
  LogSocket socket(path);
  transport.send("after");
  EXPECT_EQ(received(socket, 2), (Datagrams{"before there is one", "after"}));
}

TEST_F(ConcurrentLogTransport, KeepsTheOrderWhileTheSocketIsFull) {
  LogSocket socket(path_);
  socket.pause();
  const auto lines = numbered("line ", 5000);
  errno = ENOTTY;
  sendAll(lines);
  EXPECT_EQ(errno, ENOTTY);
  socket.resume();
  EXPECT_EQ(received(socket, lines.size()), lines);
  EXPECT_TRUE(transport_.flush(kPatience));
  transport_.send("at once again");
  EXPECT_EQ(received(socket, 1), Datagrams{"at once again"});
}

TEST_F(ConcurrentLogTransport, WaitsForAReaderThatIsAwayAndMeetsItAgainAfterARestart) {
  transport_.send("0: no directory yet");
  LogSocket socket(path_);
  EXPECT_EQ(received(socket, 1), Datagrams{"0: no directory yet"});
  EXPECT_TRUE(transport_.flush(kPatience));

  socket.close();
  sendAll(numbered("1: no file ", 20));
  socket.reopen();
  EXPECT_EQ(received(socket, 20), numbered("1: no file ", 20));
  EXPECT_TRUE(transport_.flush(kPatience));

  socket.reopen();
  transport_.send("2: another socket at once");
  EXPECT_EQ(received(socket, 1), Datagrams{"2: another socket at once"});
}

TEST_F(ConcurrentLogTransport, TellsHowManyWereLostPastItsLimit) {
  BackgroundLoop::shared().stopTime();
  constexpr int kCount = 6000;
  auto lines = numbered(std::string(1000, 'x'), kCount);
  sendAll(lines);
  LogSocket socket(path_);
  ASSERT_TRUE(transport_.flush(kPatience));
  ASSERT_TRUE(socket.waitFor([](const std::string& datagram) { return datagram.rfind("lost", 0) == 0; }));
  const Datagrams arrived = socket.take();
  const std::size_t kept = arrived.size() - 1;
  EXPECT_LE(kept, LogTransport::kBacklogBytes / 1000);
  EXPECT_GE(kept, LogTransport::kBacklogBytes / 1000 * 3 / 4);
  EXPECT_EQ(arrived.back(), lostMessage(kCount - kept));
  lines.resize(kept);
  EXPECT_EQ(Datagrams(arrived.begin(), arrived.end() - 1), lines);
}

TEST_F(ConcurrentLogTransport, TellsOfALossWhereItHappened) {
  sendAll({"before", filled(LogTransport::kBacklogBytes, 'x'), "after"});
  LogSocket socket(path_);
  EXPECT_EQ(received(socket, 3), (Datagrams{"before", "lost 1", "after"}));
}

TEST_F(ConcurrentLogTransport, CountsWhatASocketOfAnotherKindRefuses) {
  BackgroundLoop::shared().stopTime();
  LogSocket socket(path_);
  socket.close();
  {
    const FileDescriptor stream(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(stream.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    sendAll({"1", "2", "3"});
    EXPECT_FALSE(transport_.flush(std::chrono::milliseconds(0)));
  }
  socket.reopen();
  transport_.send("4");
  ASSERT_TRUE(transport_.flush(kPatience));
  EXPECT_EQ(received(socket, 4), (Datagrams{"lost 1", "2", "3", "4"}));
}

TEST_F(ConcurrentLogTransport, SendsLargeDatagramsAsSealedMemoryFiles) {
  LogSocket socket(path_);
  const Datagrams large{filled(3'000'000, 'a'), filled(20'000'000, 'b')};
  sendAll(large);
  EXPECT_TRUE(received(socket, 2) == large);
  socket.pause();
  auto lines = numbered("line ", 1000);
  lines.push_back(large[0] + "c");
  sendAll(lines);
  transport_.send("last");
  lines.emplace_back("last");
  socket.resume();
  EXPECT_TRUE(received(socket, lines.size()) == lines);
  EXPECT_GE(socket.sealedFiles(), 1U);
}

TEST_F(ConcurrentLogTransport, CutsLargeDatagramsBetweenCharacters) {
  LogTransport transport(path_, LogTransport::Oversize::cut, lostMessage);
  LogSocket socket(path_);
  std::string large;
  while (large.size() < 20'000'000)
    large += "\xE2\x82\xAC";
  for (const std::string prefix : {"", "x", "xx"}) {
    transport.send(prefix + large);
    const Datagrams arrived = received(socket, 1);
    ASSERT_EQ(arrived.size(), 1U);
    EXPECT_GT(arrived[0].size(), 50'000U);
    EXPECT_LT(arrived[0].size(), large.size());
    EXPECT_EQ((arrived[0].size() - prefix.size()) % 3, 0U);
    EXPECT_TRUE((prefix + large).compare(0, arrived[0].size(), arrived[0]) == 0);
  }
}

TEST_F(ConcurrentLogTransport, LosesNothingOfSeveralThreads) {
  constexpr int kThreads = 4;
  constexpr int kLines = 1000;
  LogSocket socket(path_);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&, i] { sendAll(numbered(std::to_string(i) + " ", kLines)); });
  socket.pause();
  socket.resume();
  for (auto& thread : threads)
    thread.join();
  std::vector<Datagrams> arrived(kThreads);
  for (auto& datagram : received(socket, std::size_t{kThreads} * kLines))
    arrived.at(static_cast<std::size_t>(datagram[0] - '0')).push_back(std::move(datagram));
  for (int i = 0; i < kThreads; ++i)
    EXPECT_EQ(arrived[static_cast<std::size_t>(i)], numbered(std::to_string(i) + " ", kLines));
}

TEST_F(ConcurrentLogTransport, LeavesTheBacklogToTheParentOfAForkedChild) {
  BackgroundLoop::shared().stopTime();
  LogSocket socket(path_);
  socket.pause();
  const auto lines = numbered("parent ", 100);
  sendAll(lines);
  ChildProcess child([&](const ChildProcess::Line& line) {
    line.wait();
    transport_.send("child");
    return transport_.flush(kPatience) ? 0 : 1;
  });
  socket.resume();
  ASSERT_TRUE(transport_.flush(kPatience));
  EXPECT_EQ(received(socket, lines.size()), lines);
  child.line().signal();
  EXPECT_EQ(child.exitStatus(), 0);
  EXPECT_EQ(received(socket, 1), Datagrams{"child"});
}

TEST_F(ConcurrentLogTransport, CanBeForkedWhileThreadsAreInTheMiddleOfIt) {
  LogSocket socket(path_);
  constexpr int kThreads = 2;
  constexpr int kForks = 15;
  std::atomic<bool> done = false;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      while (!done)
        transport_.send("noise");
    });
  }
  for (int i = 0; i < kForks; ++i) {
    ChildProcess child([&](const ChildProcess::Line&) {
      BackgroundLoop::shared().stopTime();
      transport_.send("child");
      return transport_.flush(kPatience) ? 0 : 1;
    });
    EXPECT_EQ(child.exitStatus(), 0);
  }
  done = true;
  for (auto& thread : threads)
    thread.join();
  ASSERT_TRUE(transport_.flush(kPatience));
  const Datagrams arrived = socket.take();
  EXPECT_EQ(std::count(arrived.begin(), arrived.end(), "child"), kForks);
}

TEST_F(ConcurrentLogTransport, SendsWhatIsKeptBeforeTheProcessEnds) {
  LogSocket socket(path_);
  socket.pause();
  const auto lines = numbered("line ", 500);
  ChildProcess child([&](const ChildProcess::Line& line) -> int {
    BackgroundLoop::shared().stopTime();
    sendAll(lines);
    line.signal();
    line.wait();
    std::exit(7);
  });
  ASSERT_TRUE(child.line().wait());
  socket.resume();
  child.line().signal();
  EXPECT_EQ(child.exitStatus(), 7);
  EXPECT_EQ(received(socket, lines.size()), lines);
}

/// The first descriptor of a local socket without a name; -1 when there is none.
int unboundSocket() {
  for (int descriptor = 3; descriptor < 100; ++descriptor) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    const bool isSocket = ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    if (isSocket && address.sun_family == AF_UNIX && length == sizeof(sa_family_t)) return descriptor;
  }
  return -1;
}

TEST_F(ConcurrentLogTransport, LeavesAloneAFileThatHasTakenItsDescriptorsNumber) {
  LogSocket socket(path_);
  transport_.send("one");
  ASSERT_TRUE(socket.waitFor(1));
  const int number = unboundSocket();
  ASSERT_GE(number, 3);
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
  const FileDescriptor first(pair[0]);
  const FileDescriptor second(pair[1]);
  ASSERT_EQ(::dup2(first.get(), number), number);
  const FileDescriptor programs(number);
  transport_.send("two");
  EXPECT_EQ(received(socket, 2), (Datagrams{"one", "two"}));
  char byte = 0;
  EXPECT_LT(::recv(second.get(), &byte, 1, MSG_DONTWAIT), 0);
}

}  // namespace
}  // namespace qx::log
