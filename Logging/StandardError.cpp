// Log lines to standard error, which may be anything: a file, a pipe whose reader sleeps, a stopped terminal,
// a service manager's socket, or closed.
//
// Its file description belongs to other processes too, so it cannot be made non-blocking. A socket is asked
// not to wait per call; a pipe or terminal is opened anew, non-blocking, for the moment of writing (kept
// open, it would keep the pipe's reader from seeing its end). Where that is not allowed, a pipe is written
// only what poll(2) promises room for; of a terminal it promises one byte, so its lines are given up.

#include "Logging/StandardError.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "Logging/Backlog.h"
#include "Logging/SyslogProtocol.h"
#include "Logging/WriteSignals.h"
#include "Platform/FileDescriptor.h"

namespace qx::log {
namespace {

constexpr std::size_t kBacklogBytes = 1U << 20;
constexpr int kWarning = 4;  // of syslog(3)

class StandardErrorOutlet final : public Outlet {
 public:
  /// A line that cannot be written is of no use: standard error has no reader then, and the next is another.
  Outcome write(std::string_view* rest) override {
    const int error = writeAtOnce(rest);
    return error == EAGAIN ? Outcome::full : Outcome::finished;
  }
  std::string lostMessage(std::uint64_t count) override {
    const std::string text =
        std::to_string(count) + " log messages were lost: standard error did not take them";
    return standardErrorLine(kWarning, text, std::time(nullptr));
  }

 private:
  /// 0 when all is written, EAGAIN when the rest has to wait, or why it cannot be written.
  static int writeAtOnce(std::string_view* rest) {
    struct stat status {};
    if (::fstat(STDERR_FILENO, &status) != 0) return errno;
    if (S_ISSOCK(status.st_mode)) return sendToSocket(rest);
    const WriteSignals signals;
    const bool mayWait = S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode);
    const int error = mayWait ? writeWithRoom(rest, S_ISCHR(status.st_mode)) : writeAll(rest);
    if (error == EPIPE || error == EFBIG) signals.takeAway();
    return error;
  }

  static int sendToSocket(std::string_view* rest) {
    while (!rest->empty()) {
      const ssize_t sent = ::send(STDERR_FILENO, rest->data(), rest->size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent < 0 && errno != EINTR) return errno;
      if (sent > 0) rest->remove_prefix(static_cast<std::size_t>(sent));
    }
    return 0;
  }

  /// To what never waits for a reader.
  static int writeAll(std::string_view* rest) {
    int error = 0;
    while (error == 0 && !rest->empty())
      error = writePiece(STDERR_FILENO, rest->size(), rest);
    return error;
  }

  static int writeWithRoom(std::string_view* rest, bool isDevice) {
    const FileDescriptor own(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!own && isDevice) return ENXIO;
    const int descriptor = own ? own.get() : STDERR_FILENO;
    int error = 0;
    while (error == 0 && !rest->empty()) {
      pollfd polled{descriptor, POLLOUT, 0};
      if (::poll(&polled, 1, 0) <= 0) return EAGAIN;
      error = writePiece(descriptor, PIPE_BUF, rest);
    }
    return error;
  }

  /// 0 when some of the first `size` bytes were written, or why not.
  static int writePiece(int descriptor, std::size_t size, std::string_view* rest) {
    const ssize_t written = ::write(descriptor, rest->data(), std::min(size, rest->size()));
    if (written < 0) return errno == EINTR ? 0 : errno;
    rest->remove_prefix(static_cast<std::size_t>(written));
    return written > 0 ? 0 : EIO;
  }
};

Backlog& standardError() {
  // Never destroyed: threads may log while the process ends.
  static const auto& backlog = *new std::shared_ptr<Backlog>(
      Backlog::make(std::make_unique<StandardErrorOutlet>(), Backlog::Writing::oneAtATime, kBacklogBytes));
  return *backlog;
}

// When the library is loaded, so that no thread is in the middle of it when another forks.
[[maybe_unused]] const Backlog& madeEarly = standardError();

}  // namespace

void writeToStandardError(std::string_view line) {
  const int callersError = errno;
  try {
    standardError().send(line);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a log line is never worth an operation
  }
  errno = callersError;
}

}  // namespace qx::log
