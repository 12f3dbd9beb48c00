// Lines to a standard error that nobody reads at present, or ever. What is written while nobody reads is
// written by the thread that reads later: had it waited, the test would never end.

#include "Logging/StandardError.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace qx::log {
namespace {

struct Ends {
  FileDescriptor reader;
  FileDescriptor writer;
};

Ends makePipe() {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

Ends makeSocket() {
  std::array<int, 2> ends{};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

Ends makeTerminal() {
  FileDescriptor reader(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  EXPECT_EQ(::grantpt(reader.get()) | ::unlockpt(reader.get()), 0);
  FileDescriptor writer(::open(::ptsname(reader.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios mode{};
  EXPECT_EQ(::tcgetattr(writer.get(), &mode), 0);
  ::cfmakeraw(&mode);
  EXPECT_EQ(::tcsetattr(writer.get(), TCSANOW, &mode), 0);
  return {std::move(reader), std::move(writer)};
}

/// Standard error leads elsewhere while it lives.
class Redirected {
 public:
  explicit Redirected(Ends ends) : ends_(std::move(ends)), former_(::dup(STDERR_FILENO)) {
    ::dup2(ends_.writer.get(), STDERR_FILENO);
    ends_.writer.reset();
  }
  ~Redirected() { ::dup2(former_.get(), STDERR_FILENO); }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;

  void closeReader() { ends_.reader.reset(); }

  /// The next line without its end.
  std::string line() {
    std::size_t end = 0;
    while ((end = read_.find('\n', position_)) == std::string::npos) {
      read_.erase(0, std::exchange(position_, 0));
      std::array<char, 65536> piece{};
      const ssize_t count = ::read(ends_.reader.get(), piece.data(), piece.size());
      if (count <= 0) return "(end)";
      read_.append(piece.data(), static_cast<std::size_t>(count));
    }
    const std::size_t start = std::exchange(position_, end + 1);
    return read_.substr(start, end - start);
  }

 private:
  Ends ends_;
  FileDescriptor former_;
  std::string read_;
  std::size_t position_ = 0;
};

std::string numbered(int number) {
  return std::to_string(number) + std::string(90, '.');
}

/// How many descriptors the process may have from now on.
void limitDescriptors(rlim_t limit) {
  rlimit limits{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limits), 0);
  limits.rlim_cur = std::min(limit, limits.rlim_max);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limits), 0);
}

/// Writes more than `ends` hold, with at most `descriptors` to be had, and reads it only then.
void expectLinesWholeAndInOrder(Ends ends, rlim_t descriptors) {
  constexpr int kLines = 2500;
  const std::string large(300'000, 'x');
  Redirected standardError(std::move(ends));
  limitDescriptors(descriptors);
  errno = ENOTTY;
  for (int i = 0; i < kLines; ++i)
    writeToStandardError((i == 20 ? large : numbered(i)) + "\n");
  EXPECT_EQ(errno, ENOTTY);
  limitDescriptors(1024);
  for (int i = 0; i < kLines; ++i)
    ASSERT_TRUE(standardError.line() == (i == 20 ? large : numbered(i))) << i;
}

TEST(ConcurrentStandardError, KeepsWhatAPipeHasNoRoomFor) {
  expectLinesWholeAndInOrder(makePipe(), 1024);
}
TEST(ConcurrentStandardError, KeepsWhatAPipeHasNoRoomForWhenItCannotBeOpenedAnew) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizers look at memory through descriptors of their own";
#endif
  expectLinesWholeAndInOrder(makePipe(), STDERR_FILENO + 1);
}
TEST(ConcurrentStandardError, KeepsWhatASocketHasNoRoomFor) {
  expectLinesWholeAndInOrder(makeSocket(), 1024);
}
TEST(ConcurrentStandardError, KeepsWhatATerminalHasNoRoomFor) {
  expectLinesWholeAndInOrder(makeTerminal(), 1024);
}

TEST(ConcurrentStandardError, FinishesALineThatIsLongerThanTheLimit) {
  Redirected standardError(makePipe());
  const std::string large(3'000'000, 'x');
  writeToStandardError(large + "\n");
  writeToStandardError("has no room\n");
  EXPECT_TRUE(standardError.line() == large);
  EXPECT_NE(standardError.line().find(": 1 log messages were lost"), std::string::npos);
}

TEST(ConcurrentStandardError, TellsHowManyLinesWereLostPastTheLimit) {
  constexpr int kLines = 30'000;
  Redirected standardError(makePipe());
  for (int i = 0; i < kLines; ++i)
    writeToStandardError(numbered(i) + "\n");
  int kept = 0;
  std::string line = standardError.line();
  for (; line == numbered(kept); line = standardError.line())
    ++kept;
  EXPECT_LT(kept, kLines / 2);
  const std::string loss = " <Warning>: " + std::to_string(kLines - kept) + " log messages were lost";
  EXPECT_NE(line.find(loss), std::string::npos) << line;
}

TEST(ConcurrentStandardError, DoesNotMixTheLinesOfThreads) {
  constexpr int kThreads = 3;
  constexpr int kLines = 200;
  Redirected standardError(makePipe());
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i] {
      for (int line = 0; line < kLines; ++line)
        writeToStandardError(
            std::string(static_cast<std::size_t>(10 + line * 10), static_cast<char>('a' + i)) + "\n");
    });
  }
  std::array<std::size_t, kThreads> seen{};
  for (int i = 0; i < kThreads * kLines; ++i) {
    const std::string line = standardError.line();
    auto& count = seen.at(static_cast<std::size_t>(line.at(0) - 'a'));
    EXPECT_EQ(line, std::string(10 + 10 * count++, line[0]));
  }
  for (auto& thread : threads)
    thread.join();
}

TEST(ConcurrentStandardError, LosesLinesWithoutASignalWhenTheReaderIsGone) {
  ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);
  for (const auto make : {makePipe, makeSocket, makeTerminal}) {
    Redirected standardError(make());
    standardError.closeReader();
    errno = ENOTTY;
    writeToStandardError("nobody sees it\n");
    EXPECT_EQ(errno, ENOTTY);
    sigset_t pending;
    sigset_t blocked;
    ASSERT_EQ(::sigpending(&pending) | ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked), 0);
    EXPECT_EQ(::sigismember(&pending, SIGPIPE) + ::sigismember(&blocked, SIGPIPE), 0);
  }
  Redirected standardError(makePipe());
  ::close(STDERR_FILENO);
  writeToStandardError("nor this\n");
}

TEST(ConcurrentStandardError, WritesToAFileDirectly) {
  const test::TemporaryDirectory directory;
  const std::string path = directory.write("log");
  {
    Redirected standardError({{}, FileDescriptor(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC))});
    writeToStandardError(std::string(3'000'000, 'x') + "\n");
  }
  EXPECT_EQ(std::filesystem::file_size(path), 3'000'001U);
}

}  // namespace
}  // namespace qx::log
